// Small DOM helpers for the admin page.
//
// Every piece of text that reaches the page goes through a text node
// (textContent or document.createTextNode); nothing here parses HTML, so data
// from the appliance (group names, descriptions, log messages) can never turn
// into markup or script.

// Characters that show nothing, or change how the text around them shows
// (default-ignorable code points, bidirectional controls, other format
// characters): written as a visible ⟨U+XXXX⟩, so that a name such as
// "sudo\u200b" cannot pass for "sudo" on the page.
const INVISIBLE = /[\p{Default_Ignorable_Code_Point}\p{Bidi_Control}\p{Cf}\u2028\u2029]/gu;
export function visible(text) {
  return String(text).replace(INVISIBLE,
    (c) => `⟨U+${c.codePointAt(0).toString(16).toUpperCase().padStart(4, '0')}⟩`);
}

// h('button', {type: 'button', onclick: fn}, 'Save') -> <button>Save</button>
//   props: "class" -> className, "text" -> textContent, "on<event>" -> listener,
//          true -> empty attribute, false/null/undefined -> left out,
//          anything else -> attribute with the value as a string.
//   children: nodes, strings (as text), arrays of them, null (skipped).
export function h(tag, props = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(props)) {
    if (value === undefined || value === null || value === false) continue;
    if (key === 'class') {
      node.className = value;
    } else if (key === 'text') {
      node.textContent = visible(value);
    } else if (key.startsWith('on') && typeof value === 'function') {
      node.addEventListener(key.slice(2), value);
    } else if (value === true) {
      node.setAttribute(key, '');
    } else {
      node.setAttribute(key, String(value));
    }
  }
  append(node, children);
  return node;
}

function append(node, children) {
  for (const child of children) {
    if (child === null || child === undefined || child === false) continue;
    if (Array.isArray(child)) append(node, child);
    else if (child instanceof Node) node.appendChild(child);
    else node.appendChild(document.createTextNode(visible(child)));
  }
}

// Replaces all children of `node`.
export function replaceChildren(node, ...children) {
  node.textContent = '';
  append(node, children);
}

let idCounter = 0;
// A document-unique id for label/aria wiring.
export function uid(prefix) {
  idCounter += 1;
  return `${prefix}-${idCounter}`;
}

// A labelled search box holding `value` at first; `onSearch` runs `delayMs`
// after the last keystroke (and at once on Enter) with the trimmed text, when
// that text differs from the last one searched for.
export function searchBox({ label, placeholder, onSearch, value = '', delayMs = 250 }) {
  const id = uid('search');
  const input = h('input', { id, type: 'search', placeholder, autocomplete: 'off', spellcheck: 'false' });
  input.value = value;
  let timer = null;
  let last = value.trim();
  const fire = () => {
    clearTimeout(timer);
    timer = null;
    const text = input.value.trim();
    if (text === last) return;
    last = text;
    onSearch(text);
  };
  input.addEventListener('input', () => {
    clearTimeout(timer);
    timer = setTimeout(fire, delayMs);
  });
  input.addEventListener('keydown', (event) => {
    if (event.key === 'Enter') {
      event.preventDefault();
      fire();
    }
  });
  const wrap = h('div', { class: 'field search' }, h('label', { for: id }, label), input);
  return { element: wrap, input };
}

// A badge that marks administrators.
export function adminBadge() {
  return h('span', { class: 'badge admin', title: 'Member of the administrators group' }, 'administrators');
}

// A header cell and the matching label for the narrow-window card layout.
export function th(text, props = {}) {
  return h('th', { scope: 'col', ...props }, text);
}

// A data cell; empty text is left out so that the narrow layout can hide the
// cell altogether.
export function td(label, ...children) {
  return h('td', { 'data-label': label }, ...children.filter((c) => c !== ''));
}
