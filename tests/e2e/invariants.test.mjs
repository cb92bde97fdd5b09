// Rules that the module checks before it takes its lock hold also when
// separate processes race: the store checks them again under the account
// locks. The handler lock is held from outside while the racing `tavo call`
// processes start, so that each makes its own check first; then it is let go
// and they write one after another.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { readFileSync, writeFileSync, existsSync } from 'node:fs';
import { join } from 'node:path';
import { scratch, initRoot, tavoCall, TAVO_BIN } from './helpers.mjs';

const GROUP = 'TAVO.Core.Group';
const MEMBER = 'TAVO.Core.Group.Member';

function callAsync(root, api, method, params) {
  return new Promise((resolve) => {
    const child = spawn(TAVO_BIN, ['call', '--root', root, api, method, '--params', JSON.stringify(params)],
      { env: { ...process.env, TAVO_ROOT: '', TAVO_LOCK_TIMEOUT_MS: '30000' } });
    let out = '';
    child.stdout.on('data', (d) => { out += d; });
    child.on('exit', () => resolve(JSON.parse(out)));
  });
}

// Runs `calls` (functions starting a call) while `flock` holds the module's
// handler lock, lets it go after a moment, and gives their answers.
async function raceUnderHeldLock(root, calls) {
  const lock = join(root, 'run/tavo/grouplock');
  assert.ok(existsSync(lock), 'a first call made the handler lock file');
  const holder = spawn('flock', ['-x', lock, '-c', 'echo held; sleep 2']);
  await new Promise((resolve) => holder.stdout.once('data', resolve));
  const answers = Promise.all(calls.map((c) => c()));
  await new Promise((resolve) => holder.on('exit', resolve));
  return answers;
}

function members(root, group) {
  const line = readFileSync(join(root, 'etc/group'), 'utf8').split('\n').find((l) => l.startsWith(`${group}:`));
  return line.split(':')[3].split(',').filter(Boolean);
}

test('two racing removals cannot take away the last two valid administrators', async () => {
  const tmp = scratch();
  try {
    const root = initRoot(tmp.dir);
    // alice and bob are the valid administrators; admin (who may never be
    // removed) is not one of them.
    const group = join(root, 'etc/group');
    writeFileSync(group, readFileSync(group, 'utf8').replace(/^administrators:x:101:admin$/m,
      'administrators:x:101:alice,bob'));
    assert.equal(tavoCall(root, MEMBER, 'list', { group: 'administrators' }).success, true);

    const answers = await raceUnderHeldLock(root, ['alice', 'bob'].map((name) =>
      () => callAsync(root, MEMBER, 'remove', { group: 'administrators', name })));
    const won = answers.filter((a) => a.success);
    assert.equal(won.length, 1, JSON.stringify(answers));
    const lost = answers.find((a) => !a.success);
    // Refused under the lock (3205), or by the module's own count when the
    // loser counted after the winner had written (3210).
    assert.ok([3205, 3210].includes(lost.error.code), JSON.stringify(lost));
    assert.equal(members(root, 'administrators').length, 1);

    // Taking away the one left is refused; adding and removing others is not.
    const last = members(root, 'administrators')[0];
    assert.equal(tavoCall(root, MEMBER, 'remove', { group: 'administrators', name: last }).error.code, 3210);
    assert.equal(tavoCall(root, MEMBER, 'add', { group: 'administrators', name: 'carol' }).success, true);
    assert.equal(tavoCall(root, MEMBER, 'remove', { group: 'administrators', name: last }).success, true);
    assert.deepEqual(members(root, 'administrators'), ['carol']);
  } finally {
    tmp.cleanup();
  }
});

test('racing creations stop at maxgroups', async () => {
  const tmp = scratch();
  try {
    const root = initRoot(tmp.dir);
    const total = tavoCall(root, GROUP, 'list', { limit: 0 }).data.total;
    writeFileSync(join(root, 'etc/tavo/tavo.conf'), `maxgroups = ${total + 1}\n`);
    const answers = await raceUnderHeldLock(root, [1, 2, 3, 4, 5].map((i) =>
      () => callAsync(root, GROUP, 'create', { name: `race${i}` })));
    const won = answers.filter((a) => a.success);
    assert.equal(won.length, 1, JSON.stringify(answers));
    for (const a of answers.filter((x) => !x.success)) assert.equal(a.error.code, 3209, JSON.stringify(a));
    assert.equal(tavoCall(root, GROUP, 'list', { limit: 0 }).data.total, total + 1);
    const created = readFileSync(join(root, 'etc/group'), 'utf8').match(/^race\d:/gm);
    assert.equal(created.length, 1);
  } finally {
    tmp.cleanup();
  }
});
