// What an import of a CSV file would do, worked out before anything changes.
//
// Two kinds of file are understood, told apart by their header line:
//   group,user                 one membership a row: add USER to GROUP
//   group,description[,gid]    one group a row: create GROUP (the groups
//                              export, so its gid column is ignored)
//
// planImport(rows, state) -> {kind, entries, counts} where each entry is
// {line, group, value, action, reason}: action "create" or "add" (will be
// done), "keep" (already holds, nothing to do) or "refuse" (with the reason).
// `state` is what the appliance holds now: {groups: Map(lower name -> name),
// users: Map(lower name -> name), members: Map(lower group -> Set(lower user)),
// groupCount, maxGroups (null: not known)}.

import { unguard } from './csv.js';

export const KINDS = {
  members: { header: ['group', 'user'], noun: 'membership' },
  groups: { header: ['group', 'description'], noun: 'group' },
};

const FORBIDDEN = /[\s:,/\\@"'#;\u0000-\u001f\u007f]/u;
const utf8Length = (text) => new TextEncoder().encode(text).length;

// Why `name` cannot be stored as a group name, or '' when it can.
export function nameProblem(name) {
  if (name === '') return 'The group name is empty.';
  if (utf8Length(name) > 32) return 'The group name is longer than 32 bytes.';
  if (FORBIDDEN.test(name)) {
    return 'The group name holds a space, a control character or one of : , / \\ @ " \' # ;';
  }
  if (/^[-+~]/.test(name)) return 'The group name starts with -, + or ~.';
  if (/^[0-9]+$/.test(name)) return 'The group name is only digits.';
  if (name === '.' || name === '..') return 'The group name is reserved.';
  return '';
}

export function detectKind(header) {
  const cells = (header ?? []).map((c) => String(c).trim().toLowerCase());
  if (cells[0] === 'group' && cells[1] === 'user') return 'members';
  if (cells[0] === 'group' && cells[1] === 'description') return 'groups';
  return '';
}

const DIRECTORY = /[\\@]/;

function planMembership(row, state, seen) {
  const group = unguard(String(row[0] ?? '').trim());
  const user = unguard(String(row[1] ?? '').trim());
  const lg = group.toLowerCase();
  const lu = user.toLowerCase();
  const entry = { group, value: user };
  if (group === '' || user === '') return { ...entry, action: 'refuse', reason: 'The row needs a group and a user.' };
  if (DIRECTORY.test(group)) {
    return { ...entry, action: 'refuse', reason: 'A directory group: its members are managed by its directory.' };
  }
  const problem = nameProblem(group);
  if (problem) return { ...entry, action: 'refuse', reason: `Invalid group name. ${problem}` };
  if (lg === 'users') return { ...entry, action: 'refuse', reason: '"users" always holds every local user; its members cannot be changed.' };
  if (!state.groups.has(lg)) {
    return {
      ...entry, action: 'refuse',
      reason: 'There is no local group of this name. System groups cannot be changed here.',
    };
  }
  if (DIRECTORY.test(user)) return { ...entry, action: 'refuse', reason: 'A directory account cannot be added to a local group.' };
  if (!state.users.has(lu)) return { ...entry, action: 'refuse', reason: 'There is no local user of this name.' };
  if (lg === 'administrators' && lu === 'guest') {
    return { ...entry, action: 'refuse', reason: 'The account "guest" can never be an administrator.' };
  }
  const key = `${lg}\n${lu}`;
  const named = { group: state.groups.get(lg), value: state.users.get(lu) };
  if (state.members.get(lg)?.has(lu)) return { ...entry, ...named, action: 'keep', reason: 'Already a member.' };
  if (seen.has(key)) return { ...entry, ...named, action: 'keep', reason: `Repeats line ${seen.get(key)}.` };
  seen.set(key, row.line);
  return { ...entry, ...named, action: 'add', reason: '' };
}

function planGroup(row, state, seen, created) {
  const group = unguard(String(row[0] ?? '').trim());
  const description = unguard(String(row[1] ?? '').trim());
  const lg = group.toLowerCase();
  const entry = { group, value: description };
  const problem = nameProblem(group);
  if (problem) return { ...entry, action: 'refuse', reason: `Invalid group name. ${problem}` };
  if (lg === 'users' || lg === 'administrators') {
    if (state.groups.has(lg)) return { ...entry, action: 'keep', reason: 'A built-in group; it already exists.' };
    return { ...entry, action: 'refuse', reason: 'The name is reserved.' };
  }
  if (state.groups.has(lg)) return { ...entry, group: state.groups.get(lg), action: 'keep', reason: 'The group already exists.' };
  if (seen.has(lg)) return { ...entry, action: 'keep', reason: `Repeats line ${seen.get(lg)}.` };
  if (/[\u0000-\u001f\u007f]/.test(description)) {
    return { ...entry, action: 'refuse', reason: 'The description holds a control character.' };
  }
  if (state.maxGroups !== null && state.groupCount + created.n >= state.maxGroups) {
    return {
      ...entry, action: 'refuse',
      reason: `The appliance allows at most ${state.maxGroups} groups (setting "maxgroups").`,
    };
  }
  seen.set(lg, row.line);
  created.n += 1;
  return { ...entry, action: 'create', reason: '' };
}

// `rows` are the parsed CSV rows, header first.
export function planImport(rows, state) {
  const kind = detectKind(rows[0]);
  if (!kind) return { kind: '', entries: [], counts: {} };
  const seen = new Map();
  const created = { n: 0 };
  const entries = rows.slice(1).map((cells, i) => {
    const row = Object.assign([...cells], { line: i + 2 });
    const planned = kind === 'members' ? planMembership(row, state, seen) : planGroup(row, state, seen, created);
    return { line: row.line, ...planned };
  });
  const counts = { create: 0, add: 0, keep: 0, refuse: 0 };
  for (const e of entries) counts[e.action] += 1;
  return { kind, entries, counts };
}
