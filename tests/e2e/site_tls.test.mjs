// Host names of other sites get 421, cross-site POSTs 403; HTTPS with the
// certificate of `tavo init` gives Secure cookies and HSTS; SIGHUP presents a
// renewed certificate; plain HTTP beyond loopback needs --insecure-http.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import http from 'node:http';
import https from 'node:https';
import tls from 'node:tls';
import crypto from 'node:crypto';
import {
  readFileSync, copyFileSync, writeFileSync, chmodSync, mkdirSync, symlinkSync, unlinkSync,
} from 'node:fs';
import { join } from 'node:path';
import { withServer, startServer, runTavo, scratch, initRoot, ADMIN_PASSWORD } from './helpers.mjs';

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

// The SHA-256 fingerprint of the certificate a new TLS connection is shown.
function presented(url) {
  const u = new URL(url);
  return new Promise((resolve, reject) => {
    const socket = tls.connect({ host: u.hostname, port: Number(u.port), rejectUnauthorized: false }, () => {
      const fp = socket.getPeerCertificate().fingerprint256;
      socket.end();
      resolve(fp);
    });
    socket.on('error', reject);
  });
}

const fingerprint = (file) => new crypto.X509Certificate(readFileSync(file)).fingerprint256;
const notAfter = (file) => Date.parse(new crypto.X509Certificate(readFileSync(file)).validTo) / 1000;

for (const split of [false, true]) {
  const name = `SIGHUP presents a renewed certificate and keeps sessions${split ? ', with privsep' : ''}`;
  test(name, { skip: split && process.getuid() !== 0 && 'needs root' }, async () => {
    const tmp = scratch();
    try {
      chmodSync(tmp.dir, 0o755);  // the front of a split server (nobody) reads the root
      const root = initRoot(tmp.dir);
      mkdirSync(join(tmp.dir, 'other'));
      // A second later, so that the two certificates expire at different times.
      await new Promise((r) => setTimeout(r, 1100));
      const other = initRoot(join(tmp.dir, 'other'));
      // The files the server is given: readable by root alone.
      const dir = join(tmp.dir, 'tls');
      mkdirSync(dir, { mode: 0o700 });
      const [cert, key] = [join(dir, 'cert.pem'), join(dir, 'key.pem')];
      const [certA, keyA] = ['cert.pem', 'key.pem'].map((f) => join(root, 'etc/tavo/tls', f));
      const [certB, keyB] = ['cert.pem', 'key.pem'].map((f) => join(other, 'etc/tavo/tls', f));
      assert.notEqual(notAfter(certA), notAfter(certB));
      copyFileSync(certA, cert);
      copyFileSync(keyA, key);
      const server = await startServer({
        root, extra: ['--tls-cert', cert, '--tls-key', key, ...(split ? ['--privsep-user', 'nobody'] : [])],
      });
      const hup = async (re) => {
        // With privsep the signal goes to the account process, which passes it on.
        server.child.kill('SIGHUP');
        assert.match(await server.stderrMatch(re), re);
      };
      try {
        assert.equal(await presented(server.url), fingerprint(certA));
        // A session and a kept-alive connection from before the reload.
        const agent = new https.Agent({ keepAlive: true, maxSockets: 1, rejectUnauthorized: false });
        const host = new URL(server.url).host;
        const send = (opts) => new Promise((resolve, reject) => {
          const req = https.request(new URL(opts.path, server.url),
            { method: opts.method || 'GET', headers: { Host: host, ...opts.headers }, agent }, (res) => {
              let text = '';
              res.on('data', (d) => { text += d; });
              res.on('end', () => resolve({ status: res.statusCode, body: text, socket: res.socket }));
            });
          req.on('error', reject);
          req.end(opts.body);
        });
        const logged = await send({ method: 'POST', path: '/api/auth/login', body: loginBody, headers: loginHeaders(host) });
        assert.equal(logged.status, 200, logged.body);
        const token = JSON.parse(logged.body).data.token;
        const info = () => send({ path: '/api/info', headers: { Authorization: `Bearer ${token}` } });
        // /metrics tells when the certificate presented now expires.
        const expiry = async () => Number((await send({ path: '/metrics', headers: { Authorization: `Bearer ${token}` } }))
          .body.match(/^tavo_tls_certificate_expiry_timestamp_seconds (\d+)$/m)[1]);
        assert.equal(await expiry(), notAfter(certA));

        // A certificate whose key is another's, then one that is no PEM at
        // all: refused, and the one in use stays.
        copyFileSync(certB, cert);
        await hup(/TLS certificate kept as it was: the key is not the key of the certificate/);
        writeFileSync(cert, 'not a certificate\n');
        await hup(/TLS certificate kept as it was: the certificate is not a PEM certificate/);
        assert.equal(await presented(server.url), fingerprint(certA));
        // The key path made a link to a copy of the shadow file: the files are
        // not read through it, so its bytes never reach the front.
        copyFileSync(certA, cert);
        copyFileSync(join(root, 'etc/shadow'), join(dir, 'shadow-copy'));
        unlinkSync(key);
        symlinkSync(join(dir, 'shadow-copy'), key);
        await hup(/TLS certificate kept as it was: \S*key\.pem is a symbolic link/);
        unlinkSync(key);
        copyFileSync(keyA, key);

        // The renewed pair: new handshakes get it, the open connection and
        // the session carry on.
        copyFileSync(certB, cert);
        copyFileSync(keyB, key);
        await hup(/TLS certificate reloaded from/);
        assert.equal(await presented(server.url), fingerprint(certB));
        assert.equal(await expiry(), notAfter(certB));
        const again = await info();
        assert.equal(again.status, 200);
        assert.equal(again.socket, logged.socket, 'the kept-alive connection was not closed');
        agent.destroy();
        assert.equal(server.child.exitCode, null);
      } finally {
        await server.stop();
      }
      assert.equal(server.child.exitCode, 0);
    } finally {
      tmp.cleanup();
    }
  });
}

test('plain HTTP on a non-loopback address needs --insecure-http', async () => {
  const r = runTavo(['serve', '--root', env.root, '--listen', '0.0.0.0:0']);
  assert.equal(r.status, 2);
  assert.match(r.stderr, /without TLS/);
  const server = await startServer({ root: env.root, extra: ['--listen', '0.0.0.0:0', '--insecure-http'] });
  await server.stop();
});

// The protocol versions a client gets: {version} or {error}.
function handshake(url, version) {
  const u = new URL(url);
  return new Promise((resolve) => {
    const socket = tls.connect({
      host: u.hostname, port: Number(u.port), rejectUnauthorized: false,
      minVersion: version, maxVersion: version, ciphers: 'DEFAULT:@SECLEVEL=0',
    }, () => {
      const got = socket.getProtocol();
      socket.end();
      resolve({ version: got });
    });
    socket.on('error', (e) => resolve({ error: e.code || e.message }));
  });
}

test('HTTPS speaks TLS 1.2 and 1.3 only', async () => {
  const dir = join(env.root, 'etc/tavo/tls');
  const server = await startServer({
    root: env.root, extra: ['--tls-cert', join(dir, 'cert.pem'), '--tls-key', join(dir, 'key.pem')],
  });
  try {
    assert.deepEqual(await handshake(server.url, 'TLSv1.3'), { version: 'TLSv1.3' });
    assert.deepEqual(await handshake(server.url, 'TLSv1.2'), { version: 'TLSv1.2' });
    for (const old of ['TLSv1.1', 'TLSv1']) {
      const r = await handshake(server.url, old);
      assert.ok(r.error, `${old}: ${JSON.stringify(r)}`);
    }
  } finally {
    await server.stop();
  }
});
