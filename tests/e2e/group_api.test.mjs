// Every method of the group module over HTTP: one success and one failure
// each, the event log of the changes, and concurrent changes to one group.
// The edge cases of each method have their own module tests.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { withServer, login, call } from './helpers.mjs';

const G = 'TAVO.Core.Group';
const M = 'TAVO.Core.Group.Member';
const LOG = 'TAVO.Core.EventLog';
const env = withServer();

const ok = (data = {}) => ({ success: true, data });
const run = (api, method, params) => call(env.url, env.token, api, method, params);
const members = async (group) => (await run(M, 'list', { group })).data.users.map((u) => u.name).sort();

test('a failing method answers only its code, with HTTP 200', async () => {
  for (const [api, method, params, code] of [
    [G, 'list', { offset: 'x' }, 3201],
    [G, 'get', { name: { x: 1 } }, 3201],
    [G, 'admin_check', { gid: -1 }, 3201],
    [G, 'create', { name: 'STAFF' }, 3206],
    [G, 'set', { name: 'finance', new_name: 'Users' }, 3207],
    [G, 'delete', { gid: 'x' }, 3201],
    [M, 'list', {}, 3201],
    [M, 'add', { group: 'users', name: 'bob' }, 3216],
    [M, 'remove', { group: 'users', name: 'bob' }, 3216],
    [M, 'admin_check', { uid: 'x' }, 3201],
    [LOG, 'list', { limit: 'all' }, 3201],
  ]) {
    assert.deepEqual(await run(api, method, params), { success: false, error: { code } }, `${api} ${method}`);
  }
});

test('group list, get and admin_check', async () => {
  const list = await run(G, 'list', { offset: 1, limit: 2 });
  assert.equal(list.data.groups.length, 2);
  const got = await run(G, 'get', { name: ['staff', 'nope'] });
  assert.deepEqual(got.data.groups, [{ name: 'staff', gid: 1000, description: 'Everyone on the permanent staff' }]);
  assert.equal(got.data.errors.length, 1);
  const admin = await run(G, 'admin_check', { name: ['administrators', 'staff'] });
  assert.deepEqual(admin.data.groups.map((g) => g.is_admin), [true, false]);
});

test('group create, set and delete, recorded in the event log', async () => {
  const created = await run(G, 'create', { name: 'Projects', description: 'P' });
  assert.equal(created.data.name, 'Projects');
  assert.deepEqual(await run(G, 'set', { name: 'projects', new_name: 'projects2' }),
    ok({ name: 'projects2', gid: created.data.gid }));
  assert.deepEqual(await run(G, 'delete', { name: 'projects2' }), ok());

  const log = await run(LOG, 'list', { limit: 10 });
  const messages = log.data.entries.map((e) => e.message);
  assert.ok(messages.length >= 3, messages.join(' | '));
  assert.match(messages[messages.length - 1], /Projects/);  // oldest of the three
  assert.ok(log.data.entries.every((e) => e.account === 'admin'));
});

test('member list, add, remove and admin_check', async () => {
  assert.deepEqual(await members('finance'), ['bob', 'judy']);
  assert.deepEqual(await run(M, 'add', { group: 'finance', name: ['alice'] }), ok());
  assert.deepEqual(await run(M, 'remove', { group: 'finance', name: 'bob' }), ok());
  assert.deepEqual(await members('finance'), ['alice', 'judy']);
  const check = await run(M, 'admin_check', { name: ['admin', 'alice'] });
  assert.deepEqual(check.data.users, [{ name: 'admin', is_admin: true }, { name: 'alice', is_admin: false }]);
});

test('ten concurrent clients changing one group lose no change', async () => {
  assert.equal((await run(G, 'create', { name: 'crowd' })).success, true);
  const users = ['alice', 'bob', 'carol', 'dave', 'erin', 'frank', 'grace', 'heidi', 'ivan', 'judy'];
  const tokens = await Promise.all(users.map(async () => (await login(env.url)).body.data.token));
  const added = await Promise.all(users.map((name, i) => call(env.url, tokens[i], M, 'add', { group: 'crowd', name })));
  for (const a of added) assert.deepEqual(a, ok());
  assert.deepEqual(await members('crowd'), users);

  // Then removing half while describing the group.
  const changes = await Promise.all([
    ...users.slice(0, 5).map((name, i) => call(env.url, tokens[i], M, 'remove', { group: 'crowd', name })),
    call(env.url, tokens[9], G, 'set', { name: 'crowd', description: 'A crowd' }),
  ]);
  for (const a of changes) assert.equal(a.success, true, JSON.stringify(a));
  assert.deepEqual(await members('crowd'), users.slice(5));
  assert.equal((await run(G, 'get', { name: 'crowd' })).data.groups[0].description, 'A crowd');
});
