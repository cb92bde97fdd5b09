// The busy indicator: shown when some request has been running for more than
// a short moment, hidden when none is running any more.
//
// begin() and end() are paired by every caller (api.js does it around each
// request); the indicator element is found by id "busy" in index.html.

const SHOW_AFTER_MS = 300;

let running = 0;
let timer = null;

function element() {
  return document.getElementById('busy');
}

function update() {
  const node = element();
  if (!node) return;
  const show = running > 0;
  if (show && !timer && node.hidden) {
    timer = setTimeout(() => {
      timer = null;
      if (running > 0) {
        node.hidden = false;
        document.body.setAttribute('aria-busy', 'true');
      }
    }, SHOW_AFTER_MS);
  } else if (!show) {
    clearTimeout(timer);
    timer = null;
    node.hidden = true;
    document.body.removeAttribute('aria-busy');
  }
}

export function begin() {
  running += 1;
  update();
}

export function end() {
  running = Math.max(0, running - 1);
  update();
}

// Runs `fn` with every control in `controls` disabled, and restores each one's
// previous state afterwards. Used so that a change cannot be started twice.
export async function whileDisabled(controls, fn) {
  const list = controls.filter(Boolean);
  const before = list.map((c) => c.disabled);
  for (const c of list) c.disabled = true;
  try {
    return await fn();
  } finally {
    list.forEach((c, i) => {
      c.disabled = before[i];
    });
  }
}
