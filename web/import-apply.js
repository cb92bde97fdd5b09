// Carrying out an import plan (import-plan.js) through the ordinary API calls,
// one batch at a time.
//
// A batch is one API call: `TAVO.Core.Group.Member add` with up to
// BATCH_SIZE users of one group, or `TAVO.Core.Group create` for one group.
// The appliance writes each call whole, so stopping between batches leaves
// every file with whole batches only. Each entry that was to be done gets
// `result` "done", "failed" (with `resultReason`) or "not applied" (the
// import was cancelled before its batch).

import { call } from './api.js';
import { describeError } from './messages.js';

export const BATCH_SIZE = 250;

export function makeBatches(plan) {
  const batches = [];
  if (plan.kind === 'groups') {
    for (const e of plan.entries) {
      if (e.action === 'create') {
        batches.push({ api: 'TAVO.Core.Group', method: 'create', params: { name: e.group, description: e.value }, entries: [e] });
      }
    }
    return batches;
  }
  const byGroup = new Map();
  for (const e of plan.entries) {
    if (e.action !== 'add') continue;
    const key = e.group.toLowerCase();
    if (!byGroup.has(key)) byGroup.set(key, []);
    byGroup.get(key).push(e);
  }
  for (const entries of byGroup.values()) {
    for (let i = 0; i < entries.length; i += BATCH_SIZE) {
      const part = entries.slice(i, i + BATCH_SIZE);
      batches.push({
        api: 'TAVO.Core.Group.Member', method: 'add',
        params: { group: part[0].group, name: part.map((e) => e.value) }, entries: part,
      });
    }
  }
  return batches;
}

// Runs the batches in order. onProgress({done, total, rows}) follows each
// batch; shouldStop() is asked before each one. Resolves with
// {cancelled, expired}.
export async function runBatches(batches, { onProgress, shouldStop }) {
  let rows = 0;
  for (let i = 0; i < batches.length; i += 1) {
    if (shouldStop()) {
      for (const b of batches.slice(i)) for (const e of b.entries) e.result = 'not applied';
      return { cancelled: true, expired: false };
    }
    const batch = batches[i];
    try {
      await call(batch.api, batch.method, batch.params);
      for (const e of batch.entries) e.result = 'done';
    } catch (err) {
      const why = describeError(err, batch.method);
      for (const e of batch.entries) {
        e.result = 'failed';
        e.resultReason = why;
      }
      if (err.kind === 'expired') {
        for (const b of batches.slice(i + 1)) for (const e of b.entries) e.result = 'not applied';
        return { cancelled: false, expired: true };
      }
    }
    rows += batch.entries.length;
    onProgress({ done: i + 1, total: batches.length, rows });
  }
  return { cancelled: false, expired: false };
}
