// CSV export and import of groups and memberships: the preview of a mixed
// file with its refusals, applying it and its per-row result (also creations
// refused past the configured number of groups), the account
// files afterwards (grpck), a cancelled import of 5,000 rows that leaves whole
// batches only and then completes, and export followed by import of the
// export, which changes nothing.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { before, describe, test } from 'node:test';
import {
  addUsers, artifactsDir, eventually, login, screenshot, setGroup, tavoCall, waitForText, withAppliance,
} from './harness.mjs';

const bulkUsers = Array.from({ length: 500 }, (_, i) => `bulk${String(i + 1).padStart(3, '0')}`);
const bulkGroups = Array.from({ length: 10 }, (_, i) => `bulkgrp${String(i + 1).padStart(2, '0')}`);
const BATCH = 250; // the page's batch size (web/import-apply.js)

// The members of each group as the account files hold them.
function groupFile(root, file = 'group') {
  const out = new Map();
  for (const line of readFileSync(path.join(root, 'etc', file), 'utf8').split('\n')) {
    if (!line) continue;
    const f = line.split(':');
    out.set(f[0], f[3] ? f[3].split(',') : []);
  }
  return out;
}

function grpckClean(root) {
  const r = spawnSync('grpck', ['-r', '-R', root], { encoding: 'utf8' });
  assert.equal(r.status, 0, `grpck: ${r.stdout}${r.stderr}`);
}

describe('CSV export and import', () => {
  const env = withAppliance((root) => {
    addUsers(root, bulkUsers, { firstUid: 4000 });
    setGroup(root, 'projects', [], 2100);
    bulkGroups.forEach((name, i) => setGroup(root, name, [], 2200 + i));
  });
  let page;
  before(() => { ({ page } = env); });

  const summaryLine = () => page.locator('.import-summary');
  const rowOf = (line) => page.locator('table.import tbody tr').filter({
    has: page.locator('td[data-label=Line]', { hasText: new RegExp(`^${line}$`) }),
  });
  const chooseCsv = async (text, name = 'import.csv') => {
    await page.getByLabel('CSV file').setInputFiles({ name, mimeType: 'text/csv', buffer: Buffer.from(text) });
    await page.getByRole('button', { name: 'Preview' }).click();
  };
  const download = async (click) => {
    const [file] = await Promise.all([page.waitForEvent('download'), click()]);
    return { name: file.suggestedFilename(), text: readFileSync(await file.path(), 'utf8') };
  };
  const openImport = async () => {
    await page.goto(`${env.server.url}/#/groups`);
    await page.getByRole('link', { name: 'Import', exact: true }).click();
    await page.getByRole('heading', { name: 'Import from CSV' }).waitFor();
  };

  test('a mixed membership file is previewed row by row, applied, and the files agree', async () => {
    await login(page);
    await openImport();
    const csv = [
      'group,user',
      'projects,alice', // 2: add
      'projects,BOB', // 3: add, under the user's own spelling
      'projects,nobody', // 4: unknown user
      'users,alice', // 5: "users"
      'bad name,alice', // 6: invalid name
      'sudo,alice', // 7: a system group
      'administrators,guest', // 8: guest is never an administrator
      'staff,alice', // 9: already a member
      'projects,alice', // 10: repeats line 2
      'projects,EXAMPLE\\carol', // 11: a directory account
      '"projects","carol"', // 12: add (quoted cells)
      'projects', // 13: no user
    ].join('\r\n');
    await chooseCsv(csv);
    await waitForText(summaryLine(), '12 rows: 3 memberships to add, 2 left alone, 7 refused.');
    const expect = {
      2: 'Add', 3: 'Add', 12: 'Add',
      4: 'There is no local user of this name.',
      5: '"users" always holds every local user',
      6: 'Invalid group name.',
      7: 'There is no local group of this name.',
      8: 'can never be an administrator',
      9: 'Already a member.',
      10: 'Repeats line 2.',
      11: 'A directory account',
      13: 'The row needs a group and a user.',
    };
    for (const [line, text] of Object.entries(expect)) {
      assert.match(await rowOf(line).textContent(), new RegExp(text.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')), `line ${line}`);
    }
    await screenshot(page, 'import-preview');
    const before = groupFile(env.root);

    await page.getByRole('button', { name: 'Apply' }).click();
    await waitForText(page.locator('#notice'), 'Import finished: 3 rows done, 0 failed.');
    await screenshot(page, 'import-applied');
    const result = await download(() => page.getByRole('button', { name: 'Download result' }).click());
    assert.equal(result.name, 'import-result.csv');
    const lines = result.text.trimEnd().split('\r\n');
    assert.equal(lines[0], 'line,group,user,planned,result,reason');
    assert.equal(lines.length, 13);
    assert.equal(lines[2], '3,projects,bob,Add,done,');
    assert.match(lines[3], /^4,projects,nobody,Refused,nothing to do,There is no local user/);

    // Exactly the rows the preview promised changed, nothing else.
    const after = groupFile(env.root);
    assert.deepEqual(after.get('projects'), ['alice', 'bob', 'carol']);
    for (const [name, members] of before) if (name !== 'projects') assert.deepEqual(after.get(name), members, name);
    assert.deepEqual(groupFile(env.root, 'gshadow').get('projects'), ['alice', 'bob', 'carol']);
    grpckClean(env.root);
  });

  test('a file of new groups creates them with their descriptions', async () => {
    await openImport();
    await chooseCsv('group,description\nnight-shift,"Ops, the ""night"" shift"\nSTAFF,again\nbad:name,x\n12345,digits\n'
      + 'users,all\nnight-shift,twice\nday-shift,\'=1+1\n');
    await waitForText(summaryLine(), '7 rows: 2 groups to create, 3 left alone, 2 refused.');
    assert.match(await rowOf(4).textContent(), /holds a space, a control character or one of/);
    assert.match(await rowOf(5).textContent(), /only digits/);
    await page.getByRole('button', { name: 'Apply' }).click();
    await waitForText(page.locator('#notice'), 'Import finished: 2 rows done, 0 failed.');
    const got = tavoCall(env.root, 'TAVO.Core.Group', 'get', { name: ['night-shift', 'day-shift'] }).data.groups;
    assert.deepEqual(got.map((g) => [g.name, g.description]),
      [['night-shift', 'Ops, the "night" shift'], ['day-shift', '=1+1']]);
    grpckClean(env.root);

    // Past the configured number of groups, each refused creation says why.
    const conf = path.join(env.root, 'etc/tavo/tavo.conf');
    const total = tavoCall(env.root, 'TAVO.Core.Group', 'list', { limit: 0 }).data.total;
    writeFileSync(conf, `maxgroups = ${total + 1}\n`);
    try {
      await chooseCsv('group,description\nextra-1,\nextra-2,\nextra-3,\n');
      await waitForText(summaryLine(), '3 rows: 3 groups to create, 0 left alone, 0 refused.');
      assert.match(await page.locator('.import-preview').textContent(), /"maxgroups" setting/);
      await page.getByRole('button', { name: 'Apply' }).click();
      await waitForText(page.locator('#alert'), 'Import finished: 1 row done, 2 failed.');
      assert.match(await rowOf(3).textContent(), /failed — The appliance already has the largest number of groups it allows/);
      assert.equal(tavoCall(env.root, 'TAVO.Core.Group', 'list', { limit: 0 }).data.total, total + 1);
    } finally {
      writeFileSync(conf, 'maxgroups = 128\n');
    }
  });

  test('export, then import of the export, changes nothing; formulas are exported harmless', async () => {
    await page.goto(`${env.server.url}/#/groups`);
    const groups = await download(() => page.getByRole('button', { name: 'Export' }).click());
    assert.equal(groups.name, 'groups.csv');
    const rows = groups.text.trimEnd().split('\r\n');
    assert.equal(rows[0], 'group,description,gid');
    assert.ok(rows.includes('night-shift,"Ops, the ""night"" shift",' + tavoCall(env.root, 'TAVO.Core.Group', 'get',
      { name: 'night-shift' }).data.groups[0].gid), rows.join('\n'));
    assert.ok(rows.some((r) => r.startsWith("day-shift,'=1+1,")), 'the formula cell is guarded');
    const total = tavoCall(env.root, 'TAVO.Core.Group', 'list', { limit: -1 }).data.total;
    assert.equal(rows.length, total + 1);

    await page.getByRole('link', { name: 'Members of projects' }).click();
    const members = await download(() => page.getByRole('button', { name: 'Export' }).click());
    assert.equal(members.text, 'group,user\r\nprojects,alice\r\nprojects,bob\r\nprojects,carol\r\n');

    const files = ['group', 'gshadow', 'tavo/group_desc'].map((f) => readFileSync(path.join(env.root, 'etc', f), 'utf8'));
    await openImport();
    await chooseCsv(groups.text, 'groups.csv');
    await waitForText(summaryLine(), `${total} rows: 0 groups to create, ${total} left alone, 0 refused.`);
    assert.equal(await page.getByRole('button', { name: 'Apply' }).isDisabled(), true);
    await chooseCsv(members.text, 'members.csv');
    await waitForText(summaryLine(), '3 rows: 0 memberships to add, 3 left alone, 0 refused.');
    assert.equal(await page.getByRole('button', { name: 'Apply' }).isDisabled(), true);
    assert.deepEqual(['group', 'gshadow', 'tavo/group_desc'].map((f) => readFileSync(path.join(env.root, 'etc', f), 'utf8')),
      files);
  });

  test('5,000 rows: a cancelled import leaves whole batches only, and a second run completes it', async () => {
    const csv = ['group,user', ...bulkGroups.flatMap((g) => bulkUsers.map((u) => `${g},${u}`))].join('\n');
    await openImport();
    await chooseCsv(csv, 'bulk.csv');
    await waitForText(summaryLine(), '5000 rows: 5000 memberships to add, 0 left alone, 0 refused.');
    assert.match(await page.locator('.import-preview').textContent(), /The first 500 of 5000 rows are shown/);

    // Each batch is slowed down so that the cancellation lands halfway.
    await page.route('**/api', async (route) => {
      if (route.request().postData()?.includes('"method":"add"')) await new Promise((r) => setTimeout(r, 150));
      await route.continue();
    });
    await page.getByRole('button', { name: 'Apply' }).click();
    const progress = page.getByRole('progressbar', { name: 'Import progress' });
    await eventually(async () => Number(await progress.getAttribute('value')) >= 3, 'three batches');
    await page.screenshot({ path: path.join(artifactsDir, 'import-progress.png') }); // the window only
    await page.getByRole('button', { name: 'Cancel import' }).click();
    await waitForText(page.locator('#notice'), 'Import cancelled');
    await page.unroute('**/api');
    const result = await download(() => page.getByRole('button', { name: 'Download result' }).click());
    const done = result.text.trimEnd().split('\r\n').slice(1).map((l) => l.split(','))
      .filter((f) => f[4] === 'done').map((f) => `${f[1]},${f[2]}`);
    assert.ok(done.length >= 3 * BATCH && done.length < 5000 && done.length % BATCH === 0, `${done.length} done`);
    const files = groupFile(env.root);
    const inFiles = bulkGroups.flatMap((g) => files.get(g).map((u) => `${g},${u}`));
    assert.deepEqual(inFiles.sort(), done.sort());
    grpckClean(env.root);

    // The same file again: what was done is left alone, the rest is added.
    await chooseCsv(csv, 'bulk.csv');
    await waitForText(summaryLine(), `5000 rows: ${5000 - done.length} memberships to add, ${done.length} left alone, 0 refused.`);
    await page.getByRole('button', { name: 'Apply' }).click();
    await waitForText(page.locator('#notice'), `Import finished: ${5000 - done.length} rows done, 0 failed.`, 60000);
    const full = groupFile(env.root);
    for (const g of bulkGroups) assert.deepEqual(full.get(g), bulkUsers, g);
    grpckClean(env.root);
    assert.deepEqual(env.pageErrors.map(String), []);
  });
});
