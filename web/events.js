// The recent-changes view: the appliance's event log, newest first, a page at
// a time (server API TAVO.Core.EventLog, method list).

import { call } from './api.js';
import { h, replaceChildren, td, th } from './dom.js';
import { createPager } from './pager.js';
import { report } from './status.js';

// "2026-11-22T01:40:00Z" -> the viewer's local date and time; anything that
// does not parse is shown as it came.
function formatTime(text) {
  const date = new Date(String(text));
  if (Number.isNaN(date.getTime())) return String(text ?? '');
  return date.toLocaleString(undefined, {
    year: 'numeric', month: 'short', day: 'numeric', hour: '2-digit', minute: '2-digit', second: '2-digit',
  });
}

export function renderEvents(main) {
  let seq = 0;
  const heading = h('h1', { tabindex: '-1' }, 'Recent changes');
  const refresh = h('button', { type: 'button', class: 'secondary' }, 'Refresh');
  const body = h('tbody');
  const table = h('table', { class: 'data events' },
    h('caption', { class: 'visually-hidden' }, 'Recent changes, newest first'),
    h('thead', {}, h('tr', {}, th('Time'), th('Account'), th('Change'))),
    body);
  const pager = createPager({ label: 'changes', onChange: () => load() });

  async function load() {
    const my = ++seq;
    table.setAttribute('aria-busy', 'true');
    try {
      const data = await call('TAVO.Core.EventLog', 'list', { offset: pager.offset, limit: pager.limit });
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
        body.appendChild(h('tr', {}, h('td', { colspan: 3, class: 'empty' }, 'No changes have been recorded yet.')));
      }
      pager.update(data.total, pager.offset);
    } catch (err) {
      if (my === seq) report(err, 'events');
    } finally {
      if (my === seq) table.removeAttribute('aria-busy');
    }
  }

  refresh.addEventListener('click', () => {
    pager.reset();
    load();
  });
  replaceChildren(main, h('section', { class: 'view', 'aria-label': 'Recent changes' },
    h('div', { class: 'view-head' }, heading, refresh),
    h('p', { class: 'hint' }, 'Changes to groups and their members, newest first.'),
    h('div', { class: 'table-wrap' }, table),
    pager.element));
  load();
  heading.focus();
}
