// Paging controls: "21–30 of 120", previous/next page and a page-size choice.
//
// createPager({label, onChange}) returns {element, update, limit, reset}.
// onChange(offset, limit) runs when the person moves to another page or picks
// another size; the owner then loads that page and calls update(total, offset).

import { h, uid } from './dom.js';

export const PAGE_SIZES = [10, 25, 50, 100];

export function createPager({ label, onChange, size = 25, start = 0 }) {
  let limit = PAGE_SIZES.includes(size) ? size : 25;
  let offset = Math.max(0, Math.floor(start / limit) * limit);
  let total = 0;

  const summary = h('span', { class: 'pager-summary', 'aria-live': 'polite' });
  const prev = h('button', { type: 'button', class: 'secondary', 'aria-label': `Previous page of ${label}` }, '‹ Previous');
  const next = h('button', { type: 'button', class: 'secondary', 'aria-label': `Next page of ${label}` }, 'Next ›');
  const sizeId = uid('page-size');
  const select = h('select', { id: sizeId },
    PAGE_SIZES.map((n) => h('option', { value: n, selected: n === limit }, String(n))));

  prev.addEventListener('click', () => {
    offset = Math.max(0, offset - limit);
    onChange(offset, limit);
  });
  next.addEventListener('click', () => {
    offset += limit;
    onChange(offset, limit);
  });
  select.addEventListener('change', () => {
    limit = Number(select.value);
    offset = Math.floor(offset / limit) * limit;
    onChange(offset, limit);
  });

  const element = h('div', { class: 'pager', role: 'group', 'aria-label': `Pages of ${label}` },
    summary,
    h('span', { class: 'pager-buttons' }, prev, next),
    h('span', { class: 'pager-size' }, h('label', { for: sizeId }, 'Per page'), select));

  // "groups" -> "1 group"; every label is a plain English plural.
  const noun = (n) => (n === 1 ? label.replace(/s$/, '') : label);

  function render() {
    if (total === 0) {
      summary.textContent = `No ${label}`;
    } else {
      const first = Math.min(offset + 1, total);
      const last = Math.min(offset + limit, total);
      const page = Math.floor(offset / limit) + 1;
      const pages = Math.max(1, Math.ceil(total / limit));
      summary.textContent = first > last
        ? `Past the end of ${total} ${noun(total)}`
        : `${first}–${last} of ${total} ${noun(total)} (page ${page} of ${pages})`;
    }
    prev.disabled = offset === 0;
    next.disabled = offset + limit >= total;
  }

  render();
  return {
    element,
    // The answer of a page load: the number of all matching items.
    update(newTotal, newOffset = offset) {
      total = Number(newTotal) || 0;
      offset = newOffset;
      render();
    },
    get offset() {
      return offset;
    },
    get limit() {
      return limit;
    },
    // Back to the first page (after a new search).
    reset() {
      offset = 0;
    },
    // When the current page lies past the last item (after a deletion, say),
    // moves to the last page and returns true; the owner then loads it again.
    clamp(newTotal) {
      const n = Number(newTotal) || 0;
      if (offset === 0 || offset < n) return false;
      offset = n === 0 ? 0 : Math.floor((n - 1) / limit) * limit;
      return true;
    },
  };
}
