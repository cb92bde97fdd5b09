// Live updates: two administrators in two browser contexts, and the console
// (tavo call, groupadd -P, gpasswd -Q), see one another's changes without a
// click; an open dialog survives the refresh and explains a rename or a
// deletion underneath it; the stream refuses the cookie alone and other sites.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import http from 'node:http';
import { before, describe, test } from 'node:test';
import {
  ADMIN_PASSWORD, addUsers, eventually, login, region, screenshot, setGroup, tavoCall, waitForText,
  withAppliance,
} from './harness.mjs';

const asRoot = process.getuid() === 0;
const SOON = 4000; // "within a couple of seconds", with room for a loaded machine

describe('live updates', () => {
  const env = withAppliance((root) => {
    addUsers(root, ['ops'], { firstUid: 4000, passwordLike: 'admin' });
    setGroup(root, 'administrators', ['admin', 'ops'], 101);
  });
  let a;
  let b;
  before(async () => {
    a = env.page;
    b = await (await env.browser.newContext({ viewport: { width: 1280, height: 800 } })).newPage();
    await b.goto(`${env.url}/`);
    await login(a, 'admin', ADMIN_PASSWORD);
    await login(b, 'ops', ADMIN_PASSWORD);
    for (const p of [a, b]) await p.locator('body[data-live="on"]').waitFor();
  });

  const row = (page, name) => page.locator('table.groups tbody tr')
    .filter({ has: page.locator('.group-name', { hasText: new RegExp(`^${name}$`) }) });
  const tool = (cmd, args) => {
    const r = spawnSync(cmd, args, { encoding: 'utf8' });
    assert.equal(r.status, 0, `${cmd}: ${r.stderr}`);
  };

  test('each administrator and the console see the others\' changes without a click', async () => {
    // B searches first: the refresh keeps the search.
    await b.getByLabel('Search groups').fill('live');
    await b.getByLabel('Search groups').press('Enter');
    await a.getByRole('button', { name: 'New group' }).click();
    await a.getByRole('dialog').getByLabel('Group name').fill('live-one');
    await a.getByRole('dialog').getByRole('button', { name: 'Create group' }).click();
    await row(b, 'live-one').waitFor({ timeout: SOON });
    await waitForText(b.locator('#live-cue'), 'Updated', SOON);
    assert.equal(await b.getByLabel('Search groups').inputValue(), 'live');
    assert.equal(await row(b, 'staff').count(), 0, 'the search still filters');

    // B has selected live-one with the keyboard: the refresh keeps the
    // selection and the focus.
    await b.getByLabel('Select group live-one').focus();
    await b.keyboard.press('Space');
    tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'live-cli', description: 'from the console' });
    await row(a, 'live-cli').waitFor({ timeout: SOON });
    await row(b, 'live-cli').waitFor({ timeout: SOON });
    assert.equal(await b.getByLabel('Select group live-one').isChecked(), true);
    await waitForText(b.locator('.selection-count'), '1 selected');
    assert.equal(await b.evaluate(() => document.activeElement.getAttribute('aria-label')), 'Select group live-one');

    if (asRoot) {
      tool('groupadd', ['-P', env.root, 'live-tool']);
      await row(b, 'live-tool').waitFor({ timeout: SOON });
    }
    // A looks at the members of live-one while the console adds one, then
    // renames the group: the view says so rather than follow it.
    await a.getByRole('link', { name: 'Members of live-one' }).click();
    await waitForText(region(a, 'Members'), 'This group has no members.');
    if (asRoot) {
      tool('gpasswd', ['-Q', env.root, '-a', 'alice', 'live-one']);
      await region(a, 'Members').getByLabel('Select alice').waitFor({ timeout: SOON });
    }
    tavoCall(env.root, 'TAVO.Core.Group', 'set', { name: 'live-one', new_name: 'live-first' });
    await waitForText(a.locator('.conflict'), 'Someone else renamed the group "live-one" to "live-first"', SOON);
    await a.getByRole('link', { name: 'Show the members of "live-first"' }).click();
    await a.getByRole('heading', { name: 'Members of live-first' }).waitFor();
    await screenshot(b, 'live-updated');
  });

  test('an open dialog survives a refresh and explains a rename and a deletion underneath it', async () => {
    await b.getByRole('button', { name: 'Edit group live-cli' }).click();
    const dialog = b.getByRole('dialog');
    await dialog.getByLabel('Description').fill('typed by ops');
    // A renames the group while B's dialog is open.
    tavoCall(env.root, 'TAVO.Core.Group', 'set', { name: 'live-cli', new_name: 'live-renamed' });
    await waitForText(dialog, 'Someone else renamed the group "live-cli" to "live-renamed"', SOON);
    await row(b, 'live-renamed').waitFor({ timeout: SOON });
    assert.equal(await dialog.getByLabel('Description').inputValue(), 'typed by ops');
    assert.equal(await dialog.getByLabel('Group name').inputValue(), 'live-renamed');
    await screenshot(b, 'live-dialog-conflict');
    await dialog.getByRole('button', { name: 'Save changes' }).click();
    await waitForText(b.locator('#notice'), 'The group "live-renamed" was saved.');
    const saved = tavoCall(env.root, 'TAVO.Core.Group', 'get', { name: 'live-renamed' }).data.groups[0];
    assert.equal(saved.description, 'typed by ops');

    await b.getByRole('button', { name: 'Edit group live-first' }).click();
    tavoCall(env.root, 'TAVO.Core.Group', 'delete', { name: ['live-first'] });
    await waitForText(dialog, 'Someone else deleted the group "live-first"', SOON);
    assert.equal(await dialog.getByRole('button', { name: 'Save changes' }).isDisabled(), true);
    await b.keyboard.press('Escape');
    await dialog.waitFor({ state: 'detached' });
    await row(b, 'live-first').waitFor({ state: 'detached', timeout: SOON });
  });

  test('the stream refuses a logged-in browser\'s cookie alone, and requests from another site', async () => {
    const sameSite = await b.evaluate(async () => {
      const status = (await fetch('/api/live', { credentials: 'include' })).status;
      const source = new EventSource('/api/live');
      const state = await new Promise((resolve) => {
        source.onerror = () => resolve(source.readyState);
        source.onmessage = () => resolve('message');
      });
      source.close();
      return { status, state };
    });
    assert.deepEqual(sameSite, { status: 401, state: 2 }); // EventSource.CLOSED
    // A page of another site, in the browser that holds the session cookie.
    const site = http.createServer((req, res) => res.end('<!doctype html><title>another site</title>'));
    await new Promise((resolve) => site.listen(0, '127.0.0.1', resolve));
    try {
      const other = await b.context().newPage();
      await other.goto(`http://localhost:${site.address().port}/`);
      await other.evaluate(async (url) => {
        await fetch(url, { mode: 'no-cors', credentials: 'include' }).catch(() => {});
      }, `${env.url}/api/live`);
      const log = await env.server.stderrMatch(/"GET \/api\/live" 403/);
      assert.match(log, /"GET \/api\/live" 403/);
      await other.close();
    } finally {
      site.close();
    }
    // The page itself still has its stream.
    assert.equal(await b.locator('body').getAttribute('data-live'), 'on');
  });

  test('a stream that cannot be opened is tried again, less and less often, until it opens', async () => {
    const page = await (await env.browser.newContext()).newPage();
    const tries = [];
    await page.route('**/api/live', (route) => {
      tries.push(Date.now());
      return route.abort('connectionreset');
    });
    await page.goto(`${env.url}/`);
    await login(page, 'ops', ADMIN_PASSWORD);
    while (tries.length < 3) await new Promise((r) => setTimeout(r, 50));
    await page.unrouteAll();
    await page.locator('body[data-live="on"]').waitFor({ timeout: 10000 });
    const gaps = [tries[1] - tries[0], tries[2] - tries[1]];
    assert.ok(gaps[0] >= 900 && gaps[1] >= 1.5 * gaps[0], `gaps between tries: ${gaps} ms`);
    await page.context().close();
  });

  test('a stream that drops after it opened is opened again, and changes come through the new one', async () => {
    const page = await (await env.browser.newContext()).newPage();
    let opened = 0;
    await page.route('**/api/live', (route) => {
      opened += 1;
      // The first stream says it is ready and then ends, as when the
      // connection drops; the next ones reach the server.
      if (opened > 1) return route.continue();
      return route.fulfill({ status: 200, contentType: 'text/event-stream', body: 'event: ready\ndata: {}\n\n' });
    });
    await page.goto(`${env.url}/`);
    await login(page, 'ops', ADMIN_PASSWORD);
    await eventually(async () => opened >= 2 && (await page.locator('body').getAttribute('data-live')) === 'on',
      'the stream opened again');
    tavoCall(env.root, 'TAVO.Core.Group', 'create', { name: 'after-drop' });
    await row(page, 'after-drop').waitFor({ timeout: SOON });
    await page.context().close();
  });

  test('a logout ends the stream', async () => {
    await a.getByRole('button', { name: 'Log out' }).click();
    await a.locator('body[data-live="off"]').waitFor();
    await env.server.stderrMatch(/admin "GET \/api\/live" 200/);
    assert.equal(await b.locator('body').getAttribute('data-live'), 'on');
  });
});
