// Live updates: the server's change stream (GET /api/live), read with fetch
// so that the session token travels in a header; the server refuses the
// cookie alone (docs/security.md). Each notice says what changed
// ({groups, events}); the views that are on screen refresh themselves and
// a short "Updated" cue appears once they have.
//
// startLive() after a login, stopLive() at logout. A stream that drops is
// opened again after 1 s, then 2, 4 ... up to 30 s, with some jitter, and
// back to 1 s once the server has greeted it. A 401 hands the page to the
// login form (api.js). document.body.dataset.live is "on" while a stream is
// open, "off" otherwise.
//
// onChange(fn) registers fn(what) and returns the function that removes it;
// fn may return a promise, which the cue waits for. A view removes its
// listener itself once it is no longer on screen.

import { openStream } from './api.js';

const MIN_DELAY = 1000;
const MAX_DELAY = 30000;
const CUE_MS = 2500;

const listeners = new Set();
let controller = null;
let retryTimer = null;
let delay = MIN_DELAY;
let running = null; // the refresh in progress
let pending = null; // what changed while it ran

export function onChange(fn) {
  listeners.add(fn);
  return () => listeners.delete(fn);
}

function setState(state) {
  document.body.dataset.live = state;
}

let cueTimer = null;
function showCue() {
  const cue = document.getElementById('live-cue');
  if (!cue) return;
  cue.textContent = 'Updated';
  cue.classList.remove('shown');
  void cue.offsetWidth; // starts the fade again
  cue.classList.add('shown');
  clearTimeout(cueTimer);
  cueTimer = setTimeout(() => {
    cue.classList.remove('shown');
    cue.textContent = '';
  }, CUE_MS);
}

// Refreshes the listeners; notices that arrive meanwhile are merged into one
// more refresh afterwards.
async function dispatch(what) {
  if (running) {
    pending = { groups: Boolean(pending?.groups || what.groups), events: Boolean(pending?.events || what.events) };
    return;
  }
  // A refreshed table replaces its rows: focus on a control of a row moves to
  // the new control of the same name, so that a keyboard user keeps the place.
  const focused = document.activeElement;
  const label = focused?.getAttribute?.('aria-label');
  running = Promise.allSettled(Array.from(listeners, (fn) => fn(what)));
  await running;
  running = null;
  if (label && !focused.isConnected && document.activeElement === document.body) {
    document.querySelector(`#main [aria-label="${CSS.escape(label)}"]`)?.focus();
  }
  if (controller) showCue();
  if (pending) {
    const next = pending;
    pending = null;
    dispatch(next);
  }
}

function handle(block) {
  let type = 'message';
  let data = '';
  for (const line of block.split('\n')) {
    if (line.startsWith('event: ')) type = line.slice(7);
    else if (line.startsWith('data: ')) data += line.slice(6);
  }
  if (type === 'ready') {
    delay = MIN_DELAY;
    setState('on');
  } else if (type === 'change') {
    try {
      const what = JSON.parse(data);
      dispatch({ groups: what.groups === true, events: what.events === true });
    } catch (err) {
      // A notice that does not parse says nothing.
    }
  }
}

async function connect() {
  retryTimer = null;
  const mine = new AbortController();
  controller = mine;
  try {
    const response = await openStream('/api/live', mine.signal);
    const reader = response.body.getReader();
    const decoder = new TextDecoder();
    let text = '';
    for (;;) {
      const { value, done } = await reader.read();
      if (done) break;
      text += decoder.decode(value, { stream: true });
      let cut;
      while ((cut = text.indexOf('\n\n')) >= 0) {
        handle(text.slice(0, cut));
        text = text.slice(cut + 2);
      }
    }
  } catch (err) {
    if (err && err.kind === 'expired') {
      stopLive();
      return;
    }
  }
  if (controller !== mine) return; // stopped, or replaced
  setState('off');
  const wait = delay + Math.floor(Math.random() * delay * 0.2);
  delay = Math.min(delay * 2, MAX_DELAY);
  retryTimer = setTimeout(connect, wait);
}

export function startLive() {
  stopLive();
  delay = MIN_DELAY;
  connect();
}

export function stopLive() {
  clearTimeout(retryTimer);
  retryTimer = null;
  if (controller) controller.abort();
  controller = null;
  setState('off');
}
