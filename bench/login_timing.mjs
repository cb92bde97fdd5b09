// Measures how long each kind of failed login takes, side by side, so that a
// difference that would tell an attacker which accounts exist shows up.
//   node bench/login_timing.mjs [SAMPLES]   (default 5; TAVO_BIN: the program)
// Starts `tavo serve` on a fresh demo root; every try comes from its own
// loopback address, so the login limits never step in (at most 5 tries per
// account, below the point where delays start). A measurement, not a test.
import http from 'node:http';
import { performance } from 'node:perf_hooks';
import { initRoot, scratch, startServer, ADMIN_PASSWORD, USER_PASSWORD } from '../tests/e2e/helpers.mjs';

const samples = Math.min(Number(process.argv[2] || 5), 5);
let next = 1;

function timedLogin(url, account, password) {
  const body = JSON.stringify({ account, password });
  const from = `127.0.${100 + Math.floor(next / 250)}.${(next++ % 250) + 1}`;
  return new Promise((resolve, reject) => {
    const start = performance.now();
    const req = http.request(new URL('/api/auth/login', url), {
      method: 'POST', localAddress: from,
      headers: { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(body) },
    }, (res) => {
      res.resume();
      res.on('end', () => resolve({ status: res.statusCode, ms: performance.now() - start }));
    });
    req.on('error', reject);
    req.end(body);
  });
}

const median = (xs) => { const s = [...xs].sort((a, b) => a - b); return s[Math.floor(s.length / 2)]; };

const tmp = scratch('tavo-bench-');
const server = await startServer({ root: initRoot(tmp.dir) });
try {
  const kinds = [
    ['success (admin, for reference)', 'admin', ADMIN_PASSWORD],
    ['unknown account', 'nosuchuser', 'x'],
    ['wrong password (admin)', 'admin', 'wrong'],
    ['not an administrator (alice)', 'alice', USER_PASSWORD],
    ['locked account (guest)', 'guest', 'x'],
  ];
  console.log(`median of ${samples} logins each, ms (this machine, other load included)`);
  for (const [label, account, password] of kinds) {
    const runs = [];
    for (let i = 0; i < samples; i++) runs.push(await timedLogin(server.url, account, password));
    const statuses = [...new Set(runs.map((r) => r.status))].join(',');
    console.log(`${label.padEnd(34)} ${median(runs.map((r) => r.ms)).toFixed(1).padStart(8)}   HTTP ${statuses}`);
  }
} finally {
  await server.stop();
  tmp.cleanup();
}
