// A page of groups or of a group's members asked for again is given from the
// answer cache, and only while every file it was made from is unchanged:
// whoever changes a file, and however (in place, at the same size, within one
// clock tick), the next page is the module's own answer on the files as they
// are.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync, writeFileSync, appendFileSync } from 'node:fs';
import { join } from 'node:path';
import { withServer, call, tavoCall } from './helpers.mjs';

const env = withServer();

async function reused() {
  const res = await fetch(`${env.url}/metrics`, { headers: { Authorization: `Bearer ${env.token}` } });
  const line = (await res.text()).split('\n').find((l) => l.startsWith('tavo_answers_reused_total '));
  return Number(line.split(' ')[1]);
}

const page = async () => (await call(env.url, env.token, 'TAVO.Core.Group', 'list',
  { limit: 50, name_only: false })).data;
const entry = (data, name) => data.groups.find((g) => g.name === name);

test('a page is reused while its files stand, and made afresh after any change to them', async () => {
  const etc = join(env.root, 'etc');
  const first = await page();
  const before = await reused();
  assert.deepEqual(await page(), first);
  assert.equal(await reused(), before + 1, 'the same page again is the kept answer');
  // Server-Timing tells the module's own time, and a kept answer has none.
  const timing = async () => (await fetch(`${env.url}/api?api=TAVO.Core.Group&version=1&method=list&limit=7`,
    { headers: { Authorization: `Bearer ${env.token}` } })).headers.get('server-timing');
  assert.match(await timing(), /^module;dur=\d+\.\d{3}$/);
  assert.equal(await timing(), null);

  // Each change, right after a page was kept, must show in the next page.
  const changes = [
    ['a description added by another program', () =>
      appendFileSync(join(etc, 'tavo/group_desc'), 'hr:People and culture\n'),
    (d) => assert.equal(entry(d, 'hr').description, 'People and culture')],
    ['the group file rewritten in place at the same size, at once', () => {
      const text = readFileSync(join(etc, 'group'), 'utf8');
      writeFileSync(join(etc, 'group'), text.replace('\nresearch:x:1007:', '\nresearcH:x:1007:'));
    }, (d) => assert.ok(entry(d, 'researcH') && !entry(d, 'research'))],
    ['a GID range that leaves a group out', () => {
      const defs = readFileSync(join(etc, 'login.defs'), 'utf8');
      writeFileSync(join(etc, 'login.defs'), defs.replace('GID_MIN 1000', 'GID_MIN 1001'));
    }, (d) => assert.equal(entry(d, 'staff'), undefined)],
    ['a group made through the API', async () => {
      assert.equal((await call(env.url, env.token, 'TAVO.Core.Group', 'create', { name: 'aardvarks' })).success, true);
    }, (d) => assert.ok(entry(d, 'aardvarks'))],
    ['a group made by another process of this platform', () => {
      assert.equal(tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'abacus' }).success, true);
    }, (d) => assert.ok(entry(d, 'abacus'))],
  ];
  for (const [what, change, check] of changes) {
    await page();
    await page();  // kept now
    await change();
    const data = await page();
    check(data);
    assert.equal(data.total, data.groups.length, what);
  }
  // A page that is not the kept one's parameters is its own answer.
  const short = (await call(env.url, env.token, 'TAVO.Core.Group', 'list', { limit: 2 })).data;
  assert.equal(short.groups.length, 2);
});

test('pages asked for while groups are made never miss a change already answered', async () => {
  let done = false;
  const readers = [1, 2, 3, 4].map(async () => {
    let pages = 0;
    while (!done) {
      await page();
      pages++;
    }
    return pages;
  });
  try {
    for (let i = 0; i < 20; i++) {
      const name = `busy${String(i).padStart(2, '0')}`;
      assert.equal((await call(env.url, env.token, 'TAVO.Core.Group', 'create', { name })).success, true);
      assert.ok(entry(await page(), name), `${name} is in the page asked for after its creation`);
    }
  } finally {
    done = true;
  }
  for (const pages of await Promise.all(readers)) assert.ok(pages > 0);
});

test('pages of members and non-members are reused until a user or the group changes', async () => {
  const etc = join(env.root, 'etc');
  const members = async (ingroup) => (await call(env.url, env.token, 'TAVO.Core.Group.Member', 'list',
    { group: 'finance', ingroup, limit: 50 })).data;
  const user = (data, name) => data.users.find((u) => u.name === name);
  for (const ingroup of [true, false]) {
    await members(ingroup);
    const before = await reused();
    await members(ingroup);
    assert.equal(await reused(), before + 1, `ingroup=${ingroup} kept`);
  }
  // Another program changes a member's and a non-member's full names in
  // place, at the same size.
  const passwd = readFileSync(join(etc, 'passwd'), 'utf8');
  writeFileSync(join(etc, 'passwd'),
    passwd.replace(':Bob Baker:', ':Bob Boker:').replace(':Alice Archer:', ':Alice Arches:'));
  assert.equal(user(await members(true), 'bob').description, 'Bob Boker');
  assert.equal(user(await members(false), 'alice').description, 'Alice Arches');
  // A member added by another process of this platform moves from one page to the other.
  assert.ok(user(await members(false), 'mallory'));
  assert.equal(tavoCall(env.root, 'TAVO.Core.Group.Member', 'add',
    { group: 'finance', name: ['mallory'] }).success, true);
  assert.ok(user(await members(true), 'mallory'));
  assert.equal(user(await members(false), 'mallory'), undefined);
});
