// One list of users in the members view: the members of a group, or the local
// users that are not in it. Searchable, paged, with an administrators badge
// and checkboxes for the users that an action (add or remove) applies to.
//
// createUserPanel({group, ingroup, title, actionLabel, onAction, protectedNames})
// returns {element, actionButton, load, clearSelection, refresh}. onAction(names, button) runs when the
// action button is pressed with users selected; it resolves when the change is
// over. `protectedNames` (lower case) are shown without a checkbox. Without
// `actionLabel` the panel is read-only.

import { call } from './api.js';
import { adminBadge, h, replaceChildren, searchBox, td, uid } from './dom.js';
import { createPager } from './pager.js';
import { report } from './status.js';
import { createSorter } from './sort.js';

export function createUserPanel({ group, ingroup, title, actionLabel, onAction, protectedNames = [], protectedHint = '' }) {
  const selected = new Set();
  const readOnly = !actionLabel;
  let items = [];
  let admins = new Set();
  let seq = 0;
  const sorter = createSorter(() => showRows());
  let loaded = false; // a page has been shown since the panel was made

  const headingId = uid('panel');
  const heading = h('h2', { id: headingId }, title);
  const selectAll = h('input', { type: 'checkbox', 'aria-label': `Select all shown in "${title}"` });
  const body = h('tbody');
  const table = h('table', { class: 'data users' },
    h('caption', { class: 'visually-hidden' }, title),
    h('thead', {}, h('tr', {},
      readOnly ? null : h('th', { scope: 'col', class: 'pick' }, selectAll),
      sorter.header('name', 'User'), sorter.header('uid', 'UID', 'number', { class: 'num' }),
      sorter.header('description', 'Description'))),
    body);
  const pager = createPager({ label: ingroup ? 'members' : 'users', onChange: () => load() });
  const search = searchBox({
    label: `Search in "${title}"`,
    placeholder: 'Part of a user name',
    onSearch() {
      pager.reset();
      load();
    },
  });
  const actionButton = readOnly ? null : h('button', { type: 'button', class: ingroup ? 'danger' : 'primary' }, actionLabel);
  const count = h('span', { class: 'selection-count', 'aria-live': 'polite' });

  function updateSelection() {
    if (readOnly) return;
    count.textContent = selected.size === 0 ? 'None selected' : `${selected.size} selected`;
    actionButton.disabled = selected.size === 0;
    const boxes = Array.from(body.querySelectorAll('input[type=checkbox]'));
    const on = boxes.filter((b) => b.checked).length;
    selectAll.checked = boxes.length > 0 && on === boxes.length;
    selectAll.indeterminate = on > 0 && on < boxes.length;
    selectAll.disabled = boxes.length === 0;
  }

  function row(user, isAdmin) {
    const name = String(user.name);
    const cells = [];
    if (!readOnly) {
      if (protectedNames.includes(name.toLowerCase())) {
        cells.push(h('td', { class: 'pick', title: protectedHint }, h('span', { class: 'visually-hidden' }, protectedHint)));
      } else {
        const box = h('input', { type: 'checkbox', 'aria-label': `Select ${name}`, checked: selected.has(name) });
        box.addEventListener('change', () => {
          if (box.checked) selected.add(name);
          else selected.delete(name);
          updateSelection();
        });
        cells.push(h('td', { class: 'pick' }, box));
      }
    }
    cells.push(td('User', h('span', {}, h('span', { class: 'user-name' }, name), isAdmin ? adminBadge() : null)));
    cells.push(td('UID', String(user.uid ?? '')));
    cells.push(td('Description', String(user.description ?? '')));
    return h('tr', {}, cells);
  }

  function showRows() {
    replaceChildren(body, sorter.sort(items).map((u) => row(u, admins.has(String(u.name)))));
    if (items.length === 0) {
      const empty = search.input.value.trim() ? 'No user name matches the search.'
        : (ingroup ? 'This group has no members.' : 'Every local user is already a member.');
      body.appendChild(h('tr', {}, h('td', { colspan: readOnly ? 3 : 4, class: 'empty' }, empty)));
    }
    updateSelection();
  }

  async function load() {
    const my = ++seq;
    table.setAttribute('aria-busy', 'true');
    try {
      const data = await call('TAVO.Core.Group.Member', 'list', {
        group, ingroup, substr: search.input.value.trim(), offset: pager.offset, limit: pager.limit,
      });
      if (my !== seq) return;
      if (pager.clamp(data.total)) {
        load();
        return;
      }
      const users = Array.isArray(data.users) ? data.users : [];
      const adminSet = new Set();
      if (users.length > 0) {
        try {
          const check = await call('TAVO.Core.Group.Member', 'admin_check', { name: users.map((u) => String(u.name)) });
          for (const entry of check.users ?? []) if (entry.is_admin === true) adminSet.add(String(entry.name));
        } catch (err) {
          report(err, 'members');
        }
        if (my !== seq) return;
      }
      items = users;
      admins = adminSet;
      showRows();
      pager.update(data.total, pager.offset);
      loaded = true;
      updateSelection();
    } catch (err) {
      if (my !== seq) return;
      report(err, 'members');
      if (!loaded) {
        replaceChildren(body, h('tr', {}, h('td', { colspan: readOnly ? 3 : 4, class: 'empty' }, 'This list could not be loaded.')));
      }
    } finally {
      if (my === seq) table.removeAttribute('aria-busy');
    }
  }

  if (!readOnly) {
    selectAll.addEventListener('change', () => {
      body.querySelectorAll('input[type=checkbox]').forEach((b) => {
        b.checked = selectAll.checked;
        b.dispatchEvent(new Event('change'));
      });
    });
    actionButton.addEventListener('click', () => {
      if (selected.size > 0) onAction(Array.from(selected), actionButton);
    });
  }

  const element = h('section', { class: 'panel', 'aria-labelledby': headingId },
    heading,
    h('div', { class: 'toolbar' }, search.element,
      readOnly ? null : h('div', { class: 'selection' }, count, actionButton)),
    h('div', { class: 'table-wrap' }, table),
    pager.element);
  updateSelection();

  return {
    element,
    actionButton,
    load,
    clearSelection() {
      selected.clear();
    },
    // Enables or disables the action button after the selection changed.
    refresh: updateSelection,
  };
}
