// The members view of one group: its members and the local users that are not
// in it, side by side (stacked in a narrow window). Selected non-members can
// be added and selected members removed.
//
// Read-only cases are shown before anything is tried: "users" holds every
// local user by definition, and directory groups (names with "\" or "@") are
// managed by their directory.

import { call } from './api.js';
import { h, replaceChildren } from './dom.js';
import { describeCode, describeError } from './messages.js';
import { showError, showNotice } from './status.js';
import { whileDisabled } from './busy.js';
import { createUserPanel } from './user-panel.js';
import { exportMembers } from './export.js';
import { createMemberCounts } from './member-counts.js';
import { onChange } from './live.js';
import { membersHref } from './groups.js';

// Accounts that are always kept in "administrators".
const ALWAYS_ADMIN = ['admin', 'tavocms'];

function listNames(names) {
  return names.map((n) => `"${n}"`).join(', ');
}

export function renderMembers(main, group) {
  const lower = group.toLowerCase();
  const isUsers = lower === 'users';
  const isDirectory = group.includes('\\') || group.includes('@');
  const isAdmins = lower === 'administrators';

  const heading = h('h1', { tabindex: '-1' }, 'Members of ', h('span', { class: 'group-name' }, group));
  const back = h('a', { href: '#/groups', class: 'button secondary' }, '‹ All groups');
  const exportButton = h('button', { type: 'button', class: 'secondary' }, 'Export');
  exportButton.addEventListener('click', () => whileDisabled([exportButton], () => exportMembers(group)));
  const parts = [h('div', { class: 'view-head' }, back, heading, isDirectory || isUsers ? null : exportButton)];
  const counts = isDirectory ? null : createMemberCounts(group);
  if (counts) parts.push(counts.element);
  const section = h('section', { class: 'view', 'aria-label': `Members of ${group}` }, parts);
  replaceChildren(main, section);

  if (isDirectory) {
    section.appendChild(h('p', { class: 'note' }, describeCode(3213)));
    heading.focus();
    return;
  }
  if (isUsers) {
    section.appendChild(h('p', { class: 'note' },
      'Every local user is a member of "users", and nobody can be added or removed here. The list below shows all local users.'));
    const all = createUserPanel({ group, ingroup: true, title: 'All local users' });
    section.appendChild(h('div', { class: 'panels single' }, all.element));
    all.load();
    counts.refresh();
    heading.focus();
    return;
  }

  let members = null;
  let others = null;
  const reloadBoth = async () => {
    members.clearSelection();
    others.clearSelection();
    await Promise.all([members.load(), others.load(), counts.refresh()]);
  };

  async function change(method, names, button) {
    // Both action buttons stay disabled until the change and the reload are
    // over, so that a change cannot be sent twice.
    await whileDisabled([button, members.actionButton, others.actionButton], async () => {
      try {
        await call('TAVO.Core.Group.Member', method, { group, name: names });
        showNotice(method === 'add'
          ? `Added to "${group}": ${listNames(names)}.`
          : `Removed from "${group}": ${listNames(names)}.`);
      } catch (err) {
        if (err.kind === 'expired') return;
        if (err.kind === 'api' && err.code === 3210) {
          showError([describeCode(3210), `Not removed: ${listNames(names)}.`]);
        } else {
          showError(describeError(err, method));
        }
        return;
      }
      await reloadBoth();
    });
    // whileDisabled has put back the states from before the change; the
    // selection may have changed since, so let the panels decide again.
    members.refresh();
    others.refresh();
  }

  members = createUserPanel({
    group,
    ingroup: true,
    title: 'Members',
    actionLabel: 'Remove selected',
    onAction: (names, button) => change('remove', names, button),
    protectedNames: isAdmins ? ALWAYS_ADMIN : [],
    protectedHint: 'This built-in account always stays an administrator.',
  });
  others = createUserPanel({
    group,
    ingroup: false,
    title: 'Not members',
    actionLabel: 'Add selected',
    onAction: (names, button) => change('add', names, button),
  });
  if (isAdmins) {
    section.appendChild(h('p', { class: 'note' },
      'Members of "administrators" may manage this appliance. The built-in account "admin" is never removed from it, and the last valid administrator cannot be removed.'));
  }
  section.appendChild(h('div', { class: 'panels' }, members.element, others.element));
  members.load();
  others.load();
  counts.refresh();
  heading.focus();
  followChanges(main, group, async () => {
    await Promise.all([members.load(), others.load(), counts.refresh()]);
  });
}

// Changes made elsewhere: the lists are shown again, keeping the searches,
// pages and selections. When the group itself was renamed or deleted, that
// is explained instead and the lists are left as they were: the view does
// not move to another group by itself.
function followChanges(main, group, reload) {
  const view = main.firstElementChild;
  const conflict = h('div', { class: 'conflict', role: 'alert' });
  // Explains, in place of the lists' actions, and stops following.
  const explain = (...lines) => {
    conflict.replaceChildren(...lines.map((line) => h('p', {}, line)));
    view.insertBefore(conflict, view.querySelector('.panels'));
    view.querySelectorAll('.panels button').forEach((b) => { b.disabled = true; });
    unfollow();
  };
  let gid = null;
  call('TAVO.Core.Group', 'get', { name: group }).then((data) => {
    gid = data.groups?.[0]?.gid ?? null;
  }, () => {});
  const unfollow = onChange(async (what) => {
    if (!main.contains(view)) {
      unfollow();
      return;
    }
    if (!what.groups) return;
    if (gid !== null) {
      let current;
      try {
        const data = await call('TAVO.Core.Group', 'get', { gid });
        current = Array.isArray(data.groups) ? data.groups[0] : undefined;
      } catch (err) {
        return;
      }
      if (!current) {
        explain(`Someone else deleted the group "${group}". Its members can no longer be changed here.`,
          h('a', { href: '#/groups' }, 'Back to all groups'));
        return;
      }
      if (String(current.name) !== group) {
        const name = String(current.name);
        explain(`Someone else renamed the group "${group}" to "${name}". `
          + 'This page still shows it under its old name; changes made here would no longer reach it.',
        h('a', { href: membersHref(name) }, `Show the members of "${name}"`));
        return;
      }
    }
    await reload();
  });
}
