// Shared set-up of the browser tests: a temporary appliance root made by
// `tavo init --demo`, a `tavo serve` on a free loopback port serving the
// admin page, and a headless chromium driven by playwright-core.
//
// Every test file makes its own root under the system's temporary folder and
// removes it afterwards; nothing touches the host's /etc.

import { execFileSync, spawn } from 'node:child_process';
import {
  appendFileSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync,
} from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

export const repo = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..');
export const tavoBin = process.env.TAVO_BIN || path.join(repo, 'build', 'bin', 'tavo');
export const artifactsDir = path.join(repo, 'test-artifacts');
export const ADMIN_PASSWORD = 'Web-Test-4dmin-Pass';

// Creates a demo root; `prepare(root)` may edit its files before the server starts.
export function makeRoot(prepare) {
  const dir = mkdtempSync(path.join(tmpdir(), 'tavo-web-test-'));
  const root = path.join(dir, 'root');
  execFileSync(tavoBin, ['init', root, '--demo'], {
    env: { ...process.env, TAVO_ADMIN_PASSWORD: ADMIN_PASSWORD },
    stdio: 'pipe',
  });
  if (prepare) prepare(root);
  return { dir, root, remove: () => rmSync(dir, { recursive: true, force: true }) };
}

function shadowHash(root, user) {
  const line = readFileSync(path.join(root, 'etc', 'shadow'), 'utf8').split('\n').find((l) => l.startsWith(`${user}:`));
  return line.split(':')[1];
}

// Appends local users (primary group "users", gid 100). `passwordLike` copies
// the password hash of an existing user so that the new ones can log in.
export function addUsers(root, names, { firstUid = 3000, passwordLike } = {}) {
  const hash = passwordLike ? shadowHash(root, passwordLike) : '!';
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
  const edit = (file, makeLine, replaceMembers) => {
    const full = path.join(root, 'etc', file);
    if (!existsSync(full)) return;
    const lines = readFileSync(full, 'utf8').split('\n').filter((l) => l !== '');
    const i = lines.findIndex((l) => l.split(':')[0] === name);
    if (i >= 0) lines[i] = replaceMembers(lines[i].split(':'));
    else lines.push(makeLine());
    writeFileSync(full, `${lines.join('\n')}\n`);
  };
  const list = members.join(',');
  edit('group', () => `${name}:x:${gid}:${list}`, (f) => [f[0], f[1], f[2], list].join(':'));
  edit('gshadow', () => `${name}:!::${list}`, (f) => [f[0], f[1], f[2], list].join(':'));
}

// Starts `tavo serve` on the root; resolves {url, stop, log}.
export async function startServer(root) {
  const child = spawn(tavoBin, ['serve', '--root', root, '--listen', '127.0.0.1:0', '--web', path.join(repo, 'web')], {
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let stderr = '';
  child.stderr.on('data', (chunk) => {
    stderr = (stderr + chunk).slice(-20000);
  });
  const url = await new Promise((resolve, reject) => {
    let stdout = '';
    const timer = setTimeout(() => reject(new Error(`tavo serve did not start:\n${stdout}\n${stderr}`)), 20000);
    child.stdout.on('data', (chunk) => {
      stdout += chunk;
      const m = /tavo: listening on (http:\/\/\S+)/.exec(stdout);
      if (m) {
        clearTimeout(timer);
        resolve(m[1].replace(/\/$/, ''));
      }
    });
    child.once('exit', (code) => {
      clearTimeout(timer);
      reject(new Error(`tavo serve exited with ${code}:\n${stderr}`));
    });
  });
  const stop = () => new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) {
      resolve();
      return;
    }
    const kill = setTimeout(() => child.kill('SIGKILL'), 5000);
    child.once('exit', () => {
      clearTimeout(kill);
      resolve();
    });
    child.kill('SIGTERM');
  });
  return { url, stop, log: () => stderr };
}

export async function launchBrowser() {
  return chromium.launch({
    executablePath: process.env.CHROMIUM_PATH || '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
}

// A fresh browser context (its own cookies) and page at the given size.
export async function openPage(browser, url, viewport = { width: 1280, height: 800 }) {
  const context = await browser.newContext({ viewport });
  const page = await context.newPage();
  const pageErrors = [];
  page.on('pageerror', (err) => pageErrors.push(err));
  await page.goto(`${url}/`);
  return { context, page, pageErrors };
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

export async function login(page, account = 'admin', password = ADMIN_PASSWORD) {
  await page.getByLabel('Account').fill(account);
  await page.getByLabel('Password').fill(password);
  await page.getByRole('button', { name: 'Log in' }).click();
  await page.getByRole('heading', { name: 'Groups', level: 1 }).waitFor();
}
