// The Export buttons: the local groups (name, description, GID), or the
// members of one group, as a CSV file that the import view reads back.

import { call } from './api.js';
import { saveFile, toCsv } from './csv.js';
import { report } from './status.js';

export async function exportGroups() {
  try {
    const data = await call('TAVO.Core.Group', 'list', { type: 'local', name_only: false, limit: -1 });
    const rows = (data.groups ?? []).map((g) => [g.name, g.description ?? '', g.gid ?? '']);
    saveFile('groups.csv', toCsv([['group', 'description', 'gid'], ...rows]));
  } catch (err) {
    report(err, 'groups');
  }
}

export async function exportMembers(group) {
  try {
    const data = await call('TAVO.Core.Group.Member', 'list', { group, ingroup: true, limit: -1 });
    const rows = (data.users ?? []).map((u) => [group, u.name]);
    saveFile(`members-${group}.csv`, toCsv([['group', 'user'], ...rows]));
  } catch (err) {
    report(err, 'members');
  }
}
