// The admin page against a real `tavo serve` on a demo root: login, the life
// of one group (create, rename, members in and out, delete), refusals, the
// directory kinds, recent changes, session expiry and the narrow layout.

import assert from 'node:assert/strict';
import { before, describe, test } from 'node:test';
import {
  ADMIN_PASSWORD, eventually, login, region, screenshot, summary, tavoCall, waitForText, withAppliance,
} from './harness.mjs';

describe('admin page', () => {
  const env = withAppliance();
  let page;
  before(() => { ({ page } = env); });

  const notice = () => page.locator('#notice');
  const dialog = () => page.getByRole('dialog');
  const groupRow = (name) => page.locator('table.groups tbody tr')
    .filter({ has: page.locator('.group-name', { hasText: new RegExp(`^${name}$`) }) });
  const memberNames = (group) =>
    tavoCall(env.root, 'TAVO.Core.Group.Member', 'list', { group }).data.users.map((u) => u.name).sort();
  // Opens the group dialog with `opener`, fills the labelled fields and presses `submit`.
  const groupDialog = async (opener, fields, submit) => {
    await page.getByRole('button', { name: opener }).click();
    for (const [label, value] of Object.entries(fields)) await dialog().getByLabel(label).fill(value);
    await dialog().getByRole('button', { name: submit }).click();
  };

  test('login refuses a wrong password, then lets the administrator in', async () => {
    await page.getByLabel('Account').waitFor();
    await screenshot(page, 'login');
    await page.getByLabel('Account').fill('admin');
    await page.getByLabel('Password').fill('not-the-password');
    await page.getByRole('button', { name: 'Log in' }).click();
    await waitForText(page.locator('form.login [role=alert]'), 'The account name or the password is wrong');
    await login(page, 'admin', ADMIN_PASSWORD);
    await waitForText(page.locator('#who'), 'admin');
    await groupRow('staff').waitFor();
    assert.equal(await groupRow('administrators').locator('.badge.admin').count(), 1);
    assert.equal(await groupRow('staff').locator('.badge.admin').count(), 0);
    await waitForText(summary(page), 'of 10 groups');
    await screenshot(page, 'groups-list');
  });

  test('a group is created, renamed, filled, emptied and deleted', async () => {
    await groupDialog('New group', { 'Group name': 'web-team', 'Description (optional)': 'Builds the web page' },
      'Create group');
    await waitForText(notice(), 'The group "web-team" was created.');
    await groupDialog('Edit group web-team', { 'Group name': 'web-crew', Description: 'Front-end crew' },
      'Save changes');
    await waitForText(notice(), 'The group "web-team" was renamed to "web-crew".');
    await waitForText(groupRow('web-crew'), 'Front-end crew');
    assert.equal(await groupRow('web-team').count(), 0);

    await page.getByRole('link', { name: 'Members of web-crew' }).click();
    const members = region(page, 'Members');
    const others = region(page, 'Not members');
    await waitForText(members, 'This group has no members.');
    await others.getByLabel('Select alice').check();
    await others.getByLabel('Select bob').check();
    await waitForText(others, '2 selected');
    await others.getByRole('button', { name: 'Add selected' }).click();
    await waitForText(notice(), 'Added to "web-crew": "alice", "bob".');
    await waitForText(summary(members), '1–2 of 2 members');
    assert.deepEqual(memberNames('web-crew'), ['alice', 'bob']);
    await screenshot(page, 'members-view');

    await members.getByLabel('Select bob').check();
    await members.getByRole('button', { name: 'Remove selected' }).click();
    await waitForText(notice(), 'Removed from "web-crew": "bob".');
    await waitForText(summary(members), '1–1 of 1 member (page 1 of 1)');
    assert.deepEqual(memberNames('web-crew'), ['alice']);

    await page.getByRole('link', { name: '‹ All groups' }).click();
    await page.getByLabel('Select group web-crew').check();
    await groupDialog('Delete selected', {}, 'Delete group');
    await waitForText(notice(), 'The group "web-crew" was deleted.');
    await eventually(async () => (await groupRow('web-crew').count()) === 0, 'the deleted row to go');
    assert.equal(tavoCall(env.root, 'TAVO.Core.Group', 'get', { name: 'web-crew' }).data.groups.length, 0);
  });

  test('refusals are explained and the dialog keeps focus management', async () => {
    const focused = (locator) => locator.evaluate((el) => el === document.activeElement);
    await groupDialog('New group', { 'Group name': 'STAFF' }, 'Create group');
    await waitForText(dialog().locator('[role=alert]'), 'a group with this name already exists');
    assert.equal(await focused(dialog().getByLabel('Group name')), true);
    await page.keyboard.press('Escape');
    await dialog().waitFor({ state: 'detached' });
    assert.equal(await focused(page.getByRole('button', { name: 'New group' })), true);

    await groupDialog('Edit group finance', { 'Group name': 'Users' }, 'Save changes');
    await waitForText(dialog().locator('[role=alert]'),
      'The name "users" and the names of system groups are reserved.');
    await dialog().getByRole('button', { name: 'Cancel' }).click();
    await dialog().waitFor({ state: 'detached' });

    // A built-in keeps its name, but its description can be changed.
    await page.getByRole('button', { name: 'Edit group users' }).click();
    assert.equal(await dialog().getByLabel('Group name').getAttribute('readonly'), '');
    await dialog().getByLabel('Description').fill('Every local user');
    await dialog().getByRole('button', { name: 'Save changes' }).click();
    await waitForText(notice(), 'The group "users" was saved.');
    await waitForText(groupRow('users'), 'Every local user');

    // Deleting a built-in next to an ordinary group: the one that remains is named.
    await page.getByLabel('Select group users').check();
    await page.getByLabel('Select group hr').check();
    await groupDialog('Delete selected', {}, 'Delete 2 groups');
    await waitForText(page.locator('#alert'), 'The group "users" was not deleted.');
    assert.match(await page.locator('#alert').textContent(), /The group "hr" was deleted\./);
    await eventually(async () => (await groupRow('hr').count()) === 0, 'hr to go');
    await groupRow('users').waitFor();
  });

  test('every control has a name that assistive technology can read', async () => {
    const unnamed = () => page.evaluate(() => {
      const nameOf = (el) => (el.getAttribute('aria-label') || (el.labels && Array.from(el.labels)
        .map((l) => l.textContent).join(' ')) || (el.tagName === 'BUTTON' || el.tagName === 'A' ? el.textContent : '')).trim();
      return Array.from(document.querySelectorAll('input, select, textarea, button, a[href]'))
        .filter((el) => el.getClientRects().length > 0 && nameOf(el) === '')
        .map((el) => el.outerHTML.slice(0, 80));
    });
    assert.deepEqual(await unnamed(), []);
    await page.getByRole('link', { name: 'Members of staff' }).click();
    await waitForText(region(page, 'Members'), 'alice');
    assert.deepEqual(await unnamed(), []);
    await page.getByRole('link', { name: '‹ All groups' }).click();
    await page.getByRole('button', { name: 'Edit group staff' }).click();
    assert.deepEqual(await unnamed(), []);
    await page.keyboard.press('Escape');
    await dialog().waitFor({ state: 'detached' });
  });

  test('directory kinds that are not set up are explained in place of the list', async () => {
    for (const [kind, text] of [['Windows domain groups', 'has not joined a Windows domain'],
      ['LDAP groups', 'not bound to an LDAP directory']]) {
      await page.locator('label', { hasText: kind }).click();
      await waitForText(page.locator('.unavailable'), text);
      assert.equal(await page.locator('table.groups').isVisible(), false);
    }
    await page.locator('label', { hasText: 'Local groups' }).click();
    await groupRow('staff').waitFor();
  });

  test('descriptions and names are shown as text, never as markup', async () => {
    const payload = '<img src=x onerror="window.__injected=1"><b>bold</b>';
    await groupDialog('New group', { 'Group name': 'quoted', 'Description (optional)': payload }, 'Create group');
    await waitForText(groupRow('quoted'), payload);
    assert.equal(await page.locator('table.groups img, table.groups b').count(), 0);
    assert.equal(await page.evaluate(() => window.__injected), undefined);
  });

  test('the search box filters the groups, and outlives a visit to a members view', async () => {
    const search = page.getByLabel('Search groups');
    await search.fill('IN');
    await waitForText(summary(page), 'of 4 groups');
    assert.deepEqual(await page.locator('table.groups .group-name').allTextContents(),
      ['administrators', 'engineering', 'finance', 'marketing']);
    await page.getByRole('link', { name: 'Members of finance' }).click();
    await page.getByRole('link', { name: '‹ All groups' }).click();
    assert.equal(await search.inputValue(), 'IN');
    await waitForText(summary(page), 'of 4 groups');
    await search.fill('no-such-group');
    await waitForText(page.locator('table.groups'), 'No group name contains "no-such-group".');
    await search.fill('');
    await waitForText(summary(page), 'of 10 groups');
  });

  test('recent changes lists the changes, newest first', async () => {
    await page.getByRole('link', { name: 'Recent changes' }).click();
    const rows = page.locator('table.events tbody tr');
    await waitForText(rows.first(), "Group 'quoted' was created.");
    const texts = await rows.allTextContents();
    const created = texts.findIndex((t) => t.includes("Group 'web-team' was created."));
    const deleted = texts.findIndex((t) => t.includes("Group 'web-crew' was deleted."));
    assert.ok(created > deleted && deleted > 0, `order of ${JSON.stringify(texts)}`);
    assert.match(texts[0], /admin/);
    await screenshot(page, 'recent-changes');
  });

  test('a reload keeps the session; an ended session returns to the login form', async () => {
    await page.reload();
    await page.getByRole('heading', { name: 'Recent changes' }).waitFor();
    // End the session behind the page's back, as an idle timeout would.
    await page.evaluate(() => fetch('/api/auth/logout', { method: 'POST', credentials: 'same-origin' }));
    await page.getByRole('link', { name: 'Groups', exact: true }).click();
    await waitForText(page.locator('form.login [role=alert]'), 'Your session has expired. Please log in again.');
    await login(page);
  });

  test('a narrow window stacks the layout without sideways scrolling', async () => {
    await page.setViewportSize({ width: 400, height: 800 });
    for (const [view, ready, shot] of [['groups', () => groupRow('staff').waitFor(), 'narrow-groups'],
      ['members/staff', () => waitForText(region(page, 'Members'), 'alice'), 'narrow-members']]) {
      await page.goto(`${env.server.url}/#/${view}`);
      await ready();
      const width = await page.evaluate(() => document.documentElement.scrollWidth);
      assert.ok(width <= 400, `${view} is ${width} px wide`);
      await screenshot(page, shot);
    }
    await page.setViewportSize({ width: 1280, height: 800 });
    assert.deepEqual(env.pageErrors.map(String), []);
  });
});
