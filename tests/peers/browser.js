// A scripted browser for the provider's development pages: follows redirects
// with a cookie jar, signs in as the given user, confirms the device code and
// grants consent (or aborts with --deny), until the flow leaves the provider.
// The last page's status and body go to stdout.
//
//   node browser.js <url> [--user NAME] [--deny]
const args = process.argv.slice(2);
const start = args[0];
const user = args.includes('--user') ? args[args.indexOf('--user') + 1] : 'alice';
const deny = args.includes('--deny');
const jar = new Map();

function remember(response) {
  for (const cookie of response.headers.getSetCookie()) {
    const [pair] = cookie.split(';');
    const at = pair.indexOf('=');
    jar.set(pair.slice(0, at), pair.slice(at + 1));
  }
}

async function visit(url, init = {}) {
  const headers = { ...(init.headers || {}) };
  if (jar.size) headers.cookie = [...jar].map(([k, v]) => `${k}=${v}`).join('; ');
  const response = await fetch(url, { ...init, headers, redirect: 'manual' });
  remember(response);
  return response;
}

function formOf(html, base) {
  const form = /<form([^>]*)>([\s\S]*?)<\/form>/i.exec(html);
  if (!form) return null;
  const action = /action="([^"]*)"/.exec(form[1]);
  const fields = new URLSearchParams();
  for (const input of form[2].matchAll(/<input([^>]*)>/gi)) {
    const name = /name="([^"]*)"/.exec(input[1]);
    const value = /value="([^"]*)"/.exec(input[1]);
    if (name) fields.set(name[1], value ? value[1] : '');
  }
  return { url: new URL(action ? action[1].replace(/&amp;/g, '&') : base, base), fields };
}

async function main() {
  const provider = new URL(start).origin;
  let url = start;
  let init = {};
  for (let step = 0; step < 20; ++step) {
    const response = await visit(url, init);
    init = {};
    const location = response.headers.get('location');
    if (location) {
      url = new URL(location, url).toString();
      if (new URL(url).origin !== provider) {
        const last = await fetch(url);
        process.stdout.write(`${last.status}\n${await last.text()}`);
        return;
      }
      continue;
    }
    const html = await response.text();
    const abort = /href="([^"]*\/abort)"/.exec(html);
    if (deny && abort) { url = new URL(abort[1], url).toString(); continue; }
    const form = formOf(html, url);
    if (!form) { process.stdout.write(`${response.status}\n${html}`); return; }
    if (form.fields.has('login')) { form.fields.set('login', user); form.fields.set('password', 'pw'); }
    if (deny && form.fields.has('user_code') && html.includes('name="abort"')) form.fields.set('abort', 'yes');
    url = form.url.toString();
    init = { method: 'POST', body: form.fields.toString(),
      headers: { 'content-type': 'application/x-www-form-urlencoded' } };
  }
  throw new Error('the flow did not end');
}

main().catch((error) => { process.stderr.write(`browser: ${error.message}\n`); process.exit(1); });
