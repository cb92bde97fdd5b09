// Accessibility of the admin page: axe-core scans every view (light and dark
// colour scheme), and one walk with the keyboard alone logs in, creates a
// group, adds two members, removes one and logs out. Also the shortcuts and
// the dialogs' focus handling.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { before, describe, test } from 'node:test';
import {
  ADMIN_PASSWORD, login, region, screenshot, tavoCall, waitForText, withAppliance,
} from './harness.mjs';

const axeSource = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

// Runs axe-core on the page as it is; fails with every violation's rule and targets.
async function axeClean(page, what) {
  if (!(await page.evaluate(() => typeof window.axe === 'object'))) await page.evaluate(axeSource);
  const violations = await page.evaluate(async () => (await window.axe.run(document)).violations
    .map((v) => `${v.id}: ${v.nodes.map((n) => n.target.join(' ')).join(' | ')}`));
  assert.deepEqual(violations, [], `axe on ${what}`);
}

describe('accessibility', () => {
  const env = withAppliance();
  let page;
  before(() => { ({ page } = env); });

  const focused = () => page.evaluate(() => {
    const el = document.activeElement;
    return `${el.tagName.toLowerCase()}|${el.getAttribute('aria-label') || el.labels?.[0]?.textContent || el.textContent}`.trim();
  });
  // Presses Tab until the focused element's "tag|name" matches `re`.
  const tabTo = async (re, max = 60) => {
    for (let i = 0; i < max; i += 1) {
      if (re.test(await focused())) return;
      await page.keyboard.press('Tab');
    }
    throw new Error(`Tab never reached ${re} (at ${await focused()})`);
  };

  test('a keyboard-only walk: log in, create a group, add two members, remove one, log out', async () => {
    await page.getByLabel('Account').waitFor();
    await tabTo(/^input\|Account/);
    await page.keyboard.type('admin');
    await page.keyboard.press('Tab');
    await page.keyboard.type(ADMIN_PASSWORD);
    await page.keyboard.press('Enter');
    await page.getByRole('heading', { name: 'Groups', level: 1 }).waitFor();
    await waitForText(page.locator('table.groups'), 'staff');

    await tabTo(/^button\|New group/);
    await page.keyboard.press('Enter');
    assert.match(await focused(), /^input\|Group name/);
    await page.keyboard.type('keyboard-team');
    await page.keyboard.press('Tab');
    await page.keyboard.type('Made without a mouse');
    await page.keyboard.press('Enter');
    await waitForText(page.locator('#notice'), 'The group "keyboard-team" was created.');
    await page.getByRole('dialog').waitFor({ state: 'detached' });
    assert.match(await focused(), /^button\|New group/, 'the focus returns to the opener');

    await tabTo(/^a\|Members of keyboard-team/, 120);
    await page.keyboard.press('Enter');
    const others = region(page, 'Not members');
    await waitForText(others, 'alice');
    for (const name of ['alice', 'bob']) {
      await tabTo(new RegExp(`^input\\|Select ${name}$`));
      await page.keyboard.press('Space');
    }
    await tabTo(/^button\|Add selected/);
    await page.keyboard.press('Enter');
    await waitForText(page.locator('#notice'), 'Added to "keyboard-team": "alice", "bob".');
    await waitForText(page.locator('.member-counts'), '2 members, 0 administrators');

    await tabTo(/^input\|Select bob$/, 150); // on past the end of the page, round to the members
    await page.keyboard.press('Space');
    await tabTo(/^button\|Remove selected/);
    await page.keyboard.press('Enter');
    await waitForText(page.locator('#notice'), 'Removed from "keyboard-team": "bob".');
    const members = tavoCall(env.root, 'TAVO.Core.Group.Member', 'list', { group: 'keyboard-team' }).data.users;
    assert.deepEqual(members.map((u) => u.name), ['alice']);

    await tabTo(/^button\|Log out/, 120);
    await page.keyboard.press('Enter');
    await waitForText(page.locator('form.login'), 'You have logged out.');
  });

  test('shortcuts: / goes to the search box, ? lists the shortcuts, Escape closes and returns the focus', async () => {
    await page.goto(`${env.server.url}/#/groups`);
    await login(page);
    await waitForText(page.locator('table.groups'), 'staff');
    await page.locator('h1').focus();
    await page.keyboard.press('/');
    assert.match(await focused(), /^input\|Search groups/);
    await page.keyboard.type('fin');
    assert.equal(await page.getByLabel('Search groups').inputValue(), 'fin', 'a / typed in a field stays there');
    await page.getByLabel('Search groups').fill('');
    await page.getByRole('button', { name: 'Keyboard shortcuts' }).focus();
    await page.keyboard.press('?');
    const dialog = page.getByRole('dialog', { name: 'Keyboard shortcuts' });
    await waitForText(dialog, 'Go to the search box of the view');
    await axeClean(page, 'the shortcuts dialog');
    // The focus stays inside the open dialog.
    for (let i = 0; i < 4; i += 1) {
      await page.keyboard.press('Tab');
      assert.equal(await page.evaluate(() => !!document.activeElement.closest('dialog')), true);
    }
    await page.keyboard.press('Escape');
    await dialog.waitFor({ state: 'detached' });
    assert.match(await focused(), /^button\|Keyboard shortcuts/);
  });

  for (const scheme of ['light', 'dark']) {
    test(`axe finds no violation in any view (${scheme})`, async () => {
      await page.emulateMedia({ colorScheme: scheme, reducedMotion: 'reduce' });
      const url = env.server.url;
      await page.goto(`${url}/#/groups`);
      await waitForText(page.locator('table.groups'), 'staff');
      await axeClean(page, 'groups');
      await screenshot(page, `groups-${scheme}`);
      for (const kind of ['Windows domain groups', 'LDAP groups']) {
        await page.locator('label', { hasText: kind }).click();
        await page.locator('.unavailable').waitFor();
        await axeClean(page, kind);
      }
      await page.locator('label', { hasText: 'Local groups' }).click();
      await page.goto(`${url}/#/members/staff`);
      await waitForText(region(page, 'Members'), 'alice');
      await waitForText(page.locator('.member-counts'), 'members');
      await axeClean(page, 'members');
      await screenshot(page, `members-${scheme}`);
      await page.goto(`${url}/#/events`);
      await waitForText(page.locator('table.events'), 'keyboard-team');
      await axeClean(page, 'recent changes');
      await page.goto(`${url}/#/import`);
      await page.getByLabel('CSV file').setInputFiles({
        name: 'a.csv', mimeType: 'text/csv', buffer: Buffer.from('group,user\nstaff,alice\nfinance,nobody\nhr,bob\n'),
      });
      await page.getByRole('button', { name: 'Preview' }).click();
      await waitForText(page.locator('.import-summary'), '3 rows');
      await axeClean(page, 'import preview');
      await page.goto(`${url}/#/groups`);
      await page.getByRole('button', { name: 'New group' }).click();
      await axeClean(page, 'the new-group dialog');
      await page.keyboard.press('Escape');
    });
  }

  test('the login form passes axe too', async () => {
    await page.emulateMedia({ colorScheme: 'light' });
    await page.getByRole('button', { name: 'Log out' }).click();
    await page.getByLabel('Account').waitFor();
    await axeClean(page, 'login');
    await page.emulateMedia({ colorScheme: 'dark' });
    await axeClean(page, 'login (dark)');
    await screenshot(page, 'login-dark');
    assert.deepEqual(env.pageErrors.map(String), []);
  });
});
