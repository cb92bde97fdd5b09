// Shared helpers of the HTTP end-to-end tests: a temporary root made by
// `tavo init --demo`, a `tavo serve` on a free loopback port, and small
// clients for the login and the API.
import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, rmSync, mkdirSync, symlinkSync, existsSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const repo = resolve(dirname(fileURLToPath(import.meta.url)), '../..');
export const TAVO_BIN = process.env.TAVO_BIN || join(repo, 'build/bin/tavo');
export const BUILD_DIR = resolve(dirname(TAVO_BIN), '..');
export const GROUP_MODULE = join(BUILD_DIR, 'modules/TAVO.Core.Group.so');
export const TEST_MODULE_DIR = join(BUILD_DIR, 'testmodules');
export const ADMIN_PASSWORD = 'e2e-Admin-pw-1';
export const USER_PASSWORD = 'e2e-User-pw-1';

// A scratch folder removed by cleanup().
export function scratch(prefix = 'tavo-e2e-') {
  const dir = mkdtempSync(join(tmpdir(), prefix));
  return { dir, cleanup: () => rmSync(dir, { recursive: true, force: true }) };
}

export function runTavo(args, env = {}) {
  return spawnSync(TAVO_BIN, args, {
    encoding: 'utf8',
    env: { ...process.env, TAVO_ROOT: '', ...env },
    timeout: 30000,
  });
}

// Creates a demo root at DIR/root and returns its path.
export function initRoot(dir) {
  const root = join(dir, 'root');
  const r = runTavo(['init', root, '--demo'], {
    TAVO_ADMIN_PASSWORD: ADMIN_PASSWORD,
    TAVO_DEMO_USER_PASSWORD: USER_PASSWORD,
  });
  if (r.status !== 0) throw new Error(`tavo init failed: ${r.stderr}`);
  return root;
}

// A modules folder holding symlinks to the given module files.
export function moduleFolder(dir, files) {
  const mods = join(dir, 'modules');
  mkdirSync(mods, { recursive: true });
  for (const f of files) {
    if (!existsSync(f)) throw new Error(`missing module ${f} (build it first)`);
    symlinkSync(f, join(mods, f.split('/').pop()));
  }
  return mods;
}

// Starts `tavo serve` and resolves {url, stop(), stderr()} once it listens.
export function startServer({ root, modules, web, extra = [] }) {
  const args = ['serve', '--root', root, '--listen', '127.0.0.1:0'];
  if (modules) args.push('--modules', modules);
  if (web) args.push('--web', web);
  args.push(...extra);
  const child = spawn(TAVO_BIN, args, {
    env: { ...process.env, TAVO_LOCK_TIMEOUT_MS: '20000' },
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let err = '';
  let out = '';
  child.stderr.on('data', (d) => { err += d; });
  const exited = new Promise((res) => child.on('exit', (code, signal) => res({ code, signal })));
  return new Promise((resolveStart, rejectStart) => {
    const timer = setTimeout(() => rejectStart(new Error(`server did not start: ${err}`)), 15000);
    child.stdout.on('data', (d) => {
      out += d;
      const m = out.match(/^tavo: listening on (http:\/\/\S+)$/m);
      if (m) {
        clearTimeout(timer);
        resolveStart({
          url: m[1],
          stderr: () => err,
          alive: () => child.exitCode === null && child.signalCode === null,
          stop: async () => {
            if (child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
            return exited;
          },
        });
      }
    });
    exited.then(({ code }) => {
      clearTimeout(timer);
      rejectStart(new Error(`server exited with ${code} before listening: ${err}`));
    });
  });
}

export async function login(url, account = 'admin', password = ADMIN_PASSWORD) {
  const res = await fetch(`${url}/api/auth/login`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify({ account, password }),
  });
  const body = await res.json();
  return { status: res.status, body, cookie: (res.headers.get('set-cookie') || '').split(';')[0] };
}

// POSTs an envelope with the token; resolves {status, body}.
export async function post(url, token, envelope, headers = {}) {
  const res = await fetch(`${url}/api`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Tavo-Token': token, ...headers },
    body: typeof envelope === 'string' ? envelope : JSON.stringify(envelope),
  });
  return { status: res.status, body: await res.json() };
}

// Calls a method and returns the envelope (asserting HTTP 200).
export async function call(url, token, api, method, params = {}) {
  const { status, body } = await post(url, token, { api, version: 1, method, params });
  if (status !== 200) throw new Error(`HTTP ${status} for ${api} ${method}: ${JSON.stringify(body)}`);
  return body;
}
