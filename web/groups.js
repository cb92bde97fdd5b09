// The groups view: local, Windows-domain or LDAP groups, searched by part of
// the name, one page at a time, with an administrators badge; local groups can
// be selected, created, edited and deleted.
//
// renderGroups(main) fills `main`. The kind, search text and page
// are remembered while the page is open, so returning from a members view
// shows the same list.

import { call } from './api.js';
import { whileDisabled } from './busy.js';
import { adminBadge, h, replaceChildren, searchBox, td, th, uid } from './dom.js';
import { describeCode } from './messages.js';
import { createPager } from './pager.js';
import { report } from './status.js';
import { openCreateDialog, openDeleteDialog, openEditDialog } from './group-dialogs.js';
import { createDirectoryPanel } from './directory-status.js';
import { createSorter } from './sort.js';
import { exportGroups } from './export.js';
import { onChange } from './live.js';

const KINDS = [
  { type: 'local', label: 'Local groups' },
  { type: 'domain', label: 'Windows domain groups' },
  { type: 'ldap', label: 'LDAP groups' },
];
// Answers that mean "this kind of group cannot be listed now", shown in place
// of the table rather than as an alert.
const UNAVAILABLE = [3203, 3214, 3215];

const remembered = { type: 'local', substr: '', offset: 0, limit: 25 };

export function membersHref(name) {
  return `#/members/${encodeURIComponent(name)}`;
}

export function renderGroups(main) {
  const selected = new Set();
  let items = [];
  let admins = new Set();
  let seq = 0;
  const sorter = createSorter(() => showRows());

  const heading = h('h1', { tabindex: '-1' }, 'Groups');
  const createButton = h('button', { type: 'button', class: 'primary' }, 'New group');
  const exportButton = h('button', { type: 'button', class: 'secondary' }, 'Export');
  const importLink = h('a', { href: '#/import', class: 'button secondary' }, 'Import');
  const deleteButton = h('button', { type: 'button', class: 'danger' }, 'Delete selected');
  const clearButton = h('button', { type: 'button', class: 'secondary' }, 'Clear selection');
  const selectionText = h('span', { class: 'selection-count', 'aria-live': 'polite' });
  const note = h('p', { class: 'note' });
  const unavailable = h('p', { class: 'unavailable', role: 'status' });
  const caption = h('caption', { class: 'visually-hidden' });
  const selectAll = h('input', { type: 'checkbox', id: uid('select-all'), 'aria-label': 'Select all groups on this page' });
  const body = h('tbody');
  const table = h('table', { class: 'data groups' }, caption,
    h('thead', {}, h('tr', {},
      h('th', { scope: 'col', class: 'pick' }, selectAll),
      sorter.header('name', 'Name'), sorter.header('description', 'Description'),
      sorter.header('gid', 'GID', 'number', { class: 'num' }), th('Actions', { class: 'actions' }))),
    body);
  const tableWrap = h('div', { class: 'table-wrap' }, table);
  const pager = createPager({
    label: 'groups', size: remembered.limit, start: remembered.offset, onChange: () => load(),
  });
  const search = searchBox({
    label: 'Search groups',
    placeholder: 'Part of a group name',
    value: remembered.substr,
    onSearch(text) {
      remembered.substr = text;
      pager.reset();
      load();
    },
  });

  const kindName = 'group-kind';
  const kindButtons = KINDS.map((kind) => {
    const id = uid('kind');
    const input = h('input', { type: 'radio', name: kindName, id, value: kind.type, checked: kind.type === remembered.type });
    input.addEventListener('change', () => {
      if (!input.checked) return;
      remembered.type = kind.type;
      kindChanged();
      selected.clear();
      pager.reset();
      load();
    });
    return h('span', { class: 'kind' }, input, h('label', { for: id }, kind.label));
  });

  const isLocal = () => remembered.type === 'local';
  const directory = createDirectoryPanel({ onSynced: () => load() });

  function updateSelection() {
    const n = selected.size;
    selectionText.textContent = n === 0 ? 'No group selected' : `${n} selected`;
    deleteButton.disabled = n === 0 || !isLocal();
    clearButton.disabled = n === 0;
    const boxes = Array.from(body.querySelectorAll('input[type=checkbox]'));
    const on = boxes.filter((b) => b.checked).length;
    selectAll.checked = boxes.length > 0 && on === boxes.length;
    selectAll.indeterminate = on > 0 && on < boxes.length;
    selectAll.disabled = boxes.length === 0;
  }

  function row(group, isAdmin) {
    const name = String(group.name);
    const cells = [];
    if (isLocal()) {
      const box = h('input', { type: 'checkbox', 'aria-label': `Select group ${name}`, checked: selected.has(name) });
      box.addEventListener('change', () => {
        if (box.checked) selected.add(name);
        else selected.delete(name);
        updateSelection();
      });
      cells.push(h('td', { class: 'pick' }, box));
    } else {
      cells.push(h('td', { class: 'pick' }));
    }
    cells.push(td('Name', h('span', {}, h('span', { class: 'group-name' }, name), isAdmin ? adminBadge() : null)));
    cells.push(td('Description', String(group.description ?? '')));
    cells.push(td('GID', String(group.gid ?? '')));
    const actions = [];
    if (isLocal()) {
      const edit = h('button', { type: 'button', class: 'secondary small', 'aria-label': `Edit group ${name}` }, 'Edit');
      edit.addEventListener('click', () => openEditDialog(group, load));
      const members = h('a', { href: membersHref(name), class: 'button secondary small', 'aria-label': `Members of ${name}` }, 'Members');
      actions.push(edit, members);
    } else {
      actions.push(h('span', { class: 'muted' }, 'Read only'));
    }
    cells.push(td('Actions', h('span', { class: 'row-actions' }, actions)));
    return h('tr', {}, cells);
  }

  function showRows() {
    replaceChildren(body, sorter.sort(items).map((g) => row(g, admins.has(String(g.name)))));
    if (items.length === 0) {
      const text = remembered.substr ? `No group name contains "${remembered.substr}".` : 'There are no groups of this kind.';
      body.appendChild(h('tr', {}, h('td', { colspan: 5, class: 'empty' }, text)));
    }
    updateSelection();
  }

  function showKind() {
    const kind = KINDS.find((k) => k.type === remembered.type);
    caption.textContent = kind.label;
    note.textContent = isLocal()
      ? ''
      : 'Directory groups are managed by the Windows domain or the LDAP directory: they are listed here for reference, but they cannot be changed and their members are not shown.';
    note.hidden = isLocal();
    createButton.hidden = !isLocal();
    exportButton.hidden = !isLocal();
    importLink.hidden = !isLocal();
    deleteButton.hidden = !isLocal();
    clearButton.hidden = !isLocal();
    selectionText.hidden = !isLocal();
    table.classList.toggle('read-only', !isLocal());
  }

  function kindChanged() {
    directory.show(remembered.type);
  }

  async function load() {
    if (!main.contains(heading)) return;
    const my = ++seq;
    remembered.offset = pager.offset;
    remembered.limit = pager.limit;
    showKind();
    table.setAttribute('aria-busy', 'true');
    try {
      const data = await call('TAVO.Core.Group', 'list', {
        type: remembered.type, name_only: false, substr: remembered.substr, offset: pager.offset, limit: pager.limit,
      });
      if (my !== seq) return;
      if (pager.clamp(data.total)) {
        load();
        return;
      }
      const groups = Array.isArray(data.groups) ? data.groups : [];
      const adminSet = new Set();
      if (groups.length > 0) {
        try {
          const check = await call('TAVO.Core.Group', 'admin_check', { name: groups.map((g) => String(g.name)) });
          for (const entry of check.groups ?? []) if (entry.is_admin === true) adminSet.add(String(entry.name));
        } catch (err) {
          report(err, 'groups');
        }
        if (my !== seq) return;
      }
      unavailable.hidden = true;
      tableWrap.hidden = false;
      pager.element.hidden = false;
      items = groups;
      admins = adminSet;
      showRows();
      pager.update(data.total, pager.offset);
    } catch (err) {
      if (my !== seq) return;
      if (err.kind === 'api' && UNAVAILABLE.includes(err.code)) {
        unavailable.textContent = describeCode(err.code);
        unavailable.hidden = false;
        note.hidden = true;
        tableWrap.hidden = true;
        pager.element.hidden = true;
      } else {
        report(err, 'groups');
      }
    } finally {
      if (my === seq) table.removeAttribute('aria-busy');
    }
  }

  selectAll.addEventListener('change', () => {
    for (const g of items) {
      if (selectAll.checked) selected.add(String(g.name));
      else selected.delete(String(g.name));
    }
    body.querySelectorAll('input[type=checkbox]').forEach((b) => {
      b.checked = selectAll.checked;
    });
    updateSelection();
  });
  clearButton.addEventListener('click', () => {
    selected.clear();
    body.querySelectorAll('input[type=checkbox]').forEach((b) => {
      b.checked = false;
    });
    updateSelection();
  });
  createButton.addEventListener('click', () => openCreateDialog(load));
  exportButton.addEventListener('click', () => whileDisabled([exportButton], exportGroups));
  deleteButton.addEventListener('click', () => {
    openDeleteDialog(Array.from(selected), async (deleted = []) => {
      for (const n of deleted) selected.delete(n);
      await load();
    });
  });

  unavailable.hidden = true;
  replaceChildren(main, h('section', { class: 'view', 'aria-label': 'Groups' },
    h('div', { class: 'view-head' }, heading, exportButton, importLink, createButton),
    h('fieldset', { class: 'kinds' }, h('legend', {}, 'Kind of groups'), kindButtons),
    directory.element,
    note,
    h('div', { class: 'toolbar' }, search.element,
      h('div', { class: 'selection' }, selectionText, clearButton, deleteButton)),
    unavailable,
    tableWrap,
    pager.element));
  updateSelection();
  kindChanged();
  load();
  heading.focus();
  // A change made elsewhere: the same kind, search, page and selection are
  // shown again; an open dialog stays open (group-dialogs.js explains).
  const unfollow = onChange(async (what) => {
    if (!main.contains(heading)) {
      unfollow();
      return;
    }
    if (what.groups) await load();
  });
}
