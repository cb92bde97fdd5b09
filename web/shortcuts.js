// Keyboard shortcuts of the page, and the help dialog that lists them.
//
//   /        moves to the search box of the view (the first one)
//   ?        shows the list of shortcuts
// They act only when the focus is not in a text field and no dialog is open,
// so typing a "/" into a name or a search is never taken away.

import { h } from './dom.js';
import { openDialog } from './dialog.js';

export const SHORTCUTS = [
  ['/', 'Go to the search box of the view'],
  ['?', 'Show these shortcuts'],
  ['Tab, Shift+Tab', 'Move between controls'],
  ['Space, Enter', 'Press the focused button, tick the focused box'],
  ['Escape', 'Close the open dialog; the focus returns to where it was'],
];

function typing(target) {
  if (!(target instanceof Element)) return false;
  if (target.isContentEditable) return true;
  if (target.tagName === 'TEXTAREA' || target.tagName === 'SELECT') return true;
  return target.tagName === 'INPUT' && !['checkbox', 'radio', 'button', 'submit', 'file'].includes(target.type);
}

export function openShortcutHelp() {
  openDialog({
    title: 'Keyboard shortcuts',
    submitLabel: 'Close',
    cancelLabel: null,
    content: h('dl', { class: 'shortcuts' }, SHORTCUTS.map(([keys, what]) => [
      h('dt', {}, keys.split(', ').map((k, i) => [i ? ', ' : '', h('kbd', {}, k)])), h('dd', {}, what)])),
    onSubmit: async () => true,
  });
}

export function installShortcuts(isActive) {
  document.addEventListener('keydown', (event) => {
    if (event.defaultPrevented || event.ctrlKey || event.metaKey || event.altKey) return;
    if (!isActive() || typing(event.target) || document.querySelector('dialog[open]')) return;
    if (event.key === '/') {
      const search = Array.from(document.querySelectorAll('main input[type=search]'))
        .find((el) => el.getClientRects().length > 0);
      if (!search) return;
      event.preventDefault();
      search.focus();
      search.select();
    } else if (event.key === '?') {
      event.preventDefault();
      openShortcutHelp();
    }
  });
}
