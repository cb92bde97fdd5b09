// While another process holds the group module's lock: a page asked for again
// is refused as a fresh call is once the lock's time limit has passed, and
// calls that take no lock keep answering however many calls wait for it.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { join } from 'node:path';
import { withServer, call } from './helpers.mjs';

const TIMEOUT_MS = 1500;
const env = withServer({ env: { TAVO_LOCK_TIMEOUT_MS: String(TIMEOUT_MS) } });

// Holds the handler lock exclusively, as a change in another process does,
// until release() is called; resolves once it is held.
async function holdLock() {
  const lock = join(env.root, 'run/tavo/grouplock');
  const child = spawn('flock', ['-x', lock, '-c', 'echo held; read line'], { stdio: ['pipe', 'pipe', 'inherit'] });
  await new Promise((resolve, reject) => {
    child.stdout.on('data', (d) => { if (String(d).includes('held')) resolve(); });
    child.on('exit', (code) => reject(new Error(`flock exited with ${code}`)));
  });
  const exited = new Promise((resolve) => child.on('exit', resolve));
  return async () => {
    child.stdin.end('\n');
    await exited;
  };
}

const timed = async (f) => {
  const start = Date.now();
  const value = await f();
  return { value, ms: Date.now() - start };
};
const page = () => call(env.url, env.token, 'TAVO.Core.Group', 'list', { limit: 20, name_only: false });

test('a page asked for again waits for the lock and is refused on time-out, as a fresh one', async () => {
  // The server's lock file exists once a call has taken it.
  assert.equal((await page()).success, true);
  assert.equal((await page()).success, true);  // kept now
  const release = await holdLock();
  try {
    const again = await timed(page);
    assert.deepEqual(again.value, { success: false, error: { code: 3202 } });
    assert.ok(again.ms >= TIMEOUT_MS - 100, `refused after ${again.ms} ms`);
  } finally {
    await release();
  }
  assert.equal((await page()).success, true);
});

test('the event log and the directories answer while calls wait for the lock', async () => {
  await page();
  const release = await holdLock();
  let waiting;
  try {
    // More calls waiting than the server has workers for module calls.
    waiting = Promise.all(Array.from({ length: 12 }, (_, i) => call(env.url, env.token,
      'TAVO.Core.Group', 'create', { name: `waiting${i}` })));
    await new Promise((r) => setTimeout(r, 200));
    for (const [api, method] of [['TAVO.Core.EventLog', 'list'], ['TAVO.Core.Directory', 'status']]) {
      const { value, ms } = await timed(() => call(env.url, env.token, api, method, {}));
      assert.equal(value.success, true, api);
      assert.ok(ms < 500, `${api} ${method} answered after ${ms} ms`);
    }
    const session = await timed(() => fetch(`${env.url}/api/info`,
      { headers: { 'X-Tavo-Token': env.token } }));
    assert.equal(session.value.status, 200);
    assert.ok(session.ms < 500, `/api/info answered after ${session.ms} ms`);
  } finally {
    await release();
  }
  for (const a of await waiting) assert.ok(a.success || a.error.code === 3202, JSON.stringify(a));
});
