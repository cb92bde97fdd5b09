// Module failures under `tavo serve`, and the exit codes of `tavo call`,
// `tavo init` and `tavo log`.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { appendFileSync, existsSync, mkdirSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import {
  scratch, initRoot, moduleFolder, startServer, login, call, runTavo, GROUP_MODULE, TEST_MODULE_DIR,
  TAVO_BIN,
} from './helpers.mjs';

let tmp, root;

before(() => {
  tmp = scratch();
  root = initRoot(tmp.dir);
});

after(() => tmp?.cleanup());

const folder = (name, files) => {
  mkdirSync(join(tmp.dir, name));
  return moduleFolder(join(tmp.dir, name), files);
};

test('a module that throws is answered 3299 and the server stays up', async () => {
  const modules = folder('throwing', [GROUP_MODULE, join(TEST_MODULE_DIR, 'good.so')]);
  const server = await startServer({ root, modules });
  try {
    const token = (await login(server.url)).body.data.token;
    for (const method of ['throw_std', 'throw_other']) {
      assert.deepEqual(await call(server.url, token, 'TAVO.Test', method), { success: false, error: { code: 3299 } });
    }
    const echo = await call(server.url, token, 'TAVO.Test', 'echo', { n: 1 });
    assert.deepEqual(echo.data, { params: { n: 1 }, request_account: 'admin', thread_account: 'admin' });
    assert.equal((await call(server.url, token, 'TAVO.Core.Group', 'list')).success, true);
    assert.match(server.stderr(), /TAVO.Test v1 throw_std threw an exception: test module failure/);
    const line = /admin "POST \/api" 200 TAVO.Test 1 throw_other 3299/;
    assert.match(await server.stderrMatch(line), line);
  } finally {
    await server.stop();
  }
});

test('serve refuses to start with a broken module or a taken port, and warns with no module', async () => {
  // Each kind of broken module has its own loader test; here, the command's answer.
  const broken = folder('broken', [join(TEST_MODULE_DIR, 'good.so'), join(TEST_MODULE_DIR, 'duplicate.so')]);
  const r = runTavo(['serve', '--root', root, '--listen', '127.0.0.1:0', '--modules', broken]);
  assert.equal(r.status, 1, r.stderr);
  assert.match(r.stderr, /refused.*duplicate\.so|duplicate\.so.*refused/s);
  assert.ok(!r.stdout.includes('listening'));

  const empty = folder('empty', []);
  const server = await startServer({ root, modules: empty });
  const taken = runTavo(['serve', '--root', root, '--listen', server.url.slice(7), '--modules', empty]);
  assert.equal(taken.status, 1, taken.stderr);
  assert.match(taken.stderr, /cannot listen/);
  await server.stop();
  assert.match(server.stderr(), /warning: no module found/);
});

test('tavo call answers 0 on success, 1 on an API error, 2 on a usage error', () => {
  const ok = runTavo(['call', '--root', root, 'TAVO.Core.Group', 'get', 'name=["staff"]']);
  assert.equal(ok.status, 0, ok.stderr);
  assert.equal(JSON.parse(ok.stdout).data.groups[0].gid, 1000);
  const created = runTavo(['call', 'TAVO.Core.Group', 'create', '--params', '{"name":"cli-made"}'],
    { TAVO_ROOT: root, USER: 'operator', SUDO_USER: '' });
  assert.equal(created.status, 0, created.stderr);
  const apiError = runTavo(['call', '--root', root, 'TAVO.Core.Group', 'create', 'name=staff']);
  assert.equal(apiError.status, 1);
  assert.deepEqual(JSON.parse(apiError.stdout), { success: false, error: { code: 3206 } });

  for (const args of [
    ['call', '--root', root, 'TAVO.Core.Group'],
    ['call', '--root', root, 'TAVO.Core.Group', 'nope'],
    ['call', '--root', root, 'TAVO.Nope', 'list'],
    ['call', '--root', root, 'TAVO.Core.Group', 'list', '--version', '2'],
    ['call', '--root', root, 'TAVO.Core.Group', 'list', '--params', '{bad'],
    ['call', '--root', root, 'TAVO.Core.Group', 'list', 'novalue'],
    ['call', 'TAVO.Core.Group', 'list'],  // no root at all
    ['serve'],
    ['log'],
  ]) {
    const r = runTavo(args);
    assert.equal(r.status, 2, `${args.join(' ')}: ${r.stderr}`);
    assert.ok(r.stderr.length > 0);
  }
  const log = runTavo(['log', '--root', root, '--limit', '1']);
  assert.equal(log.status, 0, log.stderr);
  assert.match(log.stdout, /operator\s+Group 'cli-made' was created/);
});

// `tavo call` for a module's API runs in the small program; the server's own
// APIs and every other command go to tavo-server.
test('tavo call reaches the server\'s own APIs too, and the program on the path loads no server library', () => {
  const log = runTavo(['call', '--root', root, 'TAVO.Core.EventLog', 'list', 'limit=1']);
  assert.equal(log.status, 0, log.stderr);
  assert.equal(JSON.parse(log.stdout).success, true);
  const help = runTavo(['--help']);
  assert.equal(help.status, 0, help.stderr);
  assert.match(help.stdout, /^usage: tavo COMMAND/);
  const libs = spawnSync('ldd', [TAVO_BIN], { encoding: 'utf8' });
  assert.equal(libs.status, 0, libs.stderr);
  assert.match(libs.stdout, /libtavo/);
  assert.doesNotMatch(libs.stdout, /libmicrohttpd|libgnutls|libldap|libsystemd/);
});

test('tavo init refuses an existing root and creates a plain one', () => {
  assert.equal(runTavo(['init', root, '--demo']).status, 2);
  const plain = join(tmp.dir, 'plain');
  const r = runTavo(['init', plain], { TAVO_ADMIN_PASSWORD: '' });
  assert.equal(r.status, 0, r.stderr);
  assert.match(r.stdout, /TAVO_ADMIN_PASSWORD/);
  assert.equal(readFileSync(join(plain, 'etc/group'), 'utf8').match(/^administrators:x:101:(.*)$/m)[1], '');
  assert.ok(!readFileSync(join(plain, 'etc/passwd'), 'utf8').includes('admin:'));
  assert.ok(existsSync(join(plain, 'etc/tavo/reload.d')));
  const generated = runTavo(['init', plain, '--demo', '--force'], { TAVO_ADMIN_PASSWORD: '' });
  assert.equal(generated.status, 0);
  assert.match(generated.stdout, /Log in as admin with password [A-Za-z0-9]{16} at http:\/\/127\.0\.0\.1:8780\//);
});

test('control characters from the event log reach the terminal escaped', () => {
  // delete logs each listed name that does not exist afterwards, as sent.
  const fake = '\u001b[2K\r2026-01-01T00:00:00Z  admin  Group \u2066\u202eevil\u2069 was created\nnext\u009b31m';
  const r = runTavo(['call', '--root', root, 'TAVO.Core.Group', 'delete', '--params', JSON.stringify({ name: [fake] })]);
  assert.equal(r.status, 0, r.stdout + r.stderr);
  const log = runTavo(['log', '--root', root, '--limit', '1']);
  assert.equal(log.status, 0, log.stderr);
  assert.doesNotMatch(log.stdout, /[\u0000-\u0009\u000b-\u001f\u007f-\u009f\u202a-\u202e\u2066-\u2069]/);
  assert.equal(log.stdout.split('\n').filter((l) => l.includes('\\u001B[2K\\u000D2026')).length, 1, log.stdout);
  assert.match(log.stdout, /\\u2066\\u202Eevil\\u2069 was created\\u000Anext\\u009B31m/);
  // The JSON form stays JSON and gives the text back exactly.
  const json = runTavo(['log', '--root', root, '--limit', '1', '--json']);
  assert.doesNotMatch(json.stdout, /[\u0000-\u0009\u000b-\u001f\u007f-\u009f\u202a-\u202e\u2066-\u2069]/);
  assert.ok(JSON.parse(json.stdout).entries[0].message.includes(fake));
});

test('names that could pass for another are refused; ones already in the files show what they hide', () => {
  const groupCall = (method, params) => {
    const r = runTavo(['call', '--root', root, 'TAVO.Core.Group', method, '--params', JSON.stringify(params)]);
    return { ...r, envelope: JSON.parse(r.stdout) };
  };
  assert.equal(groupCall('create', { name: 'caf\u00e9' }).envelope.success, true);
  assert.equal(groupCall('create', { name: 'alpha' }).envelope.success, true);
  for (const name of ['administrat\u03bfrs', 'r\u043e\u043et', 'administrators\u200b', '\u2066administrators\u2069',
    'admin\u00adistrators', 'users\u200d', 'sudo\u200b', 'caf\u00e9\u200b', 'aIpha', '\u0391DMINISTRATORS']) {
    const r = groupCall('create', { name });
    assert.equal(r.envelope.error?.code, 3211, `${JSON.stringify(name)}: ${r.stdout}`);
    assert.equal(groupCall('set', { name: 'caf\u00e9', new_name: name }).envelope.error?.code, 3211, JSON.stringify(name));
  }
  // The other spelling of café is the same name: it exists already.
  assert.equal(groupCall('create', { name: 'cafe\u0301' }).envelope.error?.code, 3206);
  // A new name is stored in its composed form.
  assert.equal(groupCall('create', { name: 'the\u0301' }).envelope.success, true);
  assert.match(readFileSync(join(root, 'etc/group'), 'utf8'), /^th\u00e9:x:/m);

  // Look-alikes written into the files by other tools stay listed and
  // manageable, and every invisible character shows as an escape.
  appendFileSync(join(root, 'etc/group'), 'sudo\u200b:x:1390:\nadmin\u00adistrators:x:1391:\n');
  appendFileSync(join(root, 'etc/gshadow'), 'sudo\u200b:!::\nadmin\u00adistrators:!::\n');
  const list = groupCall('list', { substr: 'sudo' });
  assert.match(list.stdout, /"sudo\\u200B"/);
  assert.doesNotMatch(list.stdout, /\u200b/);
  assert.equal(groupCall('set', { name: 'sudo\u200b', description: 'planted' }).envelope.success, true);
  assert.equal(groupCall('delete', { name: ['admin\u00adistrators'] }).envelope.success, true);
  const log = runTavo(['log', '--root', root, '--limit', '1']);
  assert.match(log.stdout, /admin\\u00ADistrators/);
  assert.doesNotMatch(log.stdout, /\u00ad/);
});
