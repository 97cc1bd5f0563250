// A password-grant OAuth 2.0 server for the sign-in tests, on 127.0.0.1 and a
// free port: client "zd-password" (public), users alice (password "pw") and
// carol (password "pw" and the one-time code "123456" in the X-ZD-OTP header).
// POST /token grants password and refresh_token (rotated); GET /api/me answers
// the bearer token's user, or 401 with WWW-Authenticate.
//
//   node password_server.js [--access-ttl SECONDS]
// prints "listening on <port>" once it accepts connections.
const http = require('node:http');
const OAuth2Server = require('@node-oauth/oauth2-server');

const { Request, Response } = OAuth2Server;
const args = process.argv.slice(2);
const accessTtl = args.includes('--access-ttl') ? Number(args[args.indexOf('--access-ttl') + 1]) : 3600;

const users = { alice: { id: 'alice', username: 'alice' }, carol: { id: 'carol', username: 'carol', otp: '123456' } };
const client = { id: 'zd-password', grants: ['password', 'refresh_token'] };
const accessTokens = new Map();
const refreshTokens = new Map();

const model = {
  getClient: async (id) => (id === client.id ? client : null),
  getUser: async (username, password) => (users[username] && password === 'pw' ? users[username] : null),
  saveToken: async (token, c, user) => {
    const saved = { ...token, client: c, user };
    accessTokens.set(token.accessToken, saved);
    if (token.refreshToken) refreshTokens.set(token.refreshToken, saved);
    return saved;
  },
  getAccessToken: async (token) => accessTokens.get(token) || null,
  getRefreshToken: async (token) => refreshTokens.get(token) || null,
  revokeToken: async (token) => refreshTokens.delete(token.refreshToken),
  validateScope: async (user, c, scope) => scope || ['upload'],
  verifyScope: async () => true,
};

const server = new OAuth2Server({
  model,
  accessTokenLifetime: accessTtl,
  requireClientAuthentication: { password: false, refresh_token: false },
  allowBearerTokensInQueryString: false,
});

function send(res, response) {
  res.writeHead(response.status || 200, { 'content-type': 'application/json', ...response.headers });
  res.end(JSON.stringify(response.body || {}));
}

const listener = http.createServer((req, res) => {
  let body = '';
  req.on('data', (chunk) => { body += chunk; });
  req.on('end', async () => {
    const url = new URL(req.url, 'http://127.0.0.1');
    const form = Object.fromEntries(new URLSearchParams(body));
    const request = new Request({ method: req.method, query: Object.fromEntries(url.searchParams), headers: req.headers, body: form });
    const response = new Response({ headers: {} });
    try {
      if (url.pathname === '/token') {
        const user = users[form.username];
        if (form.grant_type === 'password' && user && user.otp && form.password === 'pw') {
          const code = req.headers['x-zd-otp'];
          if (!code) {
            send(res, { status: 401, headers: { 'x-zd-otp': 'required' }, body: { error: 'invalid_grant', error_description: 'missing_two_factor' } });
            return;
          }
          if (code !== user.otp) {
            send(res, { status: 400, body: { error: 'invalid_grant', error_description: 'wrong one-time code' } });
            return;
          }
        }
        const token = await server.token(request, response);
        send(res, { status: 200, headers: response.headers, body: { ...response.body, username: token.user.username } });
      } else if (url.pathname === '/api/me') {
        const token = await server.authenticate(request, response);
        send(res, { status: 200, body: { username: token.user.username } });
      } else {
        send(res, { status: 404, body: { error: 'not_found' } });
      }
    } catch (error) {
      send(res, { status: error.code || 500, headers: response.headers, body: { error: error.name, error_description: error.message } });
    }
  });
});
listener.listen(0, '127.0.0.1', () => process.stdout.write(`listening on ${listener.address().port}\n`));
