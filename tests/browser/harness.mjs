// The browser side of the shared harness: the admin page served from a
// temporary demo root, a headless chromium driven by playwright-core, and
// seeding of larger account files. Nothing touches the host's /etc.

import { appendFileSync, existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { after, before } from 'node:test';
import { chromium } from 'playwright-core';
import { ADMIN_PASSWORD, REPO, withServer } from '../e2e/helpers.mjs';

export { ADMIN_PASSWORD, tavoCall } from '../e2e/helpers.mjs';
export const artifactsDir = path.join(REPO, 'test-artifacts');

// For one describe block: the shared server (../e2e/helpers.mjs) serving the
// page from a demo root that `prepare(root)` may edit first, and a chromium
// page at the login form (env.browser opens more contexts); all removed
// afterwards.
export function withAppliance(prepare) {
  const env = withServer({ prepare, modules: null, web: path.join(REPO, 'web') });
  let browser;
  before(async () => {
    browser = await chromium.launch({
      executablePath: process.env.CHROMIUM_PATH || '/usr/bin/chromium',
      args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
        '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    });
    env.browser = browser;
    env.page = await (await browser.newContext({ viewport: { width: 1280, height: 800 } })).newPage();
    env.pageErrors = [];
    env.page.on('pageerror', (err) => env.pageErrors.push(err));
    await env.page.goto(`${env.url}/`);
  });
  after(async () => browser?.close());
  return env;
}

// Appends local users (primary group "users", gid 100). `passwordLike` copies
// the password hash of an existing user so that the new ones can log in.
export function addUsers(root, names, { firstUid = 3000, passwordLike } = {}) {
  const shadowOf = (user) => readFileSync(path.join(root, 'etc', 'shadow'), 'utf8').split('\n')
    .find((l) => l.startsWith(`${user}:`));
  const hash = passwordLike ? shadowOf(passwordLike).split(':')[1] : '!';
  const days = Math.floor(Date.now() / 86400000);
  let passwd = '';
  let shadow = '';
  names.forEach((name, i) => {
    passwd += `${name}:x:${firstUid + i}:100:Test user ${name}:/home/${name}:/bin/sh\n`;
    shadow += `${name}:${hash}:${days}:0:99999:7:::\n`;
  });
  appendFileSync(path.join(root, 'etc', 'passwd'), passwd);
  appendFileSync(path.join(root, 'etc', 'shadow'), shadow);
}

// Sets the member list of a group, adding the group (with `gid`) when absent;
// etc/gshadow is kept in step.
export function setGroup(root, name, members, gid) {
  const edit = (file, makeLine) => {
    const full = path.join(root, 'etc', file);
    if (!existsSync(full)) return;
    const lines = readFileSync(full, 'utf8').split('\n').filter((l) => l !== '');
    const i = lines.findIndex((l) => l.split(':')[0] === name);
    if (i >= 0) lines[i] = [...lines[i].split(':').slice(0, 3), members.join(',')].join(':');
    else lines.push(makeLine());
    writeFileSync(full, `${lines.join('\n')}\n`);
  };
  edit('group', () => `${name}:x:${gid}:${members.join(',')}`);
  edit('gshadow', () => `${name}:!::${members.join(',')}`);
}

export async function screenshot(page, name) {
  mkdirSync(artifactsDir, { recursive: true });
  await page.screenshot({ path: path.join(artifactsDir, `${name}.png`), fullPage: true });
}

// Polls `fn` until it returns a truthy value; fails with `what` after `ms`.
export async function eventually(fn, what, ms = 10000) {
  const end = Date.now() + ms;
  let last;
  for (;;) {
    try {
      last = await fn();
      if (last) return last;
    } catch (err) {
      last = err;
    }
    if (Date.now() > end) throw new Error(`timed out waiting for ${what} (last: ${last})`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

// Waits until the text of `locator` contains `text`.
export async function waitForText(locator, text, ms = 10000) {
  return eventually(async () => (await locator.textContent() ?? '').includes(text), `text "${text}"`, ms);
}

// The labelled regions of the members view, and the pager summary inside `scope`.
export const region = (page, name) => page.getByRole('region', { name, exact: true });
export const summary = (scope) => scope.locator('.pager-summary');

export async function login(page, account = 'admin', password = ADMIN_PASSWORD) {
  await page.getByLabel('Account').fill(account);
  await page.getByLabel('Password').fill(password);
  await page.getByRole('button', { name: 'Log in' }).click();
  await page.getByRole('heading', { name: 'Groups', level: 1 }).waitFor();
}
