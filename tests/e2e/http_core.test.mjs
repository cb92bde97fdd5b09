// The HTTP core under conditions that browsers rarely create: pipelined
// requests, 100-continue, oversized and trickled requests, crowds of stalled
// connections, a module call stuck on a lock, and a stop in the middle of a
// change. Bounds on time here are generous ceilings against hangs and stalls
// of whole seconds, never measurements of speed.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import net from 'node:net';
import zlib from 'node:zlib';
import { spawn } from 'node:child_process';
import { mkdirSync, writeFileSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import {
  withServer, startServer, initRoot, moduleFolder, scratch, login, post, GROUP_MODULE,
} from './helpers.mjs';

const BIG_CSS = 'body { color: black; }\n'.repeat(600);
const env = withServer({
  extra: ['--max-body', '4096', '--read-timeout', '2', '--per-address', '64'],
  prepare: (root, dir) => {
    const web = join(dir, 'web');
    mkdirSync(web, { recursive: true });
    writeFileSync(join(web, 'index.html'), '<!doctype html><title>t</title>');
    writeFileSync(join(web, 'big.css'), BIG_CSS);
    return { web };
  },
});
const LIST = { api: 'TAVO.Core.Group', version: 1, method: 'list', params: {} };

// A raw connection that collects what the server sends and when it closes.
function connect(url, localAddress) {
  const { hostname, port } = new URL(url);
  const sock = net.connect({ port: Number(port), host: hostname, localAddress });
  const conn = { sock, data: Buffer.alloc(0), closed: false };
  sock.on('data', (d) => { conn.data = Buffer.concat([conn.data, d]); });
  conn.closing = new Promise((resolve) => {
    sock.on('close', () => { conn.closed = true; resolve(); });
    sock.on('error', () => {});
  });
  conn.ready = new Promise((resolve, reject) => { sock.on('connect', resolve); sock.on('error', reject); });
  // Resolves once the collected bytes hold `n` whole answers, or the connection ended.
  conn.answers = async (n, heads = []) => {
    const start = Date.now();
    for (;;) {
      const parsed = parseAnswers(conn.data, new Set(heads));
      if (parsed.length >= n || conn.closed || Date.now() - start > 10000) return parsed;
      await new Promise((r) => setTimeout(r, 10));
    }
  };
  return conn;
}

// Splits answers with Content-Length bodies; `headAt` holds the positions of
// HEAD requests, whose answers have no body.
function parseAnswers(buf, headAt) {
  const out = [];
  let pos = 0;
  for (;;) {
    const end = buf.indexOf('\r\n\r\n', pos);
    if (end < 0) return out;
    const head = buf.subarray(pos, end).toString('latin1');
    const status = Number(head.split(' ')[1]);
    const headers = {};
    for (const line of head.split('\r\n').slice(1)) {
      const i = line.indexOf(':');
      headers[line.slice(0, i).toLowerCase()] = line.slice(i + 1).trim();
    }
    const len = status === 100 || status === 304 || headAt.has(out.length) ? 0 : Number(headers['content-length'] || 0);
    if (buf.length < end + 4 + len) return out;
    out.push({ status, headers, body: buf.subarray(end + 4, end + 4 + len) });
    pos = end + 4 + len;
  }
}

test('pipelined requests are answered in order; HEAD gets the headers only', async () => {
  const c = connect(env.url);
  await c.ready;
  c.sock.write(`POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tavo-Token: ${env.token}\r\nContent-Length: ${JSON.stringify(LIST).length}\r\n\r\n${JSON.stringify(LIST)}` +
    'HEAD /big.css HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n' +
    'GET /api/auth/session HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n' +
    'GET /big.css HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n');
  const answers = await c.answers(4, [1]);
  assert.deepEqual(answers.map((a) => a.status), [200, 200, 401, 200]);
  assert.equal(JSON.parse(answers[0].body).success, true);  // the slow call first, still in order
  assert.equal(answers[1].headers['content-length'], String(BIG_CSS.length));
  assert.equal(answers[3].body.toString(), BIG_CSS);
  await c.closing;  // Connection: close is honoured
});

test('Expect: 100-continue gets a go-ahead; an oversized body is refused before it is sent', async () => {
  const body = JSON.stringify(LIST);
  const c = connect(env.url);
  await c.ready;
  c.sock.write(`POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tavo-Token: ${env.token}\r\nContent-Type: application/json\r\n` +
    `Content-Length: ${body.length}\r\nExpect: 100-continue\r\n\r\n`);
  assert.deepEqual((await c.answers(1)).map((a) => a.status), [100]);
  c.sock.write(body);
  const [, answer] = await c.answers(2);
  assert.equal(JSON.parse(answer.body).success, true);
  c.sock.destroy();

  // Only the head of a 10 MB body is sent: the refusal comes anyway, and the
  // connection is closed rather than drained.
  const big = connect(env.url);
  await big.ready;
  big.sock.write(`POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tavo-Token: ${env.token}\r\nContent-Length: 10000000\r\n\r\n`);
  const [refusal] = await big.answers(1);
  assert.equal(refusal.status, 413);
  assert.match(JSON.parse(refusal.body).error, /at most 4096 bytes/);
  await big.closing;
});

test('a repeated Content-Length or Host gets 400 and the connection is closed unread', async () => {
  const body = JSON.stringify(LIST);
  for (const head of [
    `Host: 127.0.0.1\r\nContent-Length: 2\r\nContent-Length: ${body.length + 40}\r\n`,
    `Host: 127.0.0.1\r\ncontent-length: ${body.length}\r\nCONTENT-LENGTH: ${body.length}\r\n`,
    `Host: 127.0.0.1\r\nHost: evil.example\r\nContent-Length: ${body.length}\r\n`,
  ]) {
    const c = connect(env.url);
    await c.ready;
    // What follows the first two bytes would be a second request to a server
    // that framed the body by the first length.
    c.sock.write(`POST /api HTTP/1.1\r\n${head}X-Tavo-Token: ${env.token}\r\n` +
      `Content-Type: application/json\r\n\r\n${body}GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n`);
    const answers = await c.answers(2);
    assert.deepEqual(answers.map((a) => a.status), [400], head);
    assert.match(JSON.parse(answers[0].body).error, /more than one (Content-Length|Host) header/);
    await c.closing;
  }
});

test('a request head trickled byte by byte is cut off at the read time', async () => {
  const c = connect(env.url);
  await c.ready;
  const start = Date.now();
  const head = 'GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Padding: ' + 'p'.repeat(200);
  for (let i = 0; i < head.length && !c.closed && Date.now() - start < 8000; i++) {
    c.sock.write(head[i]);
    await Promise.race([new Promise((r) => setTimeout(r, 50)), c.closing]);
  }
  assert.ok(c.closed, 'the trickling connection is still open');
  assert.ok(Date.now() - start < 6000, `cut off only after ${Date.now() - start} ms`);
});

test('answers on a kept-alive connection are not held back (no Nagle stall)', async () => {
  // Each answer held back for the client's delayed ACK costs about 40 ms;
  // 25 of them would take a second.
  const c = connect(env.url);
  await c.ready;
  const start = Date.now();
  for (let i = 1; i <= 25; i++) {
    c.sock.write(`GET /api/info HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tavo-Token: ${env.token}\r\n\r\n`);
    const answers = await c.answers(i);
    assert.equal(answers.length, i);
    assert.equal(answers[i - 1].status, 200);
  }
  c.sock.destroy();
  assert.ok(Date.now() - start < 900, `25 sequential answers took ${Date.now() - start} ms`);
});

test('static files: ETag revalidation answers 304, large text goes gzip-compressed', async () => {
  const first = await fetch(`${env.url}/big.css`);
  assert.equal(await first.text(), BIG_CSS);  // fetch decompresses
  assert.equal(first.headers.get('content-encoding'), 'gzip');
  const etag = first.headers.get('etag');
  assert.match(etag, /^".+"$/);
  const again = await fetch(`${env.url}/big.css`, { headers: { 'If-None-Match': etag } });
  assert.equal(again.status, 304);
  // A client that does not accept gzip gets the plain bytes.
  const c = connect(env.url);
  await c.ready;
  c.sock.write('GET /big.css HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept-Encoding: gzip\r\n\r\nGET /big.css HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n');
  const [packed, plain] = await c.answers(2);
  assert.equal(zlib.gunzipSync(packed.body).toString(), BIG_CSS);
  assert.equal(plain.headers['content-encoding'], undefined);
  assert.equal(plain.body.toString(), BIG_CSS);
});

test('200 stalled connections do not keep a logged-in client waiting', async () => {
  // Spread over four loopback addresses so the per-address limit lets them in.
  const stalled = [];
  for (let i = 0; i < 200; i++) {
    const c = connect(env.url, `127.0.0.${2 + (i % 4)}`);
    stalled.push(c);
    c.ready.then(() => c.sock.write('GET /api HTTP/1.1\r\nHost: 127.0.0.1\r\n'), () => {});
  }
  await Promise.all(stalled.map((c) => c.ready.catch(() => {})));
  try {
    for (let i = 0; i < 5; i++) {
      const start = Date.now();
      const r = await fetch(`${env.url}/api/info`, { headers: { 'X-Tavo-Token': env.token } });
      assert.equal(r.status, 200);
      assert.ok(Date.now() - start < 1500, `answer ${i} took ${Date.now() - start} ms`);
    }
    assert.equal(stalled.filter((c) => c.closed).length, 0, 'stalled connections were refused early');
  } finally {
    for (const c of stalled) c.sock.destroy();
  }
});

test('one address may hold 64 connections; the 65th is closed unanswered', async () => {
  const held = [];
  for (let i = 0; i < 64; i++) {
    const c = connect(env.url, '127.0.0.9');
    held.push(c);
    await c.ready;
  }
  try {
    const extra = connect(env.url, '127.0.0.9');
    await extra.ready.catch(() => {});
    extra.sock.write('GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n');
    await Promise.race([extra.closing, new Promise((r) => setTimeout(r, 5000))]);
    assert.ok(extra.closed, 'the 65th connection stayed open');
    assert.equal(extra.data.length, 0);
    // The first 64 are served, and other addresses are not affected.
    held[0].sock.write('GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n');
    assert.equal((await held[0].answers(1))[0]?.status, 200);
    assert.equal((await fetch(`${env.url}/index.html`)).status, 200);
  } finally {
    for (const c of held) c.sock.destroy();
  }
});

// Holds the group module's handler lock (exclusive flock) of `root` until
// the returned release() is called.
async function holdGroupLock(root) {
  const dir = join(root, 'run/tavo');
  mkdirSync(dir, { recursive: true, mode: 0o700 });
  const file = join(dir, 'grouplock');
  writeFileSync(file, '', { mode: 0o600, flag: 'a' });
  const child = spawn('flock', ['-x', file, 'sh', '-c', 'echo locked; read x'], { stdio: ['pipe', 'pipe', 'inherit'] });
  await new Promise((resolve) => child.stdout.once('data', resolve));
  const gone = new Promise((resolve) => child.on('exit', resolve));
  return async () => { child.stdin.end(); await gone; };
}

test('a module call stuck on a lock delays neither static files nor other calls', async () => {
  const release = await holdGroupLock(env.root);
  let stuckDone = false;
  const stuck = post(env.url, env.token, { ...LIST, method: 'create', params: { name: 'stuckgroup' } })
    .then((r) => { stuckDone = true; return r; });
  try {
    await new Promise((r) => setTimeout(r, 200));  // the call is waiting for the lock now
    for (const path of ['/index.html', '/big.css']) assert.equal((await fetch(`${env.url}${path}`)).status, 200);
    const info = await fetch(`${env.url}/api/info`, { headers: { 'X-Tavo-Token': env.token } });
    assert.equal(info.status, 200);
    const log = await post(env.url, env.token, { api: 'TAVO.Core.EventLog', version: 1, method: 'list' });
    assert.equal(log.body.success, true);
    assert.equal(stuckDone, false, 'the call did not wait for the lock');
  } finally {
    await release();
  }
  assert.equal((await stuck).body.success, true);
});

test('SIGTERM during a change: the change completes, new connections are refused, exit 0', async () => {
  const tmp = scratch();
  try {
    const root = initRoot(tmp.dir);
    const server = await startServer({ root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]) });
    const { token } = (await login(server.url)).body.data;
    const release = await holdGroupLock(root);
    const change = post(server.url, token, { ...LIST, method: 'create', params: { name: 'lategroup' } });
    await new Promise((r) => setTimeout(r, 200));
    const exited = new Promise((resolve) => server.child.on('exit', (code, signal) => resolve({ code, signal })));
    server.child.kill('SIGTERM');
    await new Promise((r) => setTimeout(r, 300));
    const refused = await fetch(`${server.url}/index.html`).then(() => false, () => true);
    await release();
    const answer = await change;
    assert.equal(answer.body.success, true);
    assert.deepEqual(await exited, { code: 0, signal: null });
    assert.ok(refused, 'a new connection was served after SIGTERM');
    assert.match(readFileSync(join(root, 'etc/group'), 'utf8'), /^lategroup:/m);
  } finally {
    tmp.cleanup();
  }
});
