// The recent-changes view: the appliance's event log, newest first, a page at
// a time (server API TAVO.Core.EventLog, method list), filtered by group, by
// user, by the account that made the change and by date. "Export" saves every
// entry that the filters let through (all pages) as CSV.

import { call } from './api.js';
import { whileDisabled } from './busy.js';
import { h, replaceChildren, td, th, uid } from './dom.js';
import { saveFile, toCsv } from './csv.js';
import { createPager } from './pager.js';
import { report } from './status.js';
import { onChange } from './live.js';

// "2026-11-22T01:40:00Z" -> the viewer's local date and time; anything that
// does not parse is shown as it came.
function formatTime(text) {
  const date = new Date(String(text));
  if (Number.isNaN(date.getTime())) return String(text ?? '');
  return date.toLocaleString(undefined, {
    year: 'numeric', month: 'short', day: 'numeric', hour: '2-digit', minute: '2-digit', second: '2-digit',
  });
}

// A local calendar day "2026-11-22" -> the UTC time its midnight is, in the
// form the API reads ("2026-11-21T23:00:00Z"); `days` moves it forward.
function dayStart(day, days = 0) {
  const date = new Date(`${day}T00:00:00`);
  if (Number.isNaN(date.getTime())) return '';
  date.setDate(date.getDate() + days);
  return date.toISOString().replace(/\.\d{3}Z$/, 'Z');
}

// Kept while the page is open, so that returning to the view keeps the filters.
const remembered = { group: '', user: '', account: '', from: '', to: '' };

function filterParams() {
  const params = {};
  for (const key of ['group', 'user', 'account']) if (remembered[key]) params[key] = remembered[key];
  if (remembered.from) params.since = dayStart(remembered.from);
  if (remembered.to) params.until = dayStart(remembered.to, 1);
  return params;
}

const MAX_PAGE = 1000; // the most entries the API gives in one answer

async function exportShown() {
  try {
    const rows = [['time', 'account', 'change']];
    for (let offset = 0; ; offset += MAX_PAGE) {
      const data = await call('TAVO.Core.EventLog', 'list', { ...filterParams(), offset, limit: MAX_PAGE });
      const entries = Array.isArray(data.entries) ? data.entries : [];
      for (const e of entries) rows.push([e.time, e.account ?? '', e.message ?? e.event ?? '']);
      if (entries.length < MAX_PAGE || offset + MAX_PAGE >= Number(data.total)) break;
    }
    saveFile('recent-changes.csv', toCsv(rows));
  } catch (err) {
    report(err, 'events');
  }
}

function filterField(key, label, type = 'text') {
  const id = uid(`filter-${key}`);
  const input = h('input', { id, name: key, type, autocomplete: 'off', spellcheck: 'false' });
  input.value = remembered[key];
  return { key, input, element: h('div', { class: 'field' }, h('label', { for: id }, label), input) };
}

export function renderEvents(main) {
  let seq = 0;
  const heading = h('h1', { tabindex: '-1' }, 'Recent changes');
  const refresh = h('button', { type: 'button', class: 'secondary' }, 'Refresh');
  const exportButton = h('button', { type: 'button', class: 'secondary' }, 'Export');
  const fields = [filterField('group', 'Group'), filterField('user', 'User'),
    filterField('account', 'Changed by (account)'), filterField('from', 'From', 'date'), filterField('to', 'To', 'date')];
  const apply = h('button', { type: 'submit', class: 'primary' }, 'Apply filters');
  const clear = h('button', { type: 'button', class: 'secondary' }, 'Clear filters');
  const filters = h('form', { class: 'filters', role: 'search', 'aria-label': 'Filter the changes' },
    fields.map((f) => f.element), h('div', { class: 'filter-actions' }, apply, clear));
  const body = h('tbody');
  const table = h('table', { class: 'data events' },
    h('caption', { class: 'visually-hidden' }, 'Recent changes, newest first'),
    h('thead', {}, h('tr', {}, th('Time'), th('Account'), th('Change'))),
    body);
  const pager = createPager({ label: 'changes', onChange: () => load() });
  const filtered = () => Object.values(remembered).some((v) => v !== '');

  async function load() {
    const my = ++seq;
    table.setAttribute('aria-busy', 'true');
    try {
      const data = await call('TAVO.Core.EventLog', 'list', { ...filterParams(), offset: pager.offset, limit: pager.limit });
      if (my !== seq) return;
      if (pager.clamp(data.total)) {
        load();
        return;
      }
      const entries = Array.isArray(data.entries) ? data.entries : [];
      replaceChildren(body, entries.map((e) => {
        const time = h('time', { datetime: String(e.time ?? '') }, formatTime(e.time));
        return h('tr', {},
          td('Time', time),
          td('Account', String(e.account || '—')),
          td('Change', String(e.message ?? e.event ?? '')));
      }));
      if (entries.length === 0) {
        const text = filtered() ? 'No recorded change matches the filters.' : 'No changes have been recorded yet.';
        body.appendChild(h('tr', {}, h('td', { colspan: 3, class: 'empty' }, text)));
      }
      pager.update(data.total, pager.offset);
    } catch (err) {
      if (my === seq) report(err, 'events');
    } finally {
      if (my === seq) table.removeAttribute('aria-busy');
    }
  }

  filters.addEventListener('submit', (event) => {
    event.preventDefault();
    for (const f of fields) remembered[f.key] = f.input.value.trim();
    pager.reset();
    load();
  });
  clear.addEventListener('click', () => {
    for (const f of fields) {
      f.input.value = '';
      remembered[f.key] = '';
    }
    pager.reset();
    load();
  });
  refresh.addEventListener('click', () => {
    pager.reset();
    load();
  });
  exportButton.addEventListener('click', () => whileDisabled([exportButton], exportShown));
  replaceChildren(main, h('section', { class: 'view', 'aria-label': 'Recent changes' },
    h('div', { class: 'view-head' }, heading, exportButton, refresh),
    h('p', { class: 'hint' }, 'Changes to groups and their members, newest first. '
      + 'Filter by a whole group or user name, the account that made the change, or dates; '
      + '"Export" saves every change that the filters let through.'),
    filters,
    h('div', { class: 'table-wrap' }, table),
    pager.element));
  load();
  heading.focus();
  // New entries appear on the page shown, with the same filters.
  const unfollow = onChange(async (what) => {
    if (!main.contains(heading)) {
      unfollow();
      return;
    }
    if (what.events) await load();
  });
}
