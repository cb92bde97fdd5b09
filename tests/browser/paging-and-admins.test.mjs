// The admin page with larger data: a group of 120 members and 30 extra groups
// (paging, search, select-all, busy state), and a root whose only valid
// administrator is "ops" (the last-administrator refusal, read-only groups).

import assert from 'node:assert/strict';
import { mkdirSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { before, describe, test } from 'node:test';
import {
  addUsers, eventually, login, region, screenshot, setGroup, summary, tavoCall, waitForText, withAppliance,
} from './harness.mjs';

const crowd = Array.from({ length: 120 }, (_, i) => `user${String(i + 1).padStart(3, '0')}`);
const teams = Array.from({ length: 30 }, (_, i) => `team${String(i + 1).padStart(2, '0')}`);

// Every POST to /api whose envelope satisfies `predicate`, as the page sends them.
function listRequests(page, predicate) {
  const seen = [];
  page.on('request', (request) => {
    if (!request.url().endsWith('/api') || request.method() !== 'POST') return;
    const body = JSON.parse(request.postData() ?? '{}');
    if (predicate(body)) seen.push(body);
  });
  return seen;
}

describe('a large group and many groups', () => {
  const env = withAppliance((root) => {
    addUsers(root, crowd, { firstUid: 3000 });
    setGroup(root, 'crowd', crowd, 2000);
    teams.forEach((name, i) => setGroup(root, name, [], 2001 + i));
  });
  let page;
  before(() => { ({ page } = env); });

  test('groups are paged, selected page by page and deleted together', async () => {
    await login(page);
    const pager = summary(page);
    await waitForText(pager, '1–25 of 41 groups (page 1 of 2)');
    await page.getByLabel('Per page').selectOption('10');
    await waitForText(pager, '1–10 of 41 groups (page 1 of 5)');
    await page.getByLabel('Search groups').fill('team');
    await waitForText(pager, '1–10 of 30 groups (page 1 of 3)');
    await page.getByLabel('Select all groups on this page').check();
    await page.getByRole('button', { name: 'Next page of groups' }).click();
    await waitForText(pager, '11–20 of 30 groups (page 2 of 3)');
    await page.getByLabel('Select all groups on this page').check();
    await waitForText(page.locator('.selection-count'), '20 selected');
    await page.getByRole('button', { name: 'Delete selected' }).click();
    const dialog = page.getByRole('dialog');
    assert.equal(await dialog.locator('li').count(), 20);
    await dialog.getByRole('button', { name: 'Delete 20 groups' }).click();
    await waitForText(page.locator('#notice'), '20 groups were deleted.');
    // The second page no longer exists: the view moves back to the last one.
    await waitForText(pager, '1–10 of 10 groups (page 1 of 1)');
    assert.deepEqual(await page.locator('table.groups .group-name').allTextContents(), teams.slice(20));
    await page.getByLabel('Search groups').fill('');
  });

  test('members of a large group are paged and searched; typing is debounced', async () => {
    await page.goto(`${env.server.url}/#/members/crowd`);
    const members = region(page, 'Members');
    const pager = summary(members);
    const next = members.getByRole('button', { name: 'Next page of members' });
    await waitForText(pager, '1–25 of 120 members (page 1 of 5)');
    await next.click();
    await waitForText(pager, '26–50 of 120 members (page 2 of 5)');
    assert.equal(await members.locator('.user-name').first().textContent(), 'user026');
    await members.getByLabel('Per page').selectOption('100');
    await waitForText(pager, '1–100 of 120 members (page 1 of 2)');
    assert.equal(await members.locator('tbody tr').count(), 100);
    await next.click();
    await waitForText(pager, '101–120 of 120 members (page 2 of 2)');
    assert.equal(await members.locator('tbody tr').count(), 20);
    await waitForText(summary(region(page, 'Not members')), 'of 14 users');

    const lists = listRequests(page, (b) => b.method === 'list' && b.params.ingroup === true);
    await members.getByLabel('Search in "Members"').pressSequentially('USER11', { delay: 40 });
    await waitForText(pager, '1–10 of 10 members (page 1 of 1)');
    assert.deepEqual(await members.locator('.user-name').allTextContents(), crowd.slice(109, 119));
    // One request for six keystrokes (a second one is tolerated for a machine
    // that stalls between two keys); without the pause there would be six.
    assert.ok(lists.length <= 2, `list requests while typing: ${JSON.stringify(lists)}`);
    assert.deepEqual([lists.at(-1).params.substr, lists.at(-1).params.offset], ['USER11', 0]);
    await screenshot(page, 'large-group-search');
  });

  test('a slow change shows that it runs and cannot be started twice', async () => {
    const others = region(page, 'Not members');
    await page.route('**/api', async (route) => {
      const { method } = JSON.parse(route.request().postData() ?? '{}');
      if (method === 'add') await new Promise((r) => setTimeout(r, 1200));
      await route.continue();
    });
    await others.getByLabel('Select grace').check();
    const add = others.getByRole('button', { name: 'Add selected' });
    await add.click();
    await page.locator('#busy').waitFor({ state: 'visible' });
    assert.equal(await add.isDisabled(), true);
    await waitForText(page.locator('#notice'), 'Added to "crowd": "grace".');
    await page.locator('#busy').waitFor({ state: 'hidden' });
    await waitForText(summary(others), '1–13 of 13 users');
    await page.unroute('**/api');
    assert.deepEqual(env.pageErrors.map(String), []);
  });
});

describe('a root whose only valid administrator is ops, bound to LDAP, its domain list updating', () => {
  const env = withAppliance((root) => {
    addUsers(root, ['ops'], { firstUid: 4000, passwordLike: 'admin' });
    setGroup(root, 'administrators', ['ops'], 101);
    writeFileSync(path.join(root, 'etc/tavo/ldap'), 'example.com\n');
    mkdirSync(path.join(root, 'usr/tavo/etc/private'), { recursive: true });
    writeFileSync(path.join(root, 'usr/tavo/etc/private/ldap_group'),
      'devs@example.com:x:70001:alice\nops-team@example.com:x:70002:\n');
    writeFileSync(path.join(root, 'etc/tavo/domain'), 'CORP\n');
    // The module names the marker /tmp/domain_updating; it lives in the runtime folder.
    mkdirSync(path.join(root, 'run/tavo'), { recursive: true, mode: 0o700 });
    writeFileSync(path.join(root, 'run/tavo/domain_updating'), '');
    // A look-alike left in the files by another tool: a zero-width space after "sudo".
    setGroup(root, 'sudo\u200b', [], 1390);
  });
  let page;
  before(() => { ({ page } = env); });

  test('removing the last administrator is refused with an explanation', async () => {
    await login(page, 'ops');
    await page.getByRole('link', { name: 'Members of administrators' }).click();
    await waitForText(page.locator('.note'), 'the last valid administrator cannot be removed');
    const members = region(page, 'Members');
    await waitForText(summary(members), '1–1 of 1 member (page 1 of 1)');
    assert.equal(await members.locator('tr', { hasText: 'ops' }).locator('.badge.admin').count(), 1);
    await members.getByLabel('Select ops').check();
    await members.getByRole('button', { name: 'Remove selected' }).click();
    await waitForText(page.locator('#alert'), 'This would leave the appliance without a valid administrator');
    await waitForText(page.locator('#alert'), 'Not removed: "ops".');
    await screenshot(page, 'last-administrator');
    const answer = tavoCall(env.root, 'TAVO.Core.Group.Member', 'list', { group: 'administrators' });
    assert.deepEqual(answer.data.users.map((u) => u.name), ['ops']);
  });

  test('directory groups are listed read-only; an updating list is explained', async () => {
    await page.goto(`${env.server.url}/#/groups`);
    await page.locator('label', { hasText: 'LDAP groups' }).click();
    await waitForText(summary(page), '1–2 of 2 groups');
    assert.deepEqual(await page.locator('table.groups .group-name').allTextContents(),
      ['devs@example.com', 'ops-team@example.com']);
    await waitForText(page.locator('.note'), 'they cannot be changed');
    assert.equal(await page.locator('table.groups input[type=checkbox]:visible').count(), 0);
    assert.equal(await page.getByRole('button', { name: /New group|Delete selected|Edit group/ }).count(), 0);
    assert.equal(await page.getByRole('link', { name: /Members of/ }).count(), 0);
    await screenshot(page, 'ldap-groups');
    await page.locator('label', { hasText: 'Windows domain groups' }).click();
    await waitForText(page.locator('.unavailable'), 'is being updated or has not been copied');
    await page.locator('label', { hasText: 'Local groups' }).click();
  });

  test('a name that hides a character shows it', async () => {
    await page.goto(`${env.server.url}/#/groups`);
    await page.locator('label', { hasText: 'Local groups' }).click();
    const names = page.locator('table.groups .group-name');
    await eventually(async () => (await names.allTextContents()).includes('sudo⟨U+200B⟩'),
      'the look-alike with its hidden character shown');
    assert.ok(!(await names.allTextContents()).some((n) => n.includes('\u200b')));
  });

  test('"users" and directory groups are read-only before anything is tried', async () => {
    const requests = listRequests(page, (b) => ['add', 'remove', 'list'].includes(b.method));
    await page.goto(`${env.server.url}/#/members/users`);
    await waitForText(page.locator('.note'), 'Every local user is a member of "users"');
    await waitForText(summary(page), 'of 15 members');
    assert.equal(await page.locator('main input[type=checkbox]').count(), 0);
    assert.equal(await page.getByRole('button', { name: /Add selected|Remove selected/ }).count(), 0);

    await page.goto(`${env.server.url}/#/members/${encodeURIComponent('CORP\\staff')}`);
    await waitForText(page.locator('.note'), 'This is a directory group');
    await eventually(async () => (await page.locator('table').count()) === 0, 'no member tables');
    assert.deepEqual(requests.filter((b) => b.method !== 'list'), []);
    assert.ok(requests.every((b) => b.params.group === 'users'), JSON.stringify(requests));
  });
});
