// Shared by the HTTP end-to-end and the browser tests: a temporary root made
// by `tavo init --demo`, a `tavo serve` on a free loopback port, and small
// clients for the login, the API and the command line.
import { spawn, spawnSync } from 'node:child_process';
import { after, before } from 'node:test';
import { mkdtempSync, rmSync, mkdirSync, symlinkSync, existsSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

export const REPO = resolve(dirname(fileURLToPath(import.meta.url)), '../..');
export const TAVO_BIN = process.env.TAVO_BIN || join(REPO, 'build/bin/tavo');
const BUILD_DIR = resolve(dirname(TAVO_BIN), '..');
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

// What the appliance itself answers, whatever the exit code of `tavo call`.
export function tavoCall(root, api, method, params = {}) {
  return JSON.parse(runTavo(['call', '--root', root, api, method, '--params', JSON.stringify(params)]).stdout);
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

// Starts `tavo serve` and resolves {url, stop(), stderr(), stderrMatch(re), child}
// once it listens; stderrMatch waits (up to 5 s) until standard error matches.
// `env` adds to the server's environment.
export function startServer({ root, modules, web, extra = [], env = {} }) {
  const args = ['serve', '--root', root, '--listen', '127.0.0.1:0'];
  if (modules) args.push('--modules', modules);
  if (web) args.push('--web', web);
  const child = spawn(TAVO_BIN, [...args, ...extra], {
    env: { ...process.env, TAVO_LOCK_TIMEOUT_MS: '20000', ...env },
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let err = '';
  let out = '';
  child.stderr.on('data', (d) => { err += d; });
  const exited = new Promise((res) => child.on('exit', res));
  const alive = () => child.exitCode === null && child.signalCode === null;
  const stop = async () => {
    if (alive()) child.kill('SIGTERM');
    const kill = setTimeout(() => child.kill('SIGKILL'), 5000);
    await exited;
    clearTimeout(kill);
  };
  return new Promise((resolveStart, rejectStart) => {
    const timer = setTimeout(() => {
      child.kill('SIGKILL');
      rejectStart(new Error(`server did not start: ${err}`));
    }, 15000);
    child.stdout.on('data', (d) => {
      out += d;
      const m = out.match(/^tavo: listening on (https?:\/\/\S+)$/m);
      if (!m) return;
      clearTimeout(timer);
      // The access log reaches standard error in batches, a few ms late.
      const stderrMatch = async (re, ms = 5000) => {
        for (const end = Date.now() + ms; !re.test(err) && Date.now() < end;) {
          await new Promise((r) => setTimeout(r, 20));
        }
        return err;
      };
      resolveStart({ url: m[1], stop, stderr: () => err, stderrMatch, child });
    });
    exited.then((code) => {
      clearTimeout(timer);
      rejectStart(new Error(`server exited with ${code} before listening: ${err}`));
    });
  });
}

// For one test file or describe block: a demo root (`prepare(root, dir)` may
// add files first and return more server options), a server on it with the
// group module, and an administrator's token; all removed afterwards. One
// hook only: node 20 starts the before hooks of the top level together, so a
// test file that needs more set-up does it in its test.
export function withServer({ prepare, modules = [GROUP_MODULE], ...options } = {}) {
  const env = {};
  let tmp;
  before(async () => {
    tmp = scratch();
    env.root = initRoot(tmp.dir);
    const more = prepare?.(env.root, tmp.dir);
    env.server = await startServer({
      root: env.root, modules: modules && moduleFolder(tmp.dir, modules), ...options, ...more,
    });
    env.url = env.server.url;
    env.token = (await login(env.url)).body.data?.token;
  });
  after(async () => {
    await env.server?.stop();
    tmp?.cleanup();
  });
  return env;
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
export async function post(url, token, envelope) {
  const res = await fetch(`${url}/api`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Tavo-Token': token },
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
