// The directory status panel shown with the Windows-domain and LDAP group
// lists: bound or joined, the server that last answered, the last good
// synchronisation and the last error, and a "Synchronise now" button (only
// administrators are logged in to this page).
//
// createDirectoryPanel({ onSynced }) returns { element, show(type) }:
// show('domain' | 'ldap') fetches and shows that directory's state, any other
// type hides the panel. onSynced() runs after a synchronisation so the list
// can be read again.

import { call } from './api.js';
import { h, replaceChildren } from './dom.js';
import { report } from './status.js';

const WORDS = {
  ldap: { on: 'bound', what: 'LDAP directory', off: 'This appliance is not bound to an LDAP directory.' },
  domain: { on: 'joined', what: 'Windows domain', off: 'This appliance is not joined to a Windows domain.' },
};

function when(iso) {
  const d = new Date(iso);
  return Number.isNaN(d.getTime()) ? String(iso) : d.toLocaleString();
}

export function createDirectoryPanel({ onSynced }) {
  const facts = h('dl', { class: 'directory-facts' });
  const message = h('p', { class: 'directory-message', role: 'status', 'aria-live': 'polite' });
  const syncButton = h('button', { type: 'button', class: 'secondary' }, 'Synchronise now');
  const element = h('section', { class: 'directory-status', 'aria-label': 'Directory status' },
    facts, h('div', { class: 'directory-actions' }, syncButton, message));
  let type = '';
  let seq = 0;

  function fact(term, value) {
    return [h('dt', {}, term), h('dd', {}, value)];
  }

  function render(state) {
    const words = WORDS[type];
    const on = state[words.on] === true;
    syncButton.hidden = !on;
    if (!on) {
      replaceChildren(facts, fact('State', words.off));
      return;
    }
    const rows = [fact('State', `${words.on[0].toUpperCase()}${words.on.slice(1)} to ${words.what} ${state.name}`)];
    rows.push(fact('Server', state.server || 'none has answered yet'));
    const last = state.last_sync;
    rows.push(fact('Last synchronisation', last
      ? `${when(last.time)}: ${last.groups} groups in ${last.duration_ms} ms`
      : 'never'));
    if (state.last_error) rows.push(fact('Last error', `${when(state.last_error.time)}: ${state.last_error.message}`));
    if (state.rebuilding !== null && state.rebuilding !== undefined) {
      rows.push(fact('Rebuilding', `the group list is being rebuilt by process ${state.rebuilding}`));
    }
    replaceChildren(facts, rows.flat());
  }

  async function refresh() {
    const my = ++seq;
    try {
      const all = await call('TAVO.Core.Directory', 'status');
      if (my === seq && WORDS[type]) render(all[type] ?? {});
    } catch (err) {
      report(err, 'directory status');
    }
  }

  syncButton.addEventListener('click', async () => {
    const my = type;
    syncButton.disabled = true;
    message.textContent = 'Synchronising…';
    try {
      const data = await call('TAVO.Core.Directory', 'sync', { type: my });
      const result = (data.results ?? [])[0];
      message.textContent = result && result.ok
        ? `Synchronised: ${result.groups} groups.`
        : `Synchronisation failed: ${result ? result.error : 'no answer'}`;
      if (type === my && data.status) render(data.status[my] ?? {});
      onSynced();
    } catch (err) {
      message.textContent = '';
      report(err, 'directory synchronisation');
    } finally {
      syncButton.disabled = false;
    }
  });

  function show(newType) {
    element.hidden = !WORDS[newType];
    if (type !== newType) message.textContent = '';
    type = newType;
    if (WORDS[newType]) refresh();
  }

  return { element, show };
}
