// Modal dialogs built on the native <dialog> element.
//
// openDialog() shows a modal form: the rest of the page is inert while it is
// open, focus moves to the first field (or the first button), Escape or
// "Cancel" close it, and focus returns to the control that was focused before.
// While `onSubmit` runs every control of the dialog is disabled and Escape is
// ignored, so a change cannot be sent twice or abandoned halfway.
//
// onSubmit(form) resolves to true to close the dialog, or to a sentence (or
// array of sentences) to show in the dialog's own alert region and keep it
// open. It must not reject. `cancelLabel` null leaves the Cancel button out
// (a dialog that only informs). The returned explain(lines) says, in a region
// of its own that a submit does not clear, that something changed underneath
// the dialog; `onClose` runs when the dialog closes, however.

import { h, uid } from './dom.js';

export function openDialog({
  title, content = [], submitLabel = 'OK', danger = false, onSubmit, cancelLabel = 'Cancel', onClose,
}) {
  const opener = document.activeElement;
  const titleId = uid('dialog-title');
  const errorBox = h('div', { class: 'dialog-error', role: 'alert' });
  const conflictBox = h('div', { class: 'conflict', role: 'alert' });
  const cancel = cancelLabel ? h('button', { type: 'button', class: 'secondary' }, cancelLabel) : null;
  const submit = h('button', { type: 'submit', class: danger ? 'danger' : 'primary' }, submitLabel);
  const form = h('form', { method: 'dialog', novalidate: true },
    h('h2', { id: titleId }, title),
    h('div', { class: 'dialog-body' }, content),
    errorBox,
    h('div', { class: 'dialog-actions' }, cancel, submit));
  const dialog = h('dialog', { 'aria-labelledby': titleId, class: 'dialog' }, form);
  let running = false;

  const close = () => {
    if (dialog.open) dialog.close();
  };
  dialog.addEventListener('close', () => {
    onClose?.();
    dialog.remove();
    if (opener && opener.isConnected && typeof opener.focus === 'function') opener.focus();
  });
  // A modal dialog keeps other controls of the page out of reach, but Tab
  // could still leave it for the browser's own controls: wrap it around.
  dialog.addEventListener('keydown', (event) => {
    if (event.key !== 'Tab') return;
    const focusable = Array.from(form.querySelectorAll('input, textarea, select, button, a[href]'))
      .filter((el) => !el.disabled && el.getClientRects().length > 0);
    if (focusable.length === 0) return;
    const first = focusable[0];
    const last = focusable[focusable.length - 1];
    if (event.shiftKey && document.activeElement === first) {
      event.preventDefault();
      last.focus();
    } else if (!event.shiftKey && document.activeElement === last) {
      event.preventDefault();
      first.focus();
    }
  });
  dialog.addEventListener('cancel', (event) => {
    if (running) event.preventDefault();
  });
  cancel?.addEventListener('click', close);
  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    if (running) return;
    running = true;
    errorBox.textContent = '';
    const controls = Array.from(form.querySelectorAll('input, textarea, select, button'));
    const before = controls.map((c) => c.disabled);
    controls.forEach((c) => {
      c.disabled = true;
    });
    form.setAttribute('aria-busy', 'true');
    let outcome;
    try {
      outcome = await onSubmit(form);
    } catch (err) {
      outcome = 'Something went wrong in this page. Please reload it and try again.';
    }
    running = false;
    form.removeAttribute('aria-busy');
    controls.forEach((c, i) => {
      c.disabled = before[i];
    });
    if (outcome === true) {
      close();
      return;
    }
    const lines = Array.isArray(outcome) ? outcome : [String(outcome)];
    lines.forEach((line) => errorBox.appendChild(h('p', {}, line)));
    const first = form.querySelector('input:not([disabled]), textarea:not([disabled])');
    (first || submit).focus();
  });

  document.body.appendChild(dialog);
  dialog.showModal();
  const first = form.querySelector('input, textarea, select');
  (first || submit).focus();
  // The region is put in only when there is something to say, so that the
  // dialog has one alert region until then.
  const explain = (lines) => {
    const list = Array.isArray(lines) ? lines : [lines];
    conflictBox.replaceChildren(...list.map((line) => h('p', {}, line)));
    if (!conflictBox.isConnected) form.insertBefore(conflictBox, form.querySelector('.dialog-body'));
  };
  return { dialog, form, close, submit, explain };
}

// A labelled text field for dialogs.
export function textField({ name, label, value = '', required = false, maxlength, hint, multiline = false }) {
  const id = uid(`field-${name}`);
  const hintId = hint ? `${id}-hint` : null;
  const props = { id, name, autocomplete: 'off', spellcheck: 'false', required, maxlength, 'aria-describedby': hintId };
  const control = multiline ? h('textarea', { ...props, rows: 3 }) : h('input', { ...props, type: 'text' });
  control.value = value;
  return h('div', { class: 'field' },
    h('label', { for: id }, label),
    control,
    hint ? h('p', { id: hintId, class: 'hint' }, hint) : null);
}
