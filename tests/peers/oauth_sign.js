// Signs requests with the npm package oauth-1.0a. Reads a JSON array of
// {method, url, data, consumer: [key, secret], token: [key, secret], nonce,
// timestamp, header} from stdin and prints, one a line, the oauth_signature of
// each or, when "header" is true, its whole Authorization header value.
'use strict';
const OAuth = require('oauth-1.0a');
const crypto = require('crypto');

const chunks = [];
process.stdin.on('data', (chunk) => chunks.push(chunk));
process.stdin.on('end', () => {
  for (const request of JSON.parse(Buffer.concat(chunks).toString('utf8'))) {
    const oauth = OAuth({
      consumer: { key: request.consumer[0], secret: request.consumer[1] },
      signature_method: 'HMAC-SHA1',
      hash_function: (base, key) => crypto.createHmac('sha1', key).update(base).digest('base64'),
    });
    oauth.getNonce = () => request.nonce;
    oauth.getTimeStamp = () => request.timestamp;
    const token = request.token ? { key: request.token[0], secret: request.token[1] } : undefined;
    const signed = oauth.authorize({ url: request.url, method: request.method, data: request.data }, token);
    const line = request.header ? oauth.toHeader(signed).Authorization : signed.oauth_signature;
    process.stdout.write(line + '\n');
  }
});
