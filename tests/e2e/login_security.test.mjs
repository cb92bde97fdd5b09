// Failed logins all look alike, and guessing from one address neither gets
// far nor keeps the administrator out. Clients use several loopback addresses
// (all of 127.0.0.0/8 reaches a server on 127.0.0.1).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import http from 'node:http';
import { withServer, USER_PASSWORD, ADMIN_PASSWORD } from './helpers.mjs';

const env = withServer();

// POSTs a login from `from`; resolves {status, text, cookies}.
function loginFrom(from, account, password, cookie = '') {
  const body = JSON.stringify({ account, password });
  const url = new URL('/api/auth/login', env.url);
  return new Promise((resolve, reject) => {
    const req = http.request(url, {
      method: 'POST',
      localAddress: from,
      headers: { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(body),
        ...(cookie ? { Cookie: cookie } : {}) },
    }, (res) => {
      let text = '';
      res.on('data', (d) => { text += d; });
      res.on('end', () => resolve({
        status: res.statusCode, text, cookies: (res.headers['set-cookie'] || []).map((c) => c.split(';')[0]),
      }));
    });
    req.on('error', reject);
    req.end(body);
  });
}

test('every failed login gets the same status and body', async () => {
  const answers = [];
  let n = 10;
  for (const [account, password] of [['admin', 'wrong'], ['nosuchuser', 'x'], ['guest', '!'],
    ['root', 'x'], ['alice', USER_PASSWORD], ['ALICE', USER_PASSWORD], ['alice', 'wrong']]) {
    const r = await loginFrom(`127.0.0.${n++}`, account, password);
    answers.push(`${r.status} ${r.text} ${r.cookies.length}`);
  }
  assert.equal(new Set(answers).size, 1, answers.join('\n'));
  assert.match(answers[0], /^401 /);
});

test('100 guesses from one address do not keep the administrator out', async () => {
  const trusted = await loginFrom('127.0.0.3', 'admin', ADMIN_PASSWORD);
  assert.equal(trusted.status, 200);
  const device = trusted.cookies.find((c) => c.startsWith('tavo_device='));
  assert.ok(device, trusted.cookies.join(' '));

  const statuses = [];
  for (let i = 0; i < 100; i++) statuses.push((await loginFrom('127.0.0.4', i % 2 ? 'admin' : 'Admin', `guess${i}`)).status);
  assert.ok(statuses.filter((s) => s !== 429).length <= 5, statuses.join(','));
  assert.equal((await loginFrom('127.0.0.4', 'admin', ADMIN_PASSWORD)).status, 429);

  assert.equal((await loginFrom('127.0.0.5', 'admin', ADMIN_PASSWORD)).status, 200);
  assert.equal((await loginFrom('127.0.0.4', 'admin', ADMIN_PASSWORD, device)).status, 200);
  // The cookie belongs to the account: it does not help another one.
  for (let i = 0; i < 5; i++) await loginFrom('127.0.0.6', 'bob', `guess${i}`);
  assert.equal((await loginFrom('127.0.0.6', 'bob', 'x', device.replace('admin', 'bob'))).status, 429);
});
