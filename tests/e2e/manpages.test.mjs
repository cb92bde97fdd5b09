// The manual pages list the same options as the program's --help.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { REPO, runTavo } from './helpers.mjs';

const COMMANDS = ['serve', 'call', 'init', 'log', 'directory', 'openapi', 'tls-cert'];

function helpOptions(command) {
  const r = runTavo([command, '--help']);
  assert.equal(r.status, 0, `${command} --help: ${r.stderr}`);
  return new Set(r.stdout.match(/--[a-z][a-z-]*/g));
}

const page = (name) => readFileSync(join(REPO, 'docs/man', name), 'utf8').replaceAll('\\-', '-');
const sorted = (set) => [...set].sort();

test('tavo(1) lists every option of every command, and no other', () => {
  const help = new Set(COMMANDS.flatMap((c) => [...helpOptions(c)]));
  assert.ok(help.size > 10);
  const documented = new Set(page('tavo.1').match(/--[a-z][a-z-]*/g));
  documented.delete('--help');
  assert.deepEqual(sorted(documented), sorted(help));
  // Each command of `tavo --help` has its section.
  const usage = runTavo(['--help']).stdout;
  for (const c of COMMANDS) {
    assert.match(usage, new RegExp(`^  ${c} `, 'm'));
    assert.match(page('tavo.1'), new RegExp(`^\\.B ${c}$`, 'm'));
  }
});

test('tavo.conf(5) describes a setting for each option of tavo serve', () => {
  const section = page('tavo.conf.5').split(/^\.SH /m).find((s) => s.startsWith('SERVE.CONF SETTINGS'));
  const settings = new Set([...section.matchAll(/^\.TP\n\.BR? (.+)$/gm)]
    .flatMap((m) => m[1].split(/[", ]+/).filter((w) => /^[a-z][a-z-]+$/.test(w)).map((w) => `--${w}`)));
  const options = helpOptions('serve');
  options.delete('--config');
  assert.deepEqual(sorted(settings), sorted(options));
});
