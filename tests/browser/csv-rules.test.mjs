// The page's CSV reader and writer and the import preview's rules, run in
// node directly (the modules use no browser API): quoting, line ends, the
// formula guard and its removal, and how rows are judged.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { parseCsv, toCsv, unguard } from '../../web/csv.js';
import { nameProblem, planImport } from '../../web/import-plan.js';

test('quoted fields, doubled quotes, CRLF, LF, a byte-order mark and empty lines are read', () => {
  const text = '\uFEFFgroup,description\r\n"a,b","say ""hi""\nsecond line"\n\nplain,\r\nlast,"x"';
  assert.deepEqual(parseCsv(text), [
    ['group', 'description'], ['a,b', 'say "hi"\nsecond line'], ['plain', ''], ['last', 'x']]);
});

test('writing quotes what needs it, guards formulas, and reads back to the same cells', () => {
  const rows = [['=SUM(A1)', '+1', '-x', '@cmd', 'tab\tin', '\tlead'], ['a "q"', 'comma,here', 'line\nbreak', '', 'ok', "'=kept"]];
  const text = toCsv(rows);
  assert.equal(text.split('\r\n')[0], "'=SUM(A1),'+1,'-x,'@cmd,tab\tin,'\tlead");
  assert.ok(text.endsWith('\r\n'));
  const back = parseCsv(text).map((r) => r.map(unguard));
  assert.deepEqual(back, rows);
  assert.equal(unguard("'plain"), "'plain", 'only a guard before a formula sign is taken off');
});

test('group names follow the rules of the appliance', () => {
  for (const ok of ['staff', 'web-team', 'a.b', 'Ünïcode', 'x'.repeat(32)]) assert.equal(nameProblem(ok), '', ok);
  for (const bad of ['', 'x'.repeat(33), 'ä'.repeat(17), 'a b', 'a:b', 'a,b', 'a/b', 'a#b', "a'b", '-a', '+a', '~a', '123', '..', 'a\tb']) {
    assert.notEqual(nameProblem(bad), '', bad);
  }
});

test('a membership plan judges rows against the state, ignoring case, and counts them', () => {
  const state = {
    groups: new Map([['staff', 'staff'], ['users', 'users'], ['administrators', 'administrators']]),
    users: new Map([['alice', 'alice'], ['bob', 'bob'], ['guest', 'guest']]),
    members: new Map([['staff', new Set(['alice'])]]),
    groupCount: 3,
    maxGroups: null,
  };
  const plan = planImport(parseCsv('Group,User\nSTAFF,Bob\nstaff,ALICE\nstaff,bob\nnope,bob\nstaff,carol\n'), state);
  assert.equal(plan.kind, 'members');
  assert.deepEqual(plan.entries.map((e) => [e.line, e.group, e.value, e.action]), [
    [2, 'staff', 'bob', 'add'], [3, 'staff', 'alice', 'keep'], [4, 'staff', 'bob', 'keep'],
    [5, 'nope', 'bob', 'refuse'], [6, 'staff', 'carol', 'refuse']]);
  assert.deepEqual(plan.counts, { create: 0, add: 1, keep: 2, refuse: 2 });
  assert.equal(planImport(parseCsv('name,member\nstaff,bob\n'), state).kind, '');

  const limited = planImport(parseCsv('group,description\nnew1,\nnew2,\nstaff,\n'), { ...state, maxGroups: 4 });
  assert.deepEqual(limited.entries.map((e) => e.action), ['create', 'refuse', 'keep']);
});
