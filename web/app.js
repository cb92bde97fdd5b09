// The admin page: login, the navigation between views and the session.
//
// Views are chosen by the address's fragment, so that a reload or the
// browser's back button keeps the place:
//   #/groups          the groups list (also the default)
//   #/members/NAME    the members of one group
//   #/events          recent changes
//   #/import          import from a CSV file
// A reload keeps the person logged in as long as the server's session lives
// (restoreSession); any call that finds the session gone shows the login
// form with a sentence that says so. While logged in, the views on screen
// follow changes made elsewhere (live.js).

import * as api from './api.js';
import { whileDisabled } from './busy.js';
import { h, replaceChildren, uid } from './dom.js';
import { renderEvents } from './events.js';
import { renderGroups } from './groups.js';
import { renderImport } from './import.js';
import { renderMembers } from './members.js';
import { SESSION_EXPIRED, describeError } from './messages.js';
import { clearMessages } from './status.js';
import { installShortcuts, openShortcutHelp } from './shortcuts.js';
import { startLive, stopLive } from './live.js';

const main = document.getElementById('main');
let loginShown = false;

function setChrome(loggedIn) {
  document.getElementById('nav').hidden = !loggedIn;
  document.getElementById('session').hidden = !loggedIn;
  document.getElementById('who').textContent = loggedIn ? api.currentAccount() : '';
}

function field(label, props) {
  const id = uid('login');
  const input = h('input', { id, required: true, ...props });
  return { input, element: h('div', { class: 'field' }, h('label', { for: id }, label), input) };
}

// Shows the login form; `message` is shown in its alert region (an error, or
// why the person has to log in again), `note` in a polite status line.
function showLogin({ message = '', note = '' } = {}) {
  loginShown = true;
  setChrome(false);
  clearMessages();
  for (const dialog of document.querySelectorAll('dialog[open]')) dialog.close();
  const account = field('Account', { type: 'text', name: 'account', autocomplete: 'username', spellcheck: 'false' });
  const password = field('Password', { type: 'password', name: 'password', autocomplete: 'current-password' });
  const submit = h('button', { type: 'submit', class: 'primary' }, 'Log in');
  const alert = h('div', { class: 'form-error', role: 'alert' }, message);
  const status = h('p', { class: 'form-note', role: 'status' }, note);
  const form = h('form', { class: 'login', novalidate: true },
    h('h1', {}, 'Log in'),
    h('p', { class: 'hint' }, 'Members of "administrators" manage the groups of this appliance here.'),
    alert, status, account.element, password.element, submit);

  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    const name = account.input.value.trim();
    if (name === '' || password.input.value === '') {
      alert.textContent = 'Please enter an account name and a password.';
      (name === '' ? account.input : password.input).focus();
      return;
    }
    alert.textContent = '';
    status.textContent = '';
    await whileDisabled([account.input, password.input, submit], async () => {
      try {
        await api.login(name, password.input.value);
      } catch (err) {
        alert.textContent = describeError(err, 'login');
      }
    });
    if (api.isLoggedIn()) {
      loginShown = false;
      startLive();
      route();
    } else {
      password.input.value = '';
      password.input.focus();
    }
  });

  replaceChildren(main, form);
  account.input.focus();
}

function route() {
  if (!api.isLoggedIn()) {
    showLogin();
    return;
  }
  setChrome(true);
  const hash = window.location.hash;
  let view = 'groups';
  if (hash.startsWith('#/members/')) {
    let group = '';
    try {
      group = decodeURIComponent(hash.slice('#/members/'.length));
    } catch (err) {
      group = '';
    }
    if (group !== '') {
      renderMembers(main, group);
      view = 'members';
    } else {
      renderGroups(main);
    }
  } else if (hash === '#/events') {
    renderEvents(main);
    view = 'events';
  } else if (hash === '#/import') {
    renderImport(main);
    view = 'import';
  } else {
    renderGroups(main);
  }
  for (const link of document.querySelectorAll('#nav a')) {
    const current = link.dataset.view === view || (['members', 'import'].includes(view) && link.dataset.view === 'groups');
    if (current) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
}

api.onExpired(() => {
  stopLive();
  if (loginShown) return;
  showLogin({ message: SESSION_EXPIRED });
});

window.addEventListener('hashchange', () => {
  if (!api.isLoggedIn()) return;
  clearMessages();
  route();
});

// The skip link must not touch the address fragment, which selects the view.
document.querySelector('.skip-link').addEventListener('click', (event) => {
  event.preventDefault();
  (main.querySelector('h1[tabindex]') || main).focus();
});

document.getElementById('logout').addEventListener('click', async (event) => {
  stopLive();
  await whileDisabled([event.currentTarget], () => api.logout());
  showLogin({ note: 'You have logged out.' });
});

document.getElementById('shortcuts').addEventListener('click', openShortcutHelp);
installShortcuts(() => api.isLoggedIn() && !loginShown);

async function start() {
  try {
    if (await api.restoreSession()) {
      loginShown = false;
      startLive();
      route();
      return;
    }
    showLogin();
  } catch (err) {
    showLogin({ message: describeError(err, 'login') });
  }
}

start();
