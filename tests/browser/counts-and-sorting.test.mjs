// Member counts ("7 members, 1 administrator") follow changes; sorting by a
// column reorders only the page on screen and sends nothing to the appliance.

import assert from 'node:assert/strict';
import { before, describe, test } from 'node:test';
import { login, region, setGroup, summary, waitForText, withAppliance } from './harness.mjs';

describe('member counts and sorting', () => {
  const env = withAppliance((root) => {
    setGroup(root, 'staff', ['alice', 'bob', 'carol', 'dave', 'erin', 'frank', 'admin'], 1000);
    setGroup(root, 'zeta-team', [], 2000);
  });
  let page;
  let apiCalls = 0;
  before(() => {
    ({ page } = env);
    page.on('request', (r) => { if (r.url().endsWith('/api')) apiCalls += 1; });
  });

  const names = () => page.locator('table.groups .group-name').allTextContents();
  const sortBy = (scope, label) => scope.getByRole('button', { name: label, exact: true }).click();

  test('the members view counts members and administrators, and counts again after a change', async () => {
    await login(page);
    await page.getByRole('link', { name: 'Members of staff' }).click();
    const counts = page.locator('.member-counts');
    await waitForText(counts, '7 members, 1 administrator');
    const others = region(page, 'Not members');
    await others.getByLabel('Select grace').check();
    await others.getByRole('button', { name: 'Add selected' }).click();
    await waitForText(counts, '8 members, 1 administrator');
    await page.goto(`${env.server.url}/#/members/administrators`);
    await waitForText(counts, '1 member, 1 administrator');
  });

  test('sorting reorders the page on screen only, without asking the appliance', async () => {
    await page.goto(`${env.server.url}/#/groups`);
    await page.getByLabel('Per page').selectOption('10');
    await waitForText(summary(page), '1–10 of 11 groups');
    const serverOrder = await names();
    const gidHeader = page.locator('table.groups th', { hasText: 'GID' });
    const before = apiCalls;

    await sortBy(page.locator('table.groups'), 'GID');
    assert.equal(await gidHeader.getAttribute('aria-sort'), 'ascending');
    const gids = (await page.locator('table.groups td[data-label=GID]').allTextContents()).map(Number);
    assert.deepEqual(gids, [...gids].sort((a, b) => a - b));
    await sortBy(page.locator('table.groups'), 'GID');
    assert.equal(await gidHeader.getAttribute('aria-sort'), 'descending');
    const reversed = (await page.locator('table.groups td[data-label=GID]').allTextContents()).map(Number);
    assert.deepEqual(reversed, [...gids].reverse());
    await sortBy(page.locator('table.groups'), 'Description');
    const descriptions = await page.locator('table.groups td[data-label=Description]').allTextContents();
    assert.deepEqual(descriptions, [...descriptions].sort((a, b) => a.localeCompare(b, undefined, { sensitivity: 'base' })));
    assert.equal(await gidHeader.getAttribute('aria-sort'), 'none');
    await sortBy(page.locator('table.groups'), 'Description');
    await sortBy(page.locator('table.groups'), 'Description');
    assert.deepEqual(await names(), serverOrder, 'the third press brings back the appliance\'s order');
    assert.equal(apiCalls, before, 'sorting sent no request');

    // Only the page on screen is sorted: "zeta-team" is on the next page and
    // stays there, and the members' panel sorts its own page the same way.
    await sortBy(page.locator('table.groups'), 'Name');
    await sortBy(page.locator('table.groups'), 'Name');
    const down = await names();
    assert.equal(down[0], 'users');
    assert.deepEqual(down, [...serverOrder].sort().reverse());
    await page.getByRole('button', { name: 'Next page of groups' }).click();
    await waitForText(summary(page), '11–11 of 11 groups');
    assert.deepEqual(await names(), ['zeta-team']);

    await page.goto(`${env.server.url}/#/members/staff`);
    const members = region(page, 'Members');
    await waitForText(summary(members), '1–8 of 8 members');
    await sortBy(members, 'UID');
    await sortBy(members, 'UID');
    const uids = (await members.locator('td[data-label=UID]').allTextContents()).map(Number);
    assert.deepEqual(uids, [...uids].sort((a, b) => b - a));
  });
});
