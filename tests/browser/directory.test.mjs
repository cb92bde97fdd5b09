// The directory status beside the LDAP and Windows-domain lists, and
// "Synchronise now" against a directory whose only server is down: the
// failure is shown and the groups of the last good sync keep being listed.

import assert from 'node:assert/strict';
import { appendFileSync, mkdirSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { before, describe, test } from 'node:test';
import { login, region, waitForText, withAppliance } from './harness.mjs';

describe('directory status', () => {
  const env = withAppliance((root) => {
    const put = (rel, text, mode = 0o644) => {
      mkdirSync(path.dirname(path.join(root, rel)), { recursive: true });
      writeFileSync(path.join(root, rel), text, { mode });
    };
    // No periodic sync: only the button syncs.
    appendFileSync(path.join(root, 'etc/tavo/tavo.conf'), 'directory_sync_interval = 0\n');
    put('etc/tavo/ldap', 'example.com\nuri = ldap://127.0.0.1:1\nbase = dc=example,dc=com\n');
    put('usr/tavo/etc/private/ldap_group', 'alpha@example.com:x:5001:\nbeta@example.com:x:5002:\n');
    put('var/lib/tavo/directory/ldap.status',
      'server = ldap://127.0.0.1:1\nlast_sync = 1790000000\ngroups = 2\nskipped = 0\nduration_ms = 42\n');
  });
  let page;
  before(() => { ({ page } = env); });

  test('shows the binding, syncs on demand and keeps the old list when it fails', async () => {
    await login(page);
    await page.locator('label', { hasText: 'LDAP groups' }).click();
    const panel = region(page, 'Directory status');
    await waitForText(panel, 'Bound to LDAP directory example.com');
    await waitForText(panel, '2 groups in 42 ms');
    await waitForText(page.locator('table.groups'), 'beta@example.com');

    await panel.getByRole('button', { name: 'Synchronise now' }).click();
    await waitForText(panel, 'Synchronisation failed: no server answered');
    await waitForText(panel.locator('dl'), 'Last error');
    assert.deepEqual(await page.locator('table.groups .group-name').allTextContents(),
      ['alpha@example.com', 'beta@example.com']);

    await page.locator('label', { hasText: 'Windows domain groups' }).click();
    await waitForText(panel, 'not joined to a Windows domain');
    assert.equal(await panel.getByRole('button', { name: 'Synchronise now' }).isVisible(), false);
    await page.locator('label', { hasText: 'Local groups' }).click();
    assert.equal(await panel.isVisible(), false);
    assert.deepEqual(env.pageErrors, []);
  });
});
