// Every method of the group module over HTTP: one success and one failure
// each, the event log of the changes, and concurrent changes to one group.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import {
  scratch, initRoot, moduleFolder, startServer, login, call, GROUP_MODULE,
} from './helpers.mjs';

const G = 'TAVO.Core.Group';
const M = 'TAVO.Core.Group.Member';
let tmp, server, token;

before(async () => {
  tmp = scratch();
  const root = initRoot(tmp.dir);
  server = await startServer({ root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]) });
  token = (await login(server.url)).body.data.token;
});

after(async () => {
  await server?.stop();
  tmp?.cleanup();
});

const fails = (code) => ({ success: false, error: { code } });
const members = async (group) =>
  (await call(server.url, token, M, 'list', { group })).data.users.map((u) => u.name).sort();

test('group list, get and admin_check', async () => {
  const list = await call(server.url, token, G, 'list', { offset: 1, limit: 2 });
  assert.equal(list.success, true);
  assert.equal(list.data.groups.length, 2);
  assert.equal(list.data.offset, 1);
  assert.ok(list.data.total >= 10, `total ${list.data.total}`);
  assert.deepEqual(await call(server.url, token, G, 'list', { offset: 'x' }), fails(3201));

  const get = await call(server.url, token, G, 'get', { name: ['staff', 'nope'] });
  assert.equal(get.success, true);
  assert.deepEqual(get.data.groups,
    [{ name: 'staff', gid: 1000, description: 'Everyone on the permanent staff' }]);
  assert.equal(get.data.errors.length, 1);
  assert.deepEqual(await call(server.url, token, G, 'get', { name: { x: 1 } }), fails(3201));

  const admin = await call(server.url, token, G, 'admin_check', { name: ['administrators', 'staff'] });
  assert.deepEqual(admin.data.groups.map((g) => g.is_admin), [true, false]);
  assert.deepEqual(await call(server.url, token, G, 'admin_check', { gid: -1 }), fails(3201));
});

test('group create, set and delete, recorded in the event log', async () => {
  const created = await call(server.url, token, G, 'create', { name: 'Projects', description: 'P' });
  assert.equal(created.success, true);
  assert.equal(created.data.name, 'Projects');
  assert.deepEqual(await call(server.url, token, G, 'create', { name: 'STAFF' }), fails(3206));

  const set = await call(server.url, token, G, 'set', { name: 'projects', new_name: 'projects2' });
  assert.deepEqual(set, { success: true, data: { name: 'projects2', gid: created.data.gid } });
  assert.deepEqual(await call(server.url, token, G, 'set', { name: 'projects2', new_name: 'Users' }),
    fails(3207));

  const del = await call(server.url, token, G, 'delete', { name: 'projects2' });
  assert.deepEqual(del, { success: true, data: {} });
  const builtin = await call(server.url, token, G, 'delete', { name: 'users' });
  assert.deepEqual(builtin.data.errors, [{ name: 'users', code: 3212 }]);
  assert.deepEqual(await call(server.url, token, G, 'delete', { gid: 'x' }), fails(3201));

  const log = await call(server.url, token, 'TAVO.Core.EventLog', 'list', { limit: 10 });
  assert.equal(log.success, true);
  const messages = log.data.entries.map((e) => e.message);
  assert.ok(messages.length >= 3, messages.join(' | '));
  assert.match(messages[messages.length - 1], /Projects/);  // oldest of the three
  assert.ok(log.data.entries.every((e) => e.account === 'admin'));
  assert.deepEqual(await call(server.url, token, 'TAVO.Core.EventLog', 'list', { limit: 'all' }),
    fails(3201));
});

test('member list, add, remove and admin_check', async () => {
  assert.deepEqual(await members('finance'), ['bob', 'judy']);
  assert.deepEqual(await call(server.url, token, M, 'list', {}), fails(3201));

  assert.deepEqual(await call(server.url, token, M, 'add', { group: 'finance', name: ['alice'] }),
    { success: true, data: {} });
  assert.deepEqual(await members('finance'), ['alice', 'bob', 'judy']);
  assert.deepEqual(await call(server.url, token, M, 'add', { group: 'users', name: 'bob' }), fails(3216));

  assert.deepEqual(await call(server.url, token, M, 'remove', { group: 'finance', name: 'bob' }),
    { success: true, data: {} });
  assert.deepEqual(await members('finance'), ['alice', 'judy']);
  assert.deepEqual(await call(server.url, token, M, 'remove', { group: 'users', name: 'bob' }),
    fails(3216));
  // The built-in administrator stays in administrators whatever is asked.
  await call(server.url, token, M, 'remove', { group: 'administrators', name: 'admin' });
  assert.deepEqual(await members('administrators'), ['admin']);

  const check = await call(server.url, token, M, 'admin_check', { name: ['admin', 'alice'] });
  assert.deepEqual(check.data.users, [{ name: 'admin', is_admin: true }, { name: 'alice', is_admin: false }]);
  assert.deepEqual(await call(server.url, token, M, 'admin_check', { uid: 'x' }), fails(3201));
});

test('ten concurrent clients adding members to one group lose no change', async () => {
  assert.equal((await call(server.url, token, G, 'create', { name: 'crowd' })).success, true);
  const users = ['alice', 'bob', 'carol', 'dave', 'erin', 'frank', 'grace', 'heidi', 'ivan', 'judy'];
  const tokens = await Promise.all(users.map(async () => (await login(server.url)).body.data.token));
  const answers = await Promise.all(users.map((name, i) =>
    call(server.url, tokens[i], M, 'add', { group: 'crowd', name })));
  for (const a of answers) assert.deepEqual(a, { success: true, data: {} });
  assert.deepEqual(await members('crowd'), users);

  // And concurrently removing half while describing the group.
  const changes = await Promise.all([
    ...users.slice(0, 5).map((name, i) => call(server.url, tokens[i], M, 'remove', { group: 'crowd', name })),
    call(server.url, tokens[9], G, 'set', { name: 'crowd', description: 'A crowd' }),
  ]);
  for (const a of changes) assert.equal(a.success, true, JSON.stringify(a));
  assert.deepEqual(await members('crowd'), users.slice(5));
  const got = await call(server.url, token, G, 'get', { name: 'crowd' });
  assert.equal(got.data.groups[0].description, 'A crowd');
});
