// Sorting the rows of the page on screen by one column. Only the page that
// the appliance sent is reordered; the order of the pages themselves stays
// the appliance's own.
//
// createSorter(onChange) -> {header(key, label, kind, props), sort(items)}.
// header() makes a column header whose button cycles through ascending,
// descending and the appliance's order, and marks it with aria-sort; kind
// "number" compares numerically, else text ignoring case. onChange() runs
// after each press so that the owner shows its rows again.

import { h } from './dom.js';

const NEXT = { none: 'ascending', ascending: 'descending', descending: 'none' };

export function createSorter(onChange) {
  const columns = [];
  let current = null;
  let direction = 'none';

  function mark() {
    for (const c of columns) {
      const state = c.key === current ? direction : 'none';
      c.th.setAttribute('aria-sort', state);
      c.arrow.textContent = { ascending: '▲', descending: '▼', none: '' }[state];
    }
  }

  return {
    header(key, label, kind = 'text', props = {}) {
      const arrow = h('span', { class: 'sort-arrow', 'aria-hidden': 'true' });
      const button = h('button', { type: 'button', class: 'sort' }, label, arrow);
      const cell = h('th', { scope: 'col', 'aria-sort': 'none', ...props }, button);
      columns.push({ key, kind, th: cell, arrow });
      button.addEventListener('click', () => {
        direction = current === key ? NEXT[direction] : 'ascending';
        current = direction === 'none' ? null : key;
        mark();
        onChange();
      });
      return cell;
    },
    // A sorted copy of `items` (objects with the columns' keys).
    sort(items) {
      const column = columns.find((c) => c.key === current);
      if (!column) return items;
      const value = (item) => item[column.key] ?? '';
      const compare = column.kind === 'number'
        ? (a, b) => Number(value(a)) - Number(value(b))
        : (a, b) => String(value(a)).localeCompare(String(value(b)), undefined, { sensitivity: 'base' });
      const sorted = [...items].sort(compare);
      return direction === 'descending' ? sorted.reverse() : sorted;
    },
  };
}
