// Socket activation as tavo.socket does it: systemd listens, starts
// `tavo serve` at the first connection and hands it the listening socket,
// which it serves instead of binding its own.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { createServer } from 'node:net';
import { scratch, initRoot, moduleFolder, GROUP_MODULE, TAVO_BIN } from './helpers.mjs';

const haveActivate = spawnSync('systemd-socket-activate', ['--help']).status === 0;

function freePort() {
  return new Promise((resolve) => {
    const s = createServer().listen(0, '127.0.0.1', () => {
      const { port } = s.address();
      s.close(() => resolve(port));
    });
  });
}

test('a socket passed by systemd is served', { skip: !haveActivate && 'no systemd-socket-activate' }, async () => {
  const tmp = scratch();
  const root = initRoot(tmp.dir);
  const port = await freePort();
  const child = spawn('systemd-socket-activate', ['-l', `127.0.0.1:${port}`, TAVO_BIN, 'serve', '--config', 'none',
    '--root', root, '--modules', moduleFolder(tmp.dir, [GROUP_MODULE]), '--listen', '127.0.0.1:1'],
  { stdio: ['ignore', 'pipe', 'pipe'] });
  let out = '';
  child.stdout.on('data', (d) => { out += d; });
  const exited = new Promise((resolve) => child.on('exit', resolve));
  try {
    // Wait for the activator to listen, then the first request starts tavo.
    let res;
    for (let i = 0; i < 100 && !res; i++) {
      try {
        res = await fetch(`http://127.0.0.1:${port}/healthz`, { signal: AbortSignal.timeout(15000) });
      } catch (e) {
        if (e.cause?.code !== 'ECONNREFUSED') throw e;
        await new Promise((r) => setTimeout(r, 100));
      }
    }
    assert.ok(res, 'no answer on the activated socket');
    assert.equal(res.status, 200);
    assert.deepEqual(await res.json(), { status: 'ok' });
    // It serves the socket's address, not the --listen it was given.
    assert.match(out, new RegExp(`^tavo: listening on http://127\\.0\\.0\\.1:${port}$`, 'm'));
  } finally {
    child.kill('SIGTERM');
    await exited;
    tmp.cleanup();
  }
});
