// The recent-changes filters (group, user, account, dates) and their export,
// each checked against entries that this test makes: some with `tavo call`,
// one through the server as "admin". Calls without filters work as before.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { before, describe, test } from 'node:test';
import { call } from '../e2e/helpers.mjs';
import { login, screenshot, summary, tavoCall, waitForText, withAppliance } from './harness.mjs';

describe('recent changes filters', () => {
  const env = withAppliance();
  let page;
  let cliAccount;
  before(() => { ({ page } = env); });

  const shown = () => page.locator('table.events td[data-label=Change]').allTextContents();
  // Two filters in a row can match as many entries, so the summary alone does
  // not tell that the new answer is on screen: wait for the rows themselves.
  const expectShown = async (rows) => {
    let got;
    for (const end = Date.now() + 5000; Date.now() < end; await page.waitForTimeout(50)) {
      got = await shown();
      if (JSON.stringify(got) === JSON.stringify(rows)) return;
    }
    assert.deepEqual(got, rows);
  };
  const filter = async (values) => {
    for (const [label, value] of Object.entries(values)) await page.getByLabel(label, { exact: true }).fill(value);
    await page.getByRole('button', { name: 'Apply filters' }).click();
  };
  const localDay = (offsetDays) => {
    const d = new Date();
    d.setDate(d.getDate() + offsetDays);
    return `${d.getFullYear()}-${String(d.getMonth() + 1).padStart(2, '0')}-${String(d.getDate()).padStart(2, '0')}`;
  };

  test('entries made by the test are found by group, user, account and date', async () => {
    tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'alpha' });
    tavoCall(env.root, 'TAVO.Core.Group.Member', 'add', { group: 'alpha', name: ['alice', 'bob'] });
    tavoCall(env.root, 'TAVO.Core.Group', 'set', { name: 'alpha', new_name: 'beta' });
    tavoCall(env.root, 'TAVO.Core.Group.Member', 'add', { group: 'finance', name: 'alice' });
    assert.equal((await call(env.url, env.token, 'TAVO.Core.Group.Member', 'add', { group: 'beta', name: 'carol' })).success, true);
    const all = tavoCall(env.root, 'TAVO.Core.EventLog', 'list', { limit: -1 }).data;
    cliAccount = all.entries[1].account;
    assert.equal(all.entries[0].account, 'admin');
    assert.notEqual(cliAccount, 'admin');

    await login(page);
    await page.getByRole('link', { name: 'Recent changes' }).click();
    await waitForText(summary(page), `of ${all.total} changes`);

    await filter({ Group: 'ALPHA' });
    await waitForText(summary(page), 'of 4 changes');
    await expectShown(["Group 'alpha' was renamed to 'beta'.", "User 'bob' was added to group 'alpha'.",
      "User 'alice' was added to group 'alpha'.", "Group 'alpha' was created."]);
    await filter({ Group: 'beta' });
    await waitForText(summary(page), 'of 2 changes');
    await expectShown(["User 'carol' was added to group 'beta'.", "Group 'alpha' was renamed to 'beta'."]);

    await filter({ Group: '', User: 'alice' });
    await waitForText(summary(page), 'of 2 changes');
    await expectShown(["User 'alice' was added to group 'finance'.", "User 'alice' was added to group 'alpha'."]);
    await filter({ User: '', 'Changed by (account)': 'admin' });
    await waitForText(summary(page), 'of 1 change');
    await expectShown(["User 'carol' was added to group 'beta'."]);
    await filter({ 'Changed by (account)': cliAccount, User: 'bob' });
    await waitForText(summary(page), 'of 1 change');
    await expectShown(["User 'bob' was added to group 'alpha'."]);

    await filter({ 'Changed by (account)': '', User: '', From: localDay(1) });
    await waitForText(page.locator('table.events'), 'No recorded change matches the filters.');
    await filter({ From: localDay(0), To: localDay(0) });
    await waitForText(summary(page), `of ${all.total} changes`);
    await filter({ From: localDay(-2), To: localDay(-1) });
    await waitForText(page.locator('table.events'), 'No recorded change matches the filters.');
  });

  test('export saves what the filters let through; clearing them shows everything', async () => {
    await filter({ From: '', To: '', User: 'alice' });
    await waitForText(summary(page), 'of 2 changes');
    await screenshot(page, 'recent-changes-filtered');
    const [file] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', { name: 'Export' }).click()]);
    assert.equal(file.suggestedFilename(), 'recent-changes.csv');
    const lines = readFileSync(await file.path(), 'utf8').trimEnd().split('\r\n');
    assert.equal(lines[0], 'time,account,change');
    assert.equal(lines.length, 3);
    assert.match(lines[1], new RegExp(`^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ,${cliAccount},User 'alice' was added to group 'finance'\\.$`));

    await page.getByRole('button', { name: 'Clear filters' }).click();
    const total = tavoCall(env.root, 'TAVO.Core.EventLog', 'list', {}).data.total;
    await waitForText(summary(page), `of ${total} changes`);
    assert.equal(await page.getByLabel('User', { exact: true }).inputValue(), '');
  });

  test('the API refuses filters that are not strings of their form', async () => {
    for (const params of [{ since: 'yesterday' }, { until: '2026-02-30' }, { group: 5 }, { since: '2026-11-22T25:00:00Z' }]) {
      assert.equal(tavoCall(env.root, 'TAVO.Core.EventLog', 'list', params).error?.code, 3201, JSON.stringify(params));
    }
    const empty = tavoCall(env.root, 'TAVO.Core.EventLog', 'list', { group: '', since: '', limit: 0 }).data;
    assert.equal(empty.total, tavoCall(env.root, 'TAVO.Core.EventLog', 'list', { limit: 0 }).data.total);
    assert.deepEqual(env.pageErrors.map(String), []);
  });
});
