// The page's message area: one alert region for failures (role="alert") and
// one polite status region for results, both in index.html. Messages stay
// until the next one or until dismissed, so nothing fails silently.

import { describeError } from './messages.js';
import { h, replaceChildren } from './dom.js';

function regions() {
  return {
    alert: document.getElementById('alert'),
    notice: document.getElementById('notice'),
  };
}

function fill(region, lines) {
  const list = Array.isArray(lines) ? lines : [lines];
  const dismiss = h('button', { type: 'button', class: 'link dismiss', 'aria-label': 'Dismiss message' }, '×');
  dismiss.addEventListener('click', () => replaceChildren(region));
  replaceChildren(region, h('div', { class: 'message-text' }, list.map((line) => h('p', {}, line))), dismiss);
  // The regions sit under the top bar; bring the message into sight when the
  // page has been scrolled down to the control that caused it.
  region.scrollIntoView({ block: 'nearest' });
}

// Shows a failure; `lines` is a sentence or an array of sentences.
export function showError(lines) {
  const { alert, notice } = regions();
  replaceChildren(notice);
  fill(alert, lines);
}

// Shows the result of a change.
export function showNotice(lines) {
  const { alert, notice } = regions();
  replaceChildren(alert);
  fill(notice, lines);
}

export function clearMessages() {
  const { alert, notice } = regions();
  replaceChildren(alert);
  replaceChildren(notice);
}

// Shows the sentence for a failed request. An expired session is left to the
// login form, which says so itself.
export function report(err, context) {
  if (err && err.kind === 'expired') return;
  showError(describeError(err, context));
}
