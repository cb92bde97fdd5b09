// Authentication, envelope checking, limits and the static admin page of
// `tavo serve`. The pieces themselves (envelope types, session store, login
// throttle, path confinement) have precise unit tests; these check the wiring.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import net from 'node:net';
import { mkdirSync, writeFileSync, symlinkSync } from 'node:fs';
import { join } from 'node:path';
import { withServer, login, post, USER_PASSWORD, ADMIN_PASSWORD } from './helpers.mjs';

const env = withServer({
  extra: ['--max-body', '4096', '--read-timeout', '2'],
  // A web folder with a symlink out of it, next to a secret.
  prepare: (root, dir) => {
    const web = join(dir, 'web');
    mkdirSync(join(web, 'css'), { recursive: true });
    writeFileSync(join(web, 'index.html'), '<!doctype html><title>t</title>');
    writeFileSync(join(web, 'css/site.css'), 'body{}');
    writeFileSync(join(dir, 'secret.txt'), 'TOP SECRET');
    symlinkSync(join(dir, 'secret.txt'), join(web, 'leak.txt'));
    return { web };
  },
});

const LIST = { api: 'TAVO.Core.Group', version: 1, method: 'list', params: {} };
const get = (path, headers = {}) => fetch(`${env.url}${path}`, { headers });

test('login hands out a cookie and a token; only the token opens the API', async () => {
  const r = await login(env.url, 'ADMIN');  // names match ignoring case
  assert.equal(r.status, 200);
  assert.equal(r.body.data.account, 'admin');
  assert.match(r.body.data.token, /^[0-9a-f]{64}$/);
  assert.match(r.cookie, /^tavo_session=[0-9a-f]{64}$/);
  // No session, the cookie alone (what another site could make a browser send),
  // or an unknown token: all refused.
  for (const headers of [{}, { Cookie: r.cookie }]) {
    const res = await fetch(`${env.url}/api`, { method: 'POST', headers, body: JSON.stringify(LIST) });
    assert.equal(res.status, 401);
    assert.equal(typeof (await res.json()).error, 'string');
  }
  assert.equal((await get('/api?api=TAVO.Core.Group&method=list', { Cookie: r.cookie })).status, 401);
  assert.equal((await post(env.url, 'f'.repeat(64), LIST)).status, 401);

  const info = await get('/api/info', { Authorization: `Bearer ${r.body.data.token}` });
  assert.equal(info.status, 200);
  const apis = (await info.json()).data.apis.map((a) => `${a.api}/${a.version}:${a.methods.join(',')}`);
  for (const a of ['TAVO.Core.Group/1:list,get,set,delete,create,admin_check',
    'TAVO.Core.Group.Member/1:list,add,remove,admin_check', 'TAVO.Core.EventLog/1:list']) {
    assert.ok(apis.includes(a), apis.join(' '));
  }
  // The cookie alone recovers the token for a reloaded page, then logout ends it.
  const session = await get('/api/auth/session', { Cookie: r.cookie });
  assert.equal((await session.json()).data.token, r.body.data.token);
  const out = await fetch(`${env.url}/api/auth/logout`, {
    method: 'POST', headers: { 'X-Tavo-Token': r.body.data.token },
  });
  assert.equal(out.status, 200);
  assert.match(out.headers.get('set-cookie'), /Max-Age=0/);
  assert.equal((await post(env.url, r.body.data.token, LIST)).status, 401);
  assert.equal((await get('/api/auth/session', { Cookie: r.cookie })).status, 401);
});

test('an account withdrawn from the administrators ends its sessions at its next call', async () => {
  const MEMBER = { api: 'TAVO.Core.Group.Member', version: 1, params: { group: 'administrators', name: ['alice'] } };
  assert.equal((await post(env.url, env.token, { ...MEMBER, method: 'add' })).body.success, true);
  const [a, b, c] = [await login(env.url, 'alice', USER_PASSWORD),
    await login(env.url, 'alice', USER_PASSWORD), await login(env.url, 'alice', USER_PASSWORD)];
  assert.equal(a.status, 200);
  assert.equal((await get('/api?api=TAVO.Core.Group&version=1&method=list', { 'X-Tavo-Token': a.body.data.token })).status, 200);
  assert.equal((await post(env.url, env.token, { ...MEMBER, method: 'remove' })).body.success, true);
  // A malformed request hears 401 first, by GET and by POST, and the session is gone.
  const bad = await get('/api?api=TAVO.Core.Group&version=x&method=list', { 'X-Tavo-Token': a.body.data.token });
  assert.equal(bad.status, 401);
  assert.match((await bad.json()).error, /alice is no longer a valid administrator/);
  assert.equal((await post(env.url, b.body.data.token, 'not json')).status, 401);
  const call = await post(env.url, c.body.data.token, LIST);
  assert.equal(call.status, 401);
  assert.match(call.body.error, /alice is no longer a valid administrator/);
  for (const r of [a, b, c]) {
    assert.equal((await get('/api/auth/session', { Cookie: r.cookie })).status, 401);
    assert.equal((await post(env.url, r.body.data.token, LIST)).status, 401);
  }
  // A well-formed call from a fresh session of a withdrawn account is refused too.
  assert.equal((await login(env.url, 'alice', USER_PASSWORD)).status, 401);
});

test('bad logins: 401 for any failed check, 400 for bad input', async () => {
  for (const [account, password, status] of [
    ['admin', 'wrong', 401], ['alice', USER_PASSWORD, 401],
    // A NUL would end the name early below the throttle, which counts the whole text.
    ['admin\u0000x', 'wrong', 400],
  ]) {
    const r = await login(env.url, account, password);
    assert.equal(r.status, status, account);
    assert.equal(r.cookie, '', account);
  }
  // Wrong types, and plain text that a form of another site can post without asking.
  for (const [type, body] of [['application/json', '{"account": 1}'],
    ['text/plain', JSON.stringify({ account: 'admin', password: ADMIN_PASSWORD })]]) {
    const res = await fetch(`${env.url}/api/auth/login`, { method: 'POST', headers: { 'Content-Type': type }, body });
    assert.equal(res.status, 400, type);
  }
});

test('repeated failed logins are refused with 429 for that account', async () => {
  let last;
  for (let i = 0; i < 6; i++) last = await login(env.url, 'bob', 'guess' + i);
  assert.equal(last.status, 429);
  assert.match(last.body.error, /too many failed logins/);
  // Even the right password waits now; other accounts from this address do not.
  assert.equal((await login(env.url, 'bob', USER_PASSWORD)).status, 429);
  assert.equal((await login(env.url)).status, 200);
});

test('bad envelopes are transport errors; answers are envelopes with HTTP 200', async () => {
  for (const [envelope, status] of [
    ['not json', 400],
    [{ api: 5, method: 'list' }, 400],
    [{ api: 'TAVO.Core.Group', method: 'list', params: [1] }, 400],
    [{ api: 'TAVO.Nope', version: 1, method: 'list' }, 404],
    [{ api: 'TAVO.Core.Group', version: 2, method: 'list' }, 404],
    [{ api: 'TAVO.Core.Group', version: 1, method: 'nope' }, 404],
  ]) {
    const r = await post(env.url, env.token, envelope);
    assert.equal(r.status, status, JSON.stringify(envelope));
    assert.equal(typeof r.body.error, 'string', JSON.stringify(r.body));
  }
  assert.equal((await post(env.url, env.token, LIST)).body.success, true);
  // GET reads each value as JSON when it parses: limit=2 is a number.
  const byGet = await get('/api?api=TAVO.Core.Group&version=1&method=list&limit=2', { 'X-Tavo-Token': env.token });
  assert.equal((await byGet.json()).data.groups.length, 2);
});

test('a body over the limit gets 413, a chunked one 411, and the server carries on', async () => {
  const big = JSON.stringify({ ...LIST, params: { substr: 'x'.repeat(8000) } });
  const r = await fetch(`${env.url}/api`, { method: 'POST', headers: { 'X-Tavo-Token': env.token }, body: big });
  assert.equal(r.status, 413);
  assert.match((await r.json()).error, /too large/);
  // A chunked body is not bounded by a declared length: refused outright.
  const chunk = 'x'.repeat(3000);
  const chunked = await raw(`POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tavo-Token: ${env.token}\r\n` +
    'Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n' +
    `${chunk.length.toString(16)}\r\n${chunk}\r\n`.repeat(3) + '0\r\n\r\n');
  assert.equal(chunked.status, 411);
  assert.equal((await post(env.url, env.token, LIST)).status, 200);
});

test('a request line that never ends is cut off, and the server carries on', async () => {
  const { hostname, port } = new URL(env.url);
  const sock = net.connect(Number(port), hostname);
  await new Promise((resolve) => sock.on('connect', resolve));
  let open = true;
  const closed = new Promise((resolve) => { sock.on('error', resolve); sock.on('close', resolve); });
  closed.then(() => { open = false; });
  sock.write('GET /');
  const chunk = 'a'.repeat(65536);
  let sent = 0;
  for (; open && sent < 64 * 1024 * 1024; sent += chunk.length) {
    if (!sock.write(chunk)) await Promise.race([new Promise((r) => sock.once('drain', r)), closed]);
  }
  sock.destroy();
  assert.ok(sent < 16 * 1024 * 1024, `the server read ${sent} bytes of one request line`);
  assert.equal((await post(env.url, env.token, LIST)).status, 200);
});

test('a request trickled a line at a time is cut off when the read time runs out', async () => {
  const { hostname, port } = new URL(env.url);
  const sock = net.connect(Number(port), hostname);
  await new Promise((resolve) => sock.on('connect', resolve));
  const closed = new Promise((resolve) => { sock.on('error', resolve); sock.on('close', resolve); });
  let open = true;
  closed.then(() => { open = false; });
  sock.resume();  // read (and drop) the refusal, so that the end of the connection is seen
  const start = Date.now();
  sock.write('GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n');
  while (open && Date.now() - start < 8000) {
    sock.write('X-Slow: 1\r\n');
    await Promise.race([new Promise((r) => setTimeout(r, 250)), closed]);
  }
  sock.destroy();
  assert.ok(Date.now() - start < 5000, `the connection stayed open ${Date.now() - start} ms`);
});

// Sends a raw request, as a browser would never do, and returns the status.
function raw(request) {
  const { hostname, port } = new URL(env.url);
  return new Promise((resolve, reject) => {
    const sock = net.connect(Number(port), hostname, () => sock.write(request));
    let data = '';
    sock.on('data', (d) => { data += d; });
    sock.on('end', () => resolve({ status: Number(data.split(' ')[1]), text: data }));
    sock.on('error', reject);
  });
}

test('the admin page is served, and nothing outside its folder', async () => {
  const index = await get('/');
  assert.match(index.headers.get('content-type'), /^text\/html/);
  assert.match(index.headers.get('content-security-policy'), /default-src 'self'.*frame-ancestors 'none'/);
  assert.equal(index.headers.get('x-content-type-options'), 'nosniff');
  assert.match((await get('/css/site.css')).headers.get('content-type'), /^text\/css/);
  const info = await get('/api/info', { 'X-Tavo-Token': env.token });
  assert.equal(info.headers.get('content-type'), 'application/json; charset=utf-8');
  assert.equal(info.headers.get('cache-control'), 'no-store');
  for (const method of ['PUT', 'DELETE', 'PATCH', 'OPTIONS']) {
    const r = await fetch(`${env.url}/api`, { method, headers: { 'X-Tavo-Token': env.token }, body: '{}' });
    assert.equal(r.status, 405, method);
    assert.equal(r.headers.get('allow'), 'GET, HEAD, POST');
  }
  // Plain and percent-encoded dot segments, a symlink out of the folder.
  for (const path of ['/../secret.txt', '/%2e%2e/secret.txt', '/css/%2E%2E/%2e%2e/secret.txt',
    '/..%2fsecret.txt', '/leak.txt', '//etc/passwd', '/../../../../etc/passwd']) {
    const r = await raw(`GET ${path} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n`);
    assert.ok(r.status === 400 || r.status === 404, `${path}: ${r.status}`);
    assert.ok(!r.text.includes('TOP SECRET') && !r.text.includes('root:'), path);
  }
  assert.equal((await get('/api/nothing')).status, 404);
});
