// A seeded pseudo-random barrage of malformed envelopes and hostile
// parameters against every method of both APIs (POST and GET forms). Every
// answer must be a well-formed envelope or a documented HTTP error, the
// server must still answer afterwards, and the account files must stay valid
// for the system's own tools. Set TAVO_FUZZ_SEED to replay a run.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { spawnSync } from 'node:child_process';
import { join } from 'node:path';
import { withServer, call } from './helpers.mjs';

const SEED = Number(process.env.TAVO_FUZZ_SEED || 20261122);
const REQUESTS = 2000;
const MAX_BODY = 16384;
const env = withServer({ extra: ['--max-body', String(MAX_BODY)] });
let methods;

// mulberry32: small, seedable, good enough to pick cases.
function rng(seed) {
  let a = seed >>> 0;
  return () => {
    a = (a + 0x6d2b79f5) >>> 0;
    let t = Math.imul(a ^ (a >>> 15), 1 | a);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function fuzzer(rand) {
  const pick = (xs) => xs[Math.floor(rand() * xs.length)];
  const int = (n) => Math.floor(rand() * n);
  const names = ['staff', 'finance', 'hr', 'research', 'users', 'alice', 'bob', 'admin', 'guest',
    'nosuch', 'fz', 'fz2'];
  const hostileText = () => pick([
    () => pick(names),
    () => `${pick(names)}:x:0:root`, () => `${pick(names)}\n${pick(names)}:x:1:`, () => 'a,b',
    () => 'tab\there', () => 'cr\rlf', () => ' lead', () => 'trail ', () => '-dash', () => '+plus',
    () => '.', () => '..', () => '../etc/passwd', () => '*', () => '%', () => '#c', () => '',
    () => 'x'.repeat(int(600)), () => 'grün', () => '名前', () => '😀', () => '\u202eevil',
    () => String.fromCharCode(1 + int(31)),
    // Rare, so that most requests reach the methods: refused as a whole.
    () => (rand() < 0.2 ? pick(['\ud800', '\u0000nul', 'a\u0000']) : pick(names)),
    () => `fz${int(50)}`,
  ])();
  const value = (depth = 0) => pick([
    hostileText, hostileText, hostileText,
    () => pick([0, -1, 1, 99, 1000, 60001, 65534, 2 ** 31, -(2 ** 31) - 1, 2 ** 53, 1.5, -0.5, 1e300]),
    () => pick([true, false, null]),
    () => (depth > 2 ? [] : Array.from({ length: int(5) }, () => value(depth + 1))),
    () => (depth > 2 ? {} : { [hostileText()]: value(depth + 1) }),
  ])();
  const keys = ['name', 'new_name', 'description', 'group', 'gid', 'uid', 'user', 'limit', 'offset',
    'substr', 'type', 'name_only', 'ingroup', 'domain_name', 'enable_param_debug', 'additional'];
  const params = () => {
    const p = {};
    for (let i = int(5); i >= 0; i--) p[pick(keys)] = value();
    if (rand() < 0.1) p[hostileText()] = value();
    return p;
  };
  const [api, method] = pick(methods);
  const envelope = () => pick([
    () => ({ api, version: value(), method, params: params() }),
    () => ({ api: value(), version: 1, method, params: {} }),
    () => ({ api, method: value(), params: params() }),
    () => ({ api, version: 1, method, params: value() }),
    () => value(),
  ])();
  const wellFormed = () => JSON.stringify({ api, version: 1, method, params: params() });
  const rawBody = () => (rand() < 0.55 ? wellFormed() : pick([
    () => JSON.stringify(envelope()),
    () => JSON.stringify(envelope()).slice(0, int(40)),
    () => '['.repeat(int(MAX_BODY - 10)),
    () => `{"api":"${api}","method":"${method}","params":${'{"a":'.repeat(int(400))}1${'}'.repeat(int(400))}}`,
    () => Buffer.concat([Buffer.from(`{"api":"${api}","method":"${method}","params":{"name":"`),
      Buffer.from([pick([0xff, 0xc3, 0xed, 0x80]), 0xa0, 0x80]), Buffer.from('"}}')]),
    () => JSON.stringify({ api, method, params: { name: 'x'.repeat(MAX_BODY) } }),
    () => pick(['', 'null', '1', '"s"', 'true', '{}', '{"api":1e999}', '{"api":"a" "method":"m"}']),
  ])());
  // A lone surrogate has no UTF-8 form: send the bytes it would have had.
  const enc = (s) => {
    try { return encodeURIComponent(s); } catch { return '%ED%A0%80'; }
  };
  const query = () => {
    const q = [`api=${enc(api)}`, `method=${enc(method)}`];
    if (rand() < 0.3) q.push(`version=${enc(JSON.stringify(value()))}`);
    for (const [k, v] of Object.entries(params())) {
      const text = typeof v === 'string' && rand() < 0.5 ? v : JSON.stringify(v);
      q.push(`${enc(k)}=${enc(text)}`);
    }
    if (rand() < 0.1) q.push(pick(['name=%', 'name=%zz', 'name=%00', 'name=%ff%fe', '&&=', '=x']));
    return q.join('&');
  };
  return rand() < 0.7
    ? { method: 'POST', path: '/api', body: rawBody() }
    : { method: 'GET', path: `/api?${query()}` };
}

function checkAnswer(req, status, text) {
  const what = `${req.method} ${req.path.slice(0, 200)} ${String(req.body ?? '').slice(0, 200)}` +
    ` -> ${status} ${text.slice(0, 300)} (seed ${SEED})`;
  const body = JSON.parse(text);
  if (status === 200) {
    if (body.success === true) {
      assert.deepEqual(Object.keys(body).sort(), ['data', 'success'], what);
    } else {
      assert.deepEqual(body, { success: false, error: { code: body.error?.code } }, what);
      assert.ok(Number.isInteger(body.error.code) && body.error.code >= 3200, what);
    }
  } else {
    assert.ok([400, 404, 413].includes(status), what);
    assert.deepEqual(Object.keys(body), ['error'], what);
    assert.equal(typeof body.error, 'string', what);
  }
}

test('hostile requests get envelopes or HTTP errors and leave valid account files', async () => {
  const info = await fetch(`${env.url}/api/info`, { headers: { 'X-Tavo-Token': env.token } });
  methods = (await info.json()).data.apis.filter((a) => a.api.startsWith('TAVO.Core.Group'))
    .flatMap((a) => a.methods.map((m) => [a.api, m]));
  const rand = rng(SEED);
  const requests = Array.from({ length: REQUESTS }, () => fuzzer(rand));
  const seen = new Map();
  let next = 0;
  const worker = async () => {
    while (next < requests.length) {
      const req = requests[next++];
      const res = await fetch(`${env.url}${req.path}`, {
        method: req.method,
        headers: { 'X-Tavo-Token': env.token, 'Content-Type': 'application/json' },
        body: req.body,
      });
      assert.match(res.headers.get('content-type'), /^application\/json; charset=utf-8$/);
      const text = new TextDecoder('utf-8', { fatal: true }).decode(await res.arrayBuffer());
      checkAnswer(req, res.status, text);
      const key = res.status === 200 ? (JSON.parse(text).success ? 'ok' : 'code') : res.status;
      seen.set(key, (seen.get(key) || 0) + 1);
    }
  };
  await Promise.all(Array.from({ length: 4 }, worker));
  // The barrage reached the methods, not only the envelope checks.
  for (const key of ['ok', 'code', 400]) assert.ok(seen.get(key) > 20, JSON.stringify([...seen]));

  assert.equal((await call(env.url, env.token, 'TAVO.Core.Group', 'list', {})).success, true);
  const grpck = spawnSync('grpck', ['-r', '-R', env.root], { encoding: 'utf8' });
  assert.equal(grpck.status, 0, `grpck: ${grpck.stdout}${grpck.stderr}`);
  const group = readFileSync(join(env.root, 'etc/group'), 'utf8');
  assert.ok(group.endsWith('\n'));
  for (const line of group.slice(0, -1).split('\n')) {
    assert.equal(line.split(':').length, 4, `etc/group line: ${JSON.stringify(line)}`);
    assert.match(line, /^[^:\s]+:[^:\n]*:\d+:[^:\s]*$/, `etc/group line: ${JSON.stringify(line)}`);
  }
});
