// Authentication, envelope checking, limits and the static admin page of
// `tavo serve`.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import net from 'node:net';
import { mkdirSync, writeFileSync, symlinkSync } from 'node:fs';
import { join } from 'node:path';
import {
  scratch, initRoot, moduleFolder, startServer, login, post, GROUP_MODULE, USER_PASSWORD,
  ADMIN_PASSWORD,
} from './helpers.mjs';

let tmp, server, token;

before(async () => {
  tmp = scratch();
  const root = initRoot(tmp.dir);
  const web = join(tmp.dir, 'web');
  mkdirSync(join(web, 'css'), { recursive: true });
  writeFileSync(join(web, 'index.html'), '<!doctype html><title>t</title>');
  writeFileSync(join(web, 'css/site.css'), 'body{}');
  writeFileSync(join(tmp.dir, 'secret.txt'), 'TOP SECRET');
  symlinkSync(join(tmp.dir, 'secret.txt'), join(web, 'leak.txt'));
  server = await startServer({
    root, web, modules: moduleFolder(tmp.dir, [GROUP_MODULE]), extra: ['--max-body', '4096'],
  });
  const r = await login(server.url);
  assert.equal(r.status, 200);
  token = r.body.data.token;
});

after(async () => {
  await server?.stop();
  tmp?.cleanup();
});

const LIST = { api: 'TAVO.Core.Group', version: 1, method: 'list', params: {} };

test('login hands out a cookie and a token; only the token opens the API', async () => {
  const r = await login(server.url);
  assert.equal(r.status, 200);
  assert.equal(r.body.success, true);
  assert.equal(r.body.data.account, 'admin');
  // Names match ignoring case; the session carries the account's own spelling.
  assert.equal((await login(server.url, 'ADMIN')).body.data.account, 'admin');
  assert.match(r.body.data.token, /^[0-9a-f]{64}$/);
  assert.match(r.cookie, /^tavo_session=[0-9a-f]{64}$/);

  const noAuth = await fetch(`${server.url}/api`, { method: 'POST', body: JSON.stringify(LIST) });
  assert.equal(noAuth.status, 401);
  assert.ok((await noAuth.json()).error);

  const cookieOnly = await fetch(`${server.url}/api`, {
    method: 'POST', headers: { Cookie: r.cookie }, body: JSON.stringify(LIST),
  });
  assert.equal(cookieOnly.status, 401);
  const cookieGet = await fetch(`${server.url}/api?api=TAVO.Core.Group&method=list`, {
    headers: { Cookie: r.cookie },
  });
  assert.equal(cookieGet.status, 401);
  assert.equal((await post(server.url, 'f'.repeat(64), LIST)).status, 401);

  const bearer = await fetch(`${server.url}/api/info`, {
    headers: { Authorization: `Bearer ${r.body.data.token}` },
  });
  assert.equal(bearer.status, 200);
  const apis = (await bearer.json()).data.apis.map((a) => `${a.api}/${a.version}:${a.methods.join(',')}`);
  assert.ok(apis.includes('TAVO.Core.Group/1:list,get,set,delete,create,admin_check'), apis.join(' '));
  assert.ok(apis.includes('TAVO.Core.Group.Member/1:list,add,remove,admin_check'));
  assert.ok(apis.includes('TAVO.Core.EventLog/1:list'));

  // The cookie alone recovers the token for a reloaded page, then logout ends it.
  const session = await fetch(`${server.url}/api/auth/session`, { headers: { Cookie: r.cookie } });
  assert.equal(session.status, 200);
  assert.equal((await session.json()).data.token, r.body.data.token);
  const out = await fetch(`${server.url}/api/auth/logout`, {
    method: 'POST', headers: { 'X-Tavo-Token': r.body.data.token },
  });
  assert.equal(out.status, 200);
  assert.match(out.headers.get('set-cookie'), /Max-Age=0/);
  assert.equal((await post(server.url, r.body.data.token, LIST)).status, 401);
  assert.equal((await fetch(`${server.url}/api/auth/session`, { headers: { Cookie: r.cookie } })).status, 401);
});

test('wrong passwords get 401, a valid non-administrator 403, a disabled account 401', async () => {
  assert.equal((await login(server.url, 'admin', 'wrong')).status, 401);
  assert.equal((await login(server.url, 'nosuchuser', 'x')).status, 401);
  assert.equal((await login(server.url, 'guest', '!')).status, 401);
  const alice = await login(server.url, 'alice', USER_PASSWORD);
  assert.equal(alice.status, 403);
  assert.equal(alice.cookie, '');
  const bad = await fetch(`${server.url}/api/auth/login`, {
    method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{"account": 1}',
  });
  assert.equal(bad.status, 400);
  // A form of another site can post plain text without asking: not a login.
  const form = await fetch(`${server.url}/api/auth/login`, {
    method: 'POST', headers: { 'Content-Type': 'text/plain' },
    body: JSON.stringify({ account: 'admin', password: ADMIN_PASSWORD }),
  });
  assert.equal(form.status, 400);
  // A NUL would end the name early below the throttle, which counts the whole text.
  assert.equal((await login(server.url, 'admin\u0000x', 'wrong')).status, 400);
  assert.equal((await login(server.url, 'admin', `${ADMIN_PASSWORD}\u0000x`)).status, 400);
});

test('repeated failed logins are refused with 429 for that account', async () => {
  let last;
  for (let i = 0; i < 6; i++) last = await login(server.url, 'bob', 'guess' + i);
  assert.equal(last.status, 429);
  assert.match(last.body.error, /too many failed logins/);
  // Even the right password waits now; other accounts from this address do not.
  for (const variant of ['bob', 'BOB']) {
    const right = await login(server.url, variant, USER_PASSWORD);
    assert.equal(right.status, 429, variant);
  }
  assert.equal((await login(server.url)).status, 200);
});

test('bad envelopes are transport errors; answers are envelopes with HTTP 200', async () => {
  const cases = [
    ['not json', 400],
    ['[1,2]', 400],
    [{ api: 5, method: 'list' }, 400],
    [{ api: 'TAVO.Core.Group', method: 'list', version: 'one' }, 400],
    [{ api: 'TAVO.Core.Group', method: 'list', params: [1] }, 400],
    [{ api: 'TAVO.Nope', version: 1, method: 'list' }, 404],
    [{ api: 'TAVO.Core.Group', version: 2, method: 'list' }, 404],
    [{ api: 'TAVO.Core.Group', version: 1, method: 'nope' }, 404],
  ];
  for (const [envelope, status] of cases) {
    const r = await post(server.url, token, envelope);
    assert.equal(r.status, status, JSON.stringify(envelope));
    assert.equal(typeof r.body.error, 'string', JSON.stringify(r.body));
  }
  const ok = await post(server.url, token, LIST);
  assert.equal(ok.status, 200);
  assert.equal(ok.body.success, true);

  // GET reads each value as JSON when it parses: limit=2 is a number, so it is
  // accepted; a failing method answers its code in the envelope, still HTTP 200.
  const get = await fetch(`${server.url}/api?api=TAVO.Core.Group&version=1&method=list&limit=2`, {
    headers: { 'X-Tavo-Token': token },
  });
  assert.equal(get.status, 200);
  assert.equal((await get.json()).data.groups.length, 2);
  const badParam = await fetch(`${server.url}/api?api=TAVO.Core.Group&method=list&limit=abc`, {
    headers: { 'X-Tavo-Token': token },
  });
  assert.equal(badParam.status, 200);
  assert.deepEqual(await badParam.json(), { success: false, error: { code: 3201 } });
});

test('a body over the limit gets 413 and the server carries on', async () => {
  const big = JSON.stringify({ ...LIST, params: { substr: 'x'.repeat(8000) } });
  const r = await fetch(`${server.url}/api`, {
    method: 'POST', headers: { 'X-Tavo-Token': token }, body: big,
  });
  assert.equal(r.status, 413);
  assert.match((await r.json()).error, /too large/);
  // A chunked body is not bounded by a declared length: refused outright.
  const chunk = 'x'.repeat(3000);
  const chunked = await raw(server.url, `POST /api HTTP/1.1\r\nHost: x\r\nX-Tavo-Token: ${token}\r\n` +
    'Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n' +
    `${chunk.length.toString(16)}\r\n${chunk}\r\n`.repeat(3) + '0\r\n\r\n');
  assert.equal(chunked.status, 411);
  assert.equal((await post(server.url, token, LIST)).status, 200);
});

test('a request line that never ends is cut off, and the server carries on', async () => {
  const { hostname, port } = new URL(server.url);
  const sock = net.connect(Number(port), hostname);
  await new Promise((resolve) => sock.on('connect', resolve));
  const closed = new Promise((resolve) => { sock.on('error', resolve); sock.on('close', resolve); });
  let sent = 0;
  let open = true;
  closed.then(() => { open = false; });
  sock.write('GET /');
  const chunk = 'a'.repeat(65536);
  while (open && sent < 64 * 1024 * 1024) {
    if (!sock.write(chunk)) await Promise.race([new Promise((r) => sock.once('drain', r)), closed]);
    sent += chunk.length;
  }
  sock.destroy();
  assert.ok(sent < 16 * 1024 * 1024, `the server read ${sent} bytes of one request line`);
  assert.equal((await post(server.url, token, LIST)).status, 200);
});

// Sends a raw request, as a browser would never do, and returns the status.
function raw(url, request) {
  const { hostname, port } = new URL(url);
  return new Promise((resolve, reject) => {
    const sock = net.connect(Number(port), hostname, () => sock.write(request));
    let data = '';
    sock.on('data', (d) => { data += d; });
    sock.on('end', () => resolve({ status: Number(data.split(' ')[1]), text: data }));
    sock.on('error', reject);
  });
}

test('the admin page is served, and nothing outside its folder', async () => {
  const index = await fetch(`${server.url}/`);
  assert.equal(index.status, 200);
  assert.match(index.headers.get('content-type'), /^text\/html/);
  assert.match(index.headers.get('content-security-policy'), /default-src 'self'.*frame-ancestors 'none'/);
  assert.equal(index.headers.get('x-content-type-options'), 'nosniff');
  const apiRes = await fetch(`${server.url}/api/info`, { headers: { 'X-Tavo-Token': token } });
  assert.equal(apiRes.headers.get('content-type'), 'application/json; charset=utf-8');
  assert.equal(apiRes.headers.get('cache-control'), 'no-store');
  for (const method of ['PUT', 'DELETE', 'PATCH', 'OPTIONS']) {
    const r = await fetch(`${server.url}/api`, { method, headers: { 'X-Tavo-Token': token }, body: '{}' });
    assert.equal(r.status, 405, method);
    assert.equal(r.headers.get('allow'), 'GET, HEAD, POST');
  }
  const css = await fetch(`${server.url}/css/site.css`);
  assert.match(css.headers.get('content-type'), /^text\/css/);
  for (const path of ['/../secret.txt', '/css/../../secret.txt', '/%2e%2e/secret.txt',
    '/css/%2E%2E/%2e%2e/secret.txt', '/..%2fsecret.txt', '/leak.txt', '//etc/passwd',
    '/../../../../etc/passwd']) {
    const r = await raw(server.url, `GET ${path} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n`);
    assert.ok(r.status === 400 || r.status === 404, `${path}: ${r.status}`);
    assert.ok(!r.text.includes('TOP SECRET') && !r.text.includes('root:'), path);
  }
  assert.equal((await fetch(`${server.url}/api/nothing`)).status, 404);
});
