// As root, `tavo serve --privsep-user nobody` parses HTTP in a process of
// nobody that cannot read the account files, while logins and changes keep
// working through the account process.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  readFileSync, readdirSync, readlinkSync, chmodSync, chownSync, mkdirSync, writeFileSync,
} from 'node:fs';
import { spawnSync } from 'node:child_process';
import { join } from 'node:path';
import {
  scratch, initRoot, moduleFolder, startServer, login, call, post, GROUP_MODULE, USER_PASSWORD,
} from './helpers.mjs';

const asRoot = process.getuid() === 0;

// A demo root in a folder the front's user may enter, served split: the front
// as nobody.
async function splitServer() {
  const tmp = scratch();
  chmodSync(tmp.dir, 0o755);
  const root = initRoot(tmp.dir);
  const server = await startServer({
    root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]), extra: ['--privsep-user', 'nobody'],
  });
  return { tmp, root, server };
}

test('the front runs as nobody, cannot open etc/shadow, and the API works', { skip: !asRoot && 'needs root' }, async () => {
  const { tmp, root, server } = await splitServer();
  try {
    const token = (await login(server.url)).body.data.token;
    assert.match(token, /^[0-9a-f]{64}$/);
    // The module's own time for the call comes back across the split.
    const created = await fetch(`${server.url}/api`, {
      method: 'POST', headers: { Authorization: `Bearer ${token}`, 'Content-Type': 'application/json' },
      body: JSON.stringify({ api: 'TAVO.Core.Group', version: 1, method: 'create', params: { name: 'split' } }),
    });
    assert.equal((await created.json()).success, true);
    assert.match(created.headers.get('server-timing'), /^module;dur=\d+\.\d{3}$/);
    assert.ok(readFileSync(join(root, 'etc/group'), 'utf8').includes('\nsplit:'));
    // The store's figures come from the account process.
    const metrics = await (await fetch(`${server.url}/metrics`, { headers: { Authorization: `Bearer ${token}` } })).text();
    assert.match(metrics, /^tavo_store_commits_total\{result="written"\} 1$/m);
    // A page asked again is the kept answer, looked up by its parameters'
    // text; a change made since is in the next page.
    const reused = async () => Number((await (await fetch(`${server.url}/metrics`,
      { headers: { Authorization: `Bearer ${token}` } })).text()).match(/^tavo_answers_reused_total (\d+)$/m)[1]);
    const group = (method, params) => post(server.url, token, { api: 'TAVO.Core.Group', version: 1, method, params });
    const names = async () => (await group('list', { limit: 50 })).body.data.groups.map((g) => g.name);
    const first = await names();
    const before = await reused();
    assert.deepEqual(await names(), first);
    assert.equal(await reused(), before + 1);
    assert.equal((await group('create', { name: 'split2' })).body.success, true);
    assert.ok((await names()).includes('split2'));

    const children = readFileSync(`/proc/${server.child.pid}/task/${server.child.pid}/children`, 'utf8').trim().split(/\s+/);
    assert.equal(children.length, 1, children.join(' '));
    const front = children[0];
    const [uid, gid] = ['Uid', 'Gid'].map((k) =>
      readFileSync(`/proc/${front}/status`, 'utf8').match(new RegExp(`^${k}:\\s+(\\d+)\\s+(\\d+)\\s+(\\d+)`, 'm')).slice(1));
    assert.deepEqual(uid, ['65534', '65534', '65534']);
    // Every thread of both processes runs under the batch policy (3), so that
    // none preempts a running thread when it wakes.
    const policies = [server.child.pid, front].flatMap((pid) => readdirSync(`/proc/${pid}/task`).map((tid) =>
      readFileSync(`/proc/${pid}/task/${tid}/stat`, 'utf8').split(') ')[1].split(' ')[38]));
    assert.ok(policies.length > 4 && policies.every((p) => p === '3'), policies.join(' '));
    const shadow = join(root, 'etc/shadow');
    const open = readdirSync(`/proc/${front}/fd`).map((fd) => { try { return readlinkSync(`/proc/${front}/fd/${fd}`); } catch { return ''; } });
    assert.ok(!open.some((p) => p.startsWith(join(root, 'etc'))), open.join('\n'));
    // Nor does it hold any of the account process's own descriptors (its
    // channel's listening socket, its stop pipe), beyond what both inherited.
    // Every inotify instance links to the same anonymous inode: each is told
    // apart by the watches its fdinfo lists (the front has one of its own,
    // the change watch, made after the split).
    const target = (pid, fd) => {
      const link = readlinkSync(`/proc/${pid}/fd/${fd}`);
      if (link !== 'anon_inode:inotify') return link;
      return `${link} ${readFileSync(`/proc/${pid}/fdinfo/${fd}`, 'utf8').split('\n').filter((l) => l.startsWith('inotify')).join(';')}`;
    };
    const targets = (pid) => new Set(readdirSync(`/proc/${pid}/fd`).filter((fd) => Number(fd) > 2)
      .map((fd) => { try { return target(pid, fd); } catch { return ''; } }));
    const inherited = targets(process.pid);
    const parentOwn = targets(server.child.pid);
    const shared = [...targets(front)].filter((t) => parentOwn.has(t) && !inherited.has(t));
    assert.deepEqual(shared, [], shared.join(' '));
    const tryRead = spawnSync('setpriv', ['--reuid', uid[0], '--regid', gid[0], '--clear-groups', 'cat', shadow]);
    assert.notEqual(tryRead.status, 0);
    assert.equal(spawnSync('cat', [shadow]).status, 0);  // the file is there for root

    // Without its account process the front has nothing to serve: it ends too.
    server.child.kill('SIGKILL');
    let gone = false;
    for (let i = 0; i < 100 && !gone; i++) {
      await new Promise((r) => setTimeout(r, 100));
      try { gone = readFileSync(`/proc/${front}/status`, 'utf8').match(/^State:\s+Z/m) !== null; } catch { gone = true; }
    }
    if (!gone) process.kill(Number(front), 'SIGKILL');
    assert.ok(gone, 'the front outlived the account process');
  } finally {
    await server.stop();
    tmp.cleanup();
  }
});

// Calls are started on the front's event thread and answered from the
// channel: a refusal by the account process still ends the session there,
// and the grant's end reaches the account process before the next call.
test('an account withdrawn from the administrators ends its sessions in the split server too', { skip: !asRoot && 'needs root' }, async () => {
  const { tmp, server } = await splitServer();
  try {
    const admin = (await login(server.url)).body.data.token;
    const member = { api: 'TAVO.Core.Group.Member', version: 1, params: { group: 'administrators', name: ['alice'] } };
    assert.equal((await post(server.url, admin, { ...member, method: 'add' })).body.success, true);
    const a = await login(server.url, 'alice', USER_PASSWORD);
    const b = await login(server.url, 'alice', USER_PASSWORD);
    const list = (token) => fetch(`${server.url}/api?api=TAVO.Core.Group&version=1&method=list`,
      { headers: { Authorization: `Bearer ${token}` } });
    assert.equal((await list(a.body.data.token)).status, 200);
    assert.equal((await post(server.url, admin, { ...member, method: 'remove' })).body.success, true);
    for (const r of [a, b]) {
      const refused = await list(r.body.data.token);
      assert.equal(refused.status, 401);
      assert.match((await refused.json()).error, /alice is no longer a valid administrator/);
      const session = await fetch(`${server.url}/api/auth/session`, { headers: { Cookie: r.cookie } });
      assert.equal(session.status, 401);
    }
    // The next call first tells the account process of the ended grants,
    // then is served.
    assert.equal((await list(admin)).status, 200);
    assert.equal((await post(server.url, admin, { api: 'TAVO.Core.Group', version: 1, method: 'list', params: {} })).body.success, true);
  } finally {
    await server.stop();
    tmp.cleanup();
  }
});

test('files a local user plants where the module looks neither hang nor fool the server', { skip: !asRoot && 'needs root' }, async () => {
  const tmp = scratch();
  chmodSync(tmp.dir, 0o755);
  const root = initRoot(tmp.dir);
  // Joined to a domain whose group list is in place.
  writeFileSync(join(root, 'etc/tavo/domain'), 'realm = corp.test\nworkgroup = CORP\n');
  writeFileSync(join(root, 'etc/tavo/domain_group'), 'CORP\\sales:x:101106:\n');
  mkdirSync(join(root, 'tmp'), { recursive: true, mode: 0o1777 });
  chmodSync(join(root, 'tmp'), 0o1777);
  for (const name of ['domain_group.pid', 'domain_updating']) {
    const path = join(root, 'tmp', name);
    assert.equal(spawnSync('mkfifo', [path]).status, 0);
    chownSync(path, 65534, 65534);
  }
  const server = await startServer({
    root, modules: moduleFolder(tmp.dir, [GROUP_MODULE]), extra: ['--privsep-user', 'nobody'],
  });
  try {
    // A live pid (1) that no sync holds, where the pid file really lives.
    mkdirSync(join(root, 'run/tavo'), { recursive: true, mode: 0o700 });
    writeFileSync(join(root, 'run/tavo/domain_group.pid'), '1\n');
    const token = (await login(server.url)).body.data.token;
    const timed = (envelope) => Promise.race([post(server.url, token, envelope),
      new Promise((_, reject) => setTimeout(() => reject(new Error(`${envelope.method} hangs`)), 10000))]);
    const status = await timed({ api: 'TAVO.Core.Directory', version: 1, method: 'status', params: {} });
    assert.equal(status.body.success, true, JSON.stringify(status.body));
    assert.equal(status.body.data.domain.rebuilding, null);
    const list = await timed({ api: 'TAVO.Core.Group', version: 1, method: 'list', params: { type: 'domain' } });
    assert.equal(list.body.success, true, JSON.stringify(list.body));
    assert.equal(list.body.data.total, 1);
  } finally {
    const started = Date.now();
    await server.stop();
    assert.equal(server.child.signalCode, null, 'SIGTERM did not stop the server');
    assert.ok(Date.now() - started < 5000);
    tmp.cleanup();
  }
});
