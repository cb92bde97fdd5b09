// The import view (#/import): a CSV file of memberships or of new groups is
// read, previewed row by row against what the appliance holds now, and then
// applied in batches with a progress bar that can be cancelled between
// batches. The per-row result can be downloaded as CSV.

import { call } from './api.js';
import { h, replaceChildren, td, th, uid } from './dom.js';
import { parseCsv, saveFile, toCsv } from './csv.js';
import { KINDS, planImport } from './import-plan.js';
import { makeBatches, runBatches } from './import-apply.js';
import { report, showError, showNotice } from './status.js';

// Rows shown in the table; the downloads always hold every row.
const SHOWN_ROWS = 500;

const ACTION_TEXT = {
  create: 'Create', add: 'Add', keep: 'Left alone', refuse: 'Refused',
};

// What the appliance holds now, as planImport needs it.
async function loadState(rows) {
  const list = await call('TAVO.Core.Group', 'list', { type: 'local', name_only: false, limit: -1 });
  const groups = new Map((list.groups ?? []).map((g) => [String(g.name).toLowerCase(), String(g.name)]));
  const everyone = await call('TAVO.Core.Group.Member', 'list', { group: 'users', ingroup: true, limit: -1 });
  const users = new Map((everyone.users ?? []).map((u) => [String(u.name).toLowerCase(), String(u.name)]));
  const members = new Map();
  const named = new Set(rows.slice(1).map((r) => String(r[0] ?? '').trim().toLowerCase()));
  for (const lower of named) {
    if (!groups.has(lower) || lower === 'users') continue;
    const data = await call('TAVO.Core.Group.Member', 'list', { group: groups.get(lower), ingroup: true, limit: -1 });
    members.set(lower, new Set((data.users ?? []).map((u) => String(u.name).toLowerCase())));
  }
  return { groups, users, members, groupCount: Number(list.total) || groups.size, maxGroups: null };
}

function countsText(plan) {
  const c = plan.counts;
  const doing = plan.kind === 'groups'
    ? `${c.create} ${c.create === 1 ? 'group' : 'groups'} to create`
    : `${c.add} ${c.add === 1 ? 'membership' : 'memberships'} to add`;
  return `${plan.entries.length} rows: ${doing}, ${c.keep} left alone, ${c.refuse} refused.`;
}

function resultRows(plan) {
  const second = KINDS[plan.kind].header[1];
  return [['line', 'group', second, 'planned', 'result', 'reason'],
    ...plan.entries.map((e) => [e.line, e.group, e.value, ACTION_TEXT[e.action],
      e.result ?? (e.action === 'keep' || e.action === 'refuse' ? 'nothing to do' : 'not applied'),
      e.resultReason || e.reason])];
}

export function renderImport(main) {
  let plan = null;
  let stopping = false;

  const heading = h('h1', { tabindex: '-1' }, 'Import from CSV');
  const back = h('a', { href: '#/groups', class: 'button secondary' }, '‹ All groups');
  const fileId = uid('csv-file');
  const file = h('input', { id: fileId, type: 'file', accept: '.csv,text/csv', 'aria-describedby': `${fileId}-hint` });
  const previewButton = h('button', { type: 'button', class: 'primary' }, 'Preview');
  const summary = h('p', { class: 'import-summary', role: 'status' });
  const body = h('tbody');
  const valueHead = th('User');
  const resultHead = th('Result');
  const table = h('table', { class: 'data import' },
    h('caption', { class: 'visually-hidden' }, 'Rows of the file and what happens to each'),
    h('thead', {}, h('tr', {}, th('Line', { class: 'num' }), th('Group'), valueHead, th('What happens'), resultHead)),
    body);
  const more = h('p', { class: 'hint' });
  const limitNote = h('p', { class: 'hint' },
    'The appliance allows only so many groups (its "maxgroups" setting, which this page cannot read). '
    + 'A creation beyond that limit is refused when it is applied, and its row says so.');
  const applyButton = h('button', { type: 'button', class: 'primary' }, 'Apply');
  const cancelButton = h('button', { type: 'button', class: 'secondary' }, 'Cancel import');
  const downloadButton = h('button', { type: 'button', class: 'secondary' }, 'Download result');
  const progressId = uid('progress');
  const progress = h('progress', { id: progressId, max: 1, value: 0, 'aria-labelledby': `${progressId}-label` });
  const progressText = h('p', { class: 'progress-text', 'aria-live': 'polite' });
  const progressBox = h('div', { class: 'import-progress' },
    h('label', { for: progressId, id: `${progressId}-label` }, 'Import progress'), progress, progressText, cancelButton);
  const previewSection = h('section', { class: 'import-preview', 'aria-labelledby': `${fileId}-preview` },
    h('h2', { id: `${fileId}-preview` }, 'Preview'), summary, limitNote,
    h('div', { class: 'toolbar' }, h('div', { class: 'selection' }, applyButton, downloadButton)),
    progressBox, h('div', { class: 'table-wrap' }, table), more);

  function showTable() {
    valueHead.textContent = plan.kind === 'groups' ? 'Description' : 'User';
    const shown = plan.entries.slice(0, SHOWN_ROWS);
    replaceChildren(body, shown.map((e) => h('tr', { class: `action-${e.action}` },
      td('Line', String(e.line)), td('Group', e.group), td(valueHead.textContent, e.value),
      td('What happens', h('span', {}, h('strong', {}, ACTION_TEXT[e.action]), e.reason ? ` — ${e.reason}` : '')),
      td('Result', e.result ? `${e.result}${e.resultReason ? ` — ${e.resultReason}` : ''}` : ''))));
    if (plan.entries.length === 0) {
      body.appendChild(h('tr', {}, h('td', { colspan: 5, class: 'empty' }, 'The file has no rows after its header.')));
    }
    more.textContent = plan.entries.length > SHOWN_ROWS
      ? `The first ${SHOWN_ROWS} of ${plan.entries.length} rows are shown; "Download result" has them all.` : '';
  }

  async function preview() {
    const chosen = file.files && file.files[0];
    if (!chosen) {
      showError('Please choose a CSV file first.');
      file.focus();
      return;
    }
    let rows;
    try {
      rows = parseCsv(await chosen.text());
    } catch (err) {
      showError('The file could not be read.');
      return;
    }
    plan = planImport(rows, { groups: new Map(), users: new Map(), members: new Map(), groupCount: 0, maxGroups: null });
    if (!plan.kind) {
      previewSection.hidden = true;
      showError('The first line must be a header: "group,user" for memberships, or "group,description" for new groups.');
      return;
    }
    try {
      plan = planImport(rows, await loadState(rows));
    } catch (err) {
      report(err, 'import');
      return;
    }
    summary.textContent = countsText(plan);
    limitNote.hidden = plan.kind !== 'groups';
    const work = plan.counts.create + plan.counts.add;
    applyButton.disabled = work === 0;
    downloadButton.hidden = true;
    progressBox.hidden = true;
    previewSection.hidden = false;
    showTable();
  }

  async function apply() {
    const batches = makeBatches(plan);
    stopping = false;
    progress.max = Math.max(1, batches.length);
    progress.value = 0;
    progressText.textContent = `0 of ${batches.length} batches`;
    progressBox.hidden = false;
    applyButton.disabled = true;
    previewButton.disabled = true;
    file.disabled = true;
    cancelButton.disabled = false;
    cancelButton.focus();
    // Leaving the view stops the import between batches too.
    const outcome = await runBatches(batches, {
      shouldStop: () => stopping || !main.contains(heading),
      onProgress({ done, total, rows }) {
        progress.value = done;
        progressText.textContent = `${done} of ${total} batches (${rows} rows)`;
      },
    });
    cancelButton.disabled = true;
    previewButton.disabled = false;
    file.disabled = false;
    if (outcome.expired) return;
    const done = plan.entries.filter((e) => e.result === 'done').length;
    if (!main.contains(heading)) {
      showError(`The import stopped when its view was left: ${done} of ${batches.reduce((n, b) => n + b.entries.length, 0)}`
        + ' rows were done. Import the same file again to do the rest.');
      return;
    }
    const failed = plan.entries.filter((e) => e.result === 'failed').length;
    const rowsText = (n) => `${n} ${n === 1 ? 'row' : 'rows'}`;
    const left = plan.entries.filter((e) => e.result === 'not applied').length;
    const lines = [`${outcome.cancelled ? 'Import cancelled' : 'Import finished'}: ${rowsText(done)} done, ${failed} failed`
      + `${outcome.cancelled ? `, ${left} not applied` : ''}.`];
    if (failed > 0) showError(lines);
    else showNotice(lines);
    summary.textContent = `${countsText(plan)} ${lines[0]}`;
    downloadButton.hidden = false;
    showTable();
    downloadButton.focus();
  }

  previewButton.addEventListener('click', preview);
  applyButton.addEventListener('click', apply);
  cancelButton.addEventListener('click', () => {
    stopping = true;
    cancelButton.disabled = true;
    progressText.textContent = `${progressText.textContent} — stopping after this batch…`;
  });
  downloadButton.addEventListener('click', () => saveFile('import-result.csv', toCsv(resultRows(plan))));

  previewSection.hidden = true;
  replaceChildren(main, h('section', { class: 'view', 'aria-label': 'Import from CSV' },
    h('div', { class: 'view-head' }, back, heading),
    h('div', { class: 'field' }, h('label', { for: fileId }, 'CSV file'), file,
      h('p', { id: `${fileId}-hint`, class: 'hint' },
        'A header line "group,user" and then one membership a line adds users to existing groups; '
        + 'a header line "group,description" and then one group a line creates groups. '
        + 'Nothing changes until you press Apply.')),
    h('div', { class: 'toolbar' }, previewButton),
    previewSection));
  heading.focus();
}
