// The same change sent at once by many HTTP clients of one server and by
// other processes on the same root: each real change is logged once and
// reloads the services once, however the calls interleave, with the server
// in one process and split as shipped. Also run with the programs built under
// ThreadSanitizer.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { chmodSync, mkdirSync, readFileSync, writeFileSync, existsSync } from 'node:fs';
import { join } from 'node:path';
import {
  scratch, initRoot, moduleFolder, startServer, login, call, tavoCall, TAVO_BIN, GROUP_MODULE,
} from './helpers.mjs';

const CLIENTS = 16;
const PROCESSES = 4;
const ROUNDS = 5;
const CHANGE = { group: 'dupgrp', name: 'alice' };

// A `tavo call` process; resolves its answer.
function callProcess(root, method) {
  return new Promise((resolve, reject) => {
    const child = spawn(TAVO_BIN, ['call', '--root', root, 'TAVO.Core.Group.Member', method,
      '--params', JSON.stringify(CHANGE)],
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

async function sameChangeFromEveryone(extra) {
  const tmp = scratch();
  chmodSync(tmp.dir, 0o755);
  const root = initRoot(tmp.dir);
  const hooks = join(root, 'etc/tavo/reload.d');
  const reloads = join(tmp.dir, 'reloads');
  mkdirSync(hooks, { recursive: true });
  // Counts its runs: one line a run, appended (O_APPEND keeps lines whole).
  writeFileSync(join(hooks, '50-count'), `#!/bin/sh\necho "$1" >> ${reloads}\n`);
  chmodSync(join(hooks, '50-count'), 0o755);
  const server = await startServer({ root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]), extra });
  try {
    const token = (await login(server.url)).body.data.token;
    const api = (a, method, params) => call(server.url, token, a, method, params);
    assert.equal(tavoCall(root, 'TAVO.Core.Group', 'create', { name: 'dupgrp' }).success, true);
    const runs = () => (existsSync(reloads)
      ? readFileSync(reloads, 'utf8').split('\n').filter(Boolean).length : 0);
    const logged = async () => (await api('TAVO.Core.EventLog', 'list', { limit: 1000 })).data.entries
      .filter((e) => e.args[0] === 'dupgrp' && e.args[1] === 'alice').length;
    const [runsBefore, loggedBefore] = [runs(), await logged()];

    // The server first reads the group, as a server that has been answering
    // for a while has.
    await api('TAVO.Core.Group.Member', 'list', { group: 'dupgrp' });
    const everyoneAtOnce = async (method) => {
      const answers = await Promise.all([
        ...Array.from({ length: CLIENTS }, () => api('TAVO.Core.Group.Member', method, CHANGE)),
        ...Array.from({ length: PROCESSES }, () => callProcess(root, method)),
      ]);
      for (const a of answers) assert.equal(a.success, true, JSON.stringify(a));
    };
    for (let round = 0; round < ROUNDS; round++) {
      await everyoneAtOnce('add');
      const page = await api('TAVO.Core.Group.Member', 'list', { group: 'dupgrp' });
      assert.deepEqual(page.data.users.map((u) => u.name), ['alice']);
      await everyoneAtOnce('remove');
    }
    assert.equal(await logged() - loggedBefore, 2 * ROUNDS, 'one entry per real change');
    assert.equal(runs() - runsBefore, 2 * ROUNDS, 'one reload per real change');
  } finally {
    await server.stop();
    tmp.cleanup();
  }
}

test('each real change is logged once and reloads once, whoever sends it and however often',
  () => sameChangeFromEveryone([]));

test('the same in the split server as shipped', { skip: process.getuid() !== 0 && 'needs root' },
  () => sameChangeFromEveryone(['--privsep-user', 'nobody']));
