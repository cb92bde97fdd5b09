// The same change sent at once by many HTTP clients of one server and by
// other processes on the same root: each real change is logged once and
// reloads the services once, however the calls interleave. Also run with the
// server built under ThreadSanitizer.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { chmodSync, mkdirSync, readFileSync, writeFileSync, existsSync } from 'node:fs';
import { join } from 'node:path';
import { withServer, call, tavoCall, TAVO_BIN } from './helpers.mjs';

const CLIENTS = 16;
const PROCESSES = 4;
const ROUNDS = 5;

const env = withServer({
  prepare: (root, dir) => {
    const hooks = join(root, 'etc/tavo/reload.d');
    mkdirSync(hooks, { recursive: true });
    // Counts its runs: one line a run, appended (O_APPEND keeps lines whole).
    writeFileSync(join(hooks, '50-count'), `#!/bin/sh\necho "$1" >> ${join(dir, 'reloads')}\n`);
    chmodSync(join(hooks, '50-count'), 0o755);
  },
});

// A `tavo call` process; resolves its answer.
function callProcess(method) {
  return new Promise((resolve, reject) => {
    const child = spawn(TAVO_BIN, ['call', '--root', env.root, 'TAVO.Core.Group.Member', method,
      '--params', JSON.stringify({ group: 'dupgrp', name: 'alice' })],
    { env: { ...process.env, TAVO_ROOT: '', TAVO_LOCK_TIMEOUT_MS: '20000' } });
    let out = '';
    let err = '';
    child.stdout.on('data', (d) => { out += d; });
    child.stderr.on('data', (d) => { err += d; });
    child.on('error', reject);
    child.on('close', () => {
      try { resolve(JSON.parse(out)); } catch (e) { reject(new Error(`tavo call: ${out} ${err}`)); }
    });
  });
}

async function everyoneAtOnce(method) {
  const answers = await Promise.all([
    ...Array.from({ length: CLIENTS }, () => call(env.url, env.token, 'TAVO.Core.Group.Member',
      method, { group: 'dupgrp', name: 'alice' })),
    ...Array.from({ length: PROCESSES }, () => callProcess(method)),
  ]);
  for (const a of answers) assert.equal(a.success, true, JSON.stringify(a));
}

test('each real change is logged once and reloads once, whoever sends it and however often', async () => {
  assert.equal(tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'dupgrp' }).success, true);
  const reloads = join(env.root, '..', 'reloads');
  const runs = () => (existsSync(reloads) ? readFileSync(reloads, 'utf8').split('\n').filter(Boolean).length : 0);
  const runsBefore = runs();
  const entries = async () => (await call(env.url, env.token, 'TAVO.Core.EventLog',
    'list', { limit: 1000 })).data.entries ?? [];
  const membership = (list) => list.filter((e) => e.args[0] === 'dupgrp' && e.args[1] === 'alice');
  const entriesBefore = membership(await entries()).length;

  // The server warms its view of the files first, as a server that has been
  // answering for a while has.
  await call(env.url, env.token, 'TAVO.Core.Group.Member', 'list', { group: 'dupgrp' });
  for (let round = 0; round < ROUNDS; round++) {
    await everyoneAtOnce('add');
    const members = (await call(env.url, env.token, 'TAVO.Core.Group.Member', 'list',
      { group: 'dupgrp' })).data.users.map((u) => u.name);
    assert.deepEqual(members, ['alice']);
    await everyoneAtOnce('remove');
  }
  const logged = membership(await entries()).length - entriesBefore;
  assert.equal(logged, 2 * ROUNDS, 'one entry per real change');
  assert.equal(runs() - runsBefore, 2 * ROUNDS, 'one reload per real change');
});
