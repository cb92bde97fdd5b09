// Host names of other sites get 421, cross-site POSTs 403; HTTPS with the
// certificate of `tavo init` gives Secure cookies and HSTS; plain HTTP beyond
// loopback needs --insecure-http.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import http from 'node:http';
import https from 'node:https';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { withServer, startServer, runTavo, ADMIN_PASSWORD } from './helpers.mjs';

const env = withServer();

// One request with exactly these headers; resolves {status, headers, body}.
function request(url, { method = 'GET', path = '/', headers = {}, body, ca } = {}) {
  const u = new URL(path, url);
  const lib = u.protocol === 'https:' ? https : http;
  return new Promise((resolve, reject) => {
    const req = lib.request(u, { method, headers, ca, setHost: false, agent: false }, (res) => {
      let text = '';
      res.on('data', (d) => { text += d; });
      res.on('end', () => resolve({ status: res.statusCode, headers: res.headers, body: text }));
    });
    req.on('error', reject);
    req.end(body);
  });
}

const loginBody = JSON.stringify({ account: 'admin', password: ADMIN_PASSWORD });
const loginHeaders = (host, extra = {}) => ({
  Host: host, 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(loginBody), ...extra,
});

test('Host must name this server, and a POST from another origin is refused', async () => {
  const own = new URL(env.url).host;  // 127.0.0.1:PORT
  for (const [host, status] of [['evil.example', 421], [`evil.example:${new URL(env.url).port}`, 421],
    [own, 200], ['localhost', 200], ['[::1]', 200]]) {
    assert.equal((await request(env.url, { headers: { Host: host } })).status, status, host);
  }
  for (const [origin, status] of [['http://evil.example', 403], ['null', 403],
    [`http://127.0.0.1:1`, 403], [`https://${own}`, 403], [`http://${own}`, 200]]) {
    const r = await request(env.url, {
      method: 'POST', path: '/api/auth/login', body: loginBody, headers: loginHeaders(own, { Origin: origin }),
    });
    assert.equal(r.status, status, origin);
  }
});

test('HTTPS with the certificate of tavo init: Secure cookies and HSTS', async () => {
  const tls = join(env.root, 'etc/tavo/tls');
  const server = await startServer({
    root: env.root, extra: ['--tls-cert', join(tls, 'cert.pem'), '--tls-key', join(tls, 'key.pem')],
  });
  try {
    assert.match(server.url, /^https:/);
    const ca = readFileSync(join(tls, 'cert.pem'));
    const host = new URL(server.url).host;
    const r = await request(server.url, {
      method: 'POST', path: '/api/auth/login', body: loginBody, headers: loginHeaders(host), ca,
    });
    assert.equal(r.status, 200, r.body);
    const cookies = r.headers['set-cookie'];
    assert.ok(cookies.length >= 2 && cookies.every((c) => /; Secure/.test(c)), cookies.join('\n'));
    assert.match(r.headers['strict-transport-security'], /max-age=\d+/);
    await assert.rejects(request(server.url.replace('https:', 'http:'), { headers: { Host: host } }));
  } finally {
    await server.stop();
  }
  const plain = await request(env.url, { headers: { Host: new URL(env.url).host } });
  assert.equal(plain.headers['strict-transport-security'], undefined);
});

test('plain HTTP on a non-loopback address needs --insecure-http', async () => {
  const r = runTavo(['serve', '--root', env.root, '--listen', '0.0.0.0:0']);
  assert.equal(r.status, 2);
  assert.match(r.stderr, /without TLS/);
  const server = await startServer({ root: env.root, extra: ['--listen', '0.0.0.0:0', '--insecure-http'] });
  await server.stop();
});
