// A certified OpenID Connect provider for the sign-in tests, on 127.0.0.1 and a
// free port, with an in-memory store. One native public client "zd-native":
// PKCE required, refresh tokens rotated, the device flow enabled, and the
// provider's own development login and consent pages.
//
//   node oidc_provider.mjs [--access-ttl SECONDS]
// prints "listening on <port>" once it accepts connections.
import http from 'node:http';
import Provider from 'oidc-provider';

const args = process.argv.slice(2);
const option = (name, fallback) => {
  const at = args.indexOf(name);
  return at >= 0 ? args[at + 1] : fallback;
};
const accessTtl = Number(option('--access-ttl', '3600'));

const server = http.createServer();
server.listen(0, '127.0.0.1', () => {
  const { port } = server.address();
  const provider = new Provider(`http://127.0.0.1:${port}`, {
    clients: [{
      client_id: 'zd-native',
      application_type: 'native',
      token_endpoint_auth_method: 'none',
      redirect_uris: ['http://127.0.0.1/callback'],
      grant_types: ['authorization_code', 'refresh_token',
        'urn:ietf:params:oauth:grant-type:device_code'],
      response_types: ['code'],
    }],
    pkce: { required: () => true },
    conformIdTokenClaims: false,
    features: { devInteractions: { enabled: true }, deviceFlow: { enabled: true } },
    issueRefreshToken: async () => true,
    rotateRefreshToken: true,
    ttl: { AccessToken: accessTtl, DeviceCode: 600 },
    findAccount: async (ctx, id) => ({
      accountId: id,
      claims: async () => ({ sub: id, name: id, preferred_username: id }),
    }),
    scopes: ['openid', 'offline_access', 'profile', 'upload'],
    claims: { openid: ['sub'], profile: ['name', 'preferred_username'] },
  });
  provider.proxy = false;
  server.on('request', provider.callback());
  process.stdout.write(`listening on ${port}\n`);
});
