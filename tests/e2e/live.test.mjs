// The change stream (GET /api/live): who may open it, what it reports and
// when, how bursts are merged, and that it ends with the session and with
// the server, in one process and split (--privsep-user nobody, as root).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { chmodSync, readFileSync, renameSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import {
  GROUP_MODULE, call, initRoot, login, moduleFolder, scratch, startServer, tavoCall, withServer,
} from './helpers.mjs';

const asRoot = process.getuid() === 0;
const env = withServer();

// Opens a stream and collects its events: {status, events, next(type, ms), ended, close()}.
async function openStream(url, headers) {
  const ctl = new AbortController();
  const res = await fetch(`${url}/api/live`, { headers, signal: ctl.signal });
  const s = { status: res.status, events: [], ended: false, close: () => ctl.abort() };
  if (res.status !== 200) return s;
  s.done = (async () => {
    const decoder = new TextDecoder();
    let text = '';
    try {
      for await (const chunk of res.body) {
        text += decoder.decode(chunk, { stream: true });
        let cut;
        while ((cut = text.indexOf('\n\n')) >= 0) {
          const block = text.slice(0, cut);
          text = text.slice(cut + 2);
          const type = block.match(/^event: (.*)$/m)?.[1];
          const data = block.match(/^data: (.*)$/m)?.[1];
          if (type) s.events.push({ type, data: JSON.parse(data), at: Date.now() });
        }
      }
    } catch { /* aborted */ }
    s.ended = true;
  })();
  // Waits for the `n`th event of `type` (counting from 1) within `ms`.
  s.next = async (type, ms = 3000, n = 1) => {
    for (const end = Date.now() + ms; Date.now() < end; await new Promise((r) => setTimeout(r, 20))) {
      const seen = s.events.filter((e) => e.type === type);
      if (seen.length >= n) return seen[n - 1];
    }
    throw new Error(`no "${type}" event #${n} within ${ms} ms: ${JSON.stringify(s.events)}`);
  };
  await s.next('ready');
  return s;
}
const changes = (s) => s.events.filter((e) => e.type === 'change');
const quiet = (ms) => new Promise((r) => setTimeout(r, ms));

test('only a same-site request with the token opens a stream; the cookie alone does not', async () => {
  const { cookie } = await login(env.url);
  assert.equal((await openStream(env.url, { Cookie: cookie })).status, 401);
  const token = { 'X-Tavo-Token': env.token };
  assert.equal((await openStream(env.url, { ...token, Origin: 'http://evil.example' })).status, 403);
  assert.equal((await openStream(env.url, { ...token, 'Sec-Fetch-Site': 'cross-site' })).status, 403);
  const host = new URL(env.url).host;
  const own = await openStream(env.url, { ...token, Origin: `http://${host}`, 'Sec-Fetch-Site': 'same-origin' });
  assert.equal(own.status, 200);
  own.close();
});

test('changes by the API, by tavo call and by the account tools are told; reads are not; bursts are merged', async () => {
  const s = await openStream(env.url, { Authorization: `Bearer ${env.token}` });
  try {
    await call(env.url, env.token, 'TAVO.Core.Group', 'create', { name: 'live-api' });
    const first = await s.next('change');
    assert.equal(first.data.groups, true);
    assert.equal(first.data.events, true);

    tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'live-cli' });
    assert.equal((await s.next('change', 3000, 2)).data.groups, true);

    // Reading the groups and the log writes nothing, so tells nothing.
    await quiet(500);
    const before = changes(s).length;
    await call(env.url, env.token, 'TAVO.Core.Group', 'list', {});
    await call(env.url, env.token, 'TAVO.Core.EventLog', 'list', {});
    await quiet(800);
    assert.equal(changes(s).length, before, JSON.stringify(s.events));

    // 200 hand edits within a moment: a few notices, the last one after the last edit.
    const group = join(env.root, 'etc/group');
    const text = readFileSync(group, 'utf8');
    const start = Date.now();
    for (let i = 0; i < 200; i++) {
      writeFileSync(`${group}.edit`, `${text}hand${i}:x:${7000 + i}:\n`);
      renameSync(`${group}.edit`, group);
      if (i % 20 === 0) await quiet(30);
    }
    const lastEdit = Date.now();
    writeFileSync(`${group}.edit`, text);
    renameSync(`${group}.edit`, group);
    await quiet(1000);
    const burst = changes(s).slice(before);
    const seconds = (lastEdit - start) / 1000 + 1;
    assert.ok(burst.length >= 1 && burst.length <= 3 * seconds + 2, `${burst.length} notices in ${seconds} s`);
    assert.ok(burst.at(-1).at >= lastEdit, 'the last edit was told');
    assert.ok(burst.every((e, i) => i === 0 || e.at - burst[i - 1].at >= 250), 'notices are spaced');

    if (asRoot) {
      const n = changes(s).length;
      const r = spawnSync('groupadd', ['-P', env.root, 'live-tool']);
      assert.equal(r.status, 0, r.stderr?.toString());
      assert.deepEqual((await s.next('change', 3000, n + 1)).data.groups, true);
    }
  } finally {
    s.close();
  }
});

test('a logout ends the streams of its session, not those of others', async () => {
  const other = (await login(env.url)).body.data.token;
  const mine = (await login(env.url)).body.data.token;
  const a = await openStream(env.url, { 'X-Tavo-Token': mine });
  const b = await openStream(env.url, { 'X-Tavo-Token': other });
  await fetch(`${env.url}/api/auth/logout`, { method: 'POST', headers: { 'X-Tavo-Token': mine } });
  assert.deepEqual((await a.next('end')).data, { reason: 'session' });
  await a.done;
  assert.equal(a.ended, true);
  assert.equal(b.ended, false);
  b.close();
});

test('split as nobody: the front sees the changes; a stream does not keep its session alive; a stop ends it',
  { skip: !asRoot && 'needs root' }, async () => {
    const tmp = scratch();
    chmodSync(tmp.dir, 0o755);
    const root = initRoot(tmp.dir);
    const server = await startServer({
      root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]),
      extra: ['--privsep-user', 'nobody', '--session-idle', '3'],
    });
    try {
      const token = (await login(server.url)).body.data.token;
      const s = await openStream(server.url, { 'X-Tavo-Token': token });
      await call(server.url, token, 'TAVO.Core.Group', 'create', { name: 'split-live' });
      const told = await s.next('change');
      assert.deepEqual([told.data.groups, told.data.events], [true, true]);
      const r = spawnSync('gpasswd', ['-Q', root, '-a', 'alice', 'split-live']);
      assert.equal(r.status, 0, r.stderr?.toString());
      await s.next('change', 3000, 2);
      // Idle for 3 s: the session ends although its stream is open.
      assert.deepEqual((await s.next('end', 8000)).data, { reason: 'session' });
      await s.done;

      const token2 = (await login(server.url)).body.data.token;
      const s2 = await openStream(server.url, { 'X-Tavo-Token': token2 });
      const stopped = Date.now();
      await server.stop();
      assert.ok(Date.now() - stopped < 3000, 'an open stream does not hold up the stop');
      assert.equal(server.child.exitCode, 0, server.stderr());
      assert.deepEqual((await s2.next('end')).data, { reason: 'stopping' });
    } finally {
      await server.stop();
      tmp.cleanup();
    }
  });
