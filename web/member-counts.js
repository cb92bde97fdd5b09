// The line under a members view's heading: "12 members, 3 administrators".
// It counts the whole group (every page), with the same calls as the lists:
// the members, then which of them are administrators, in parts small enough
// for one request each.

import { call } from './api.js';
import { h } from './dom.js';
import { report } from './status.js';

const CHECK_AT_ONCE = 500;

export async function countMembers(group) {
  const data = await call('TAVO.Core.Group.Member', 'list', { group, ingroup: true, limit: -1 });
  const names = (data.users ?? []).map((u) => String(u.name));
  let admins = 0;
  for (let i = 0; i < names.length; i += CHECK_AT_ONCE) {
    const check = await call('TAVO.Core.Group.Member', 'admin_check', { name: names.slice(i, i + CHECK_AT_ONCE) });
    admins += (check.users ?? []).filter((u) => u.is_admin === true).length;
  }
  return { members: names.length, admins };
}

export function countsText({ members, admins }) {
  const m = `${members} ${members === 1 ? 'member' : 'members'}`;
  const a = `${admins} ${admins === 1 ? 'administrator' : 'administrators'}`;
  return `${m}, ${a}`;
}

// {element, refresh()}: the line, and a way to count again after a change.
export function createMemberCounts(group) {
  const element = h('p', { class: 'member-counts', 'aria-live': 'polite' });
  let seq = 0;
  async function refresh() {
    const my = ++seq;
    try {
      const counts = await countMembers(group);
      if (my === seq) element.textContent = countsText(counts);
    } catch (err) {
      if (my === seq) report(err, 'members');
    }
  }
  return { element, refresh };
}
