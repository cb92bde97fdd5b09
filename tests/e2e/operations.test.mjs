// What operators and integrators reach besides the API: the health check, the
// served OpenAPI document, and the metrics, which count each kind of request
// and need an administrator.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { withServer, call, post, login, runTavo } from './helpers.mjs';

const env = withServer();

// The value of one sample line of the exposition, or undefined.
function sample(text, name) {
  const line = text.split('\n').find((l) => l.startsWith(`${name} `));
  return line === undefined ? undefined : Number(line.slice(name.length + 1));
}

async function metrics(token) {
  const res = await fetch(`${env.url}/metrics`, { headers: { Authorization: `Bearer ${token}` } });
  assert.equal(res.status, 200);
  assert.match(res.headers.get('content-type'), /^text\/plain; version=0\.0\.4/);
  return res.text();
}

test('the health check needs no session and tells nothing', async () => {
  const res = await fetch(`${env.url}/healthz`);
  assert.equal(res.status, 200);
  assert.deepEqual(await res.json(), { status: 'ok' });
});

test('the served OpenAPI document is the one of tavo openapi, with an ETag', async () => {
  const res = await fetch(`${env.url}/api/openapi.json`);
  assert.equal(res.status, 200);
  const served = await res.json();
  const r = runTavo(['openapi']);
  assert.equal(r.status, 0, r.stderr);
  assert.equal(served.openapi, JSON.parse(r.stdout).openapi);
  assert.deepEqual(Object.keys(served.paths).sort(), Object.keys(JSON.parse(r.stdout).paths).sort());
  assert.ok(served.components.schemas['TAVO.Core.Group.v1.create.request']);
  const again = await fetch(`${env.url}/api/openapi.json`, { headers: { 'If-None-Match': res.headers.get('etag') } });
  assert.equal(again.status, 304);
});

test('metrics need an administrator and count each kind of request', async () => {
  assert.equal((await fetch(`${env.url}/metrics`)).status, 401);
  assert.equal((await fetch(`${env.url}/metrics`, { headers: { Authorization: 'Bearer 00' } })).status, 401);

  const before = await metrics(env.token);
  assert.equal((await login(env.url, 'admin', 'wrong')).status, 401);
  assert.equal((await call(env.url, env.token, 'TAVO.Core.Group', 'create', { name: 'metered' })).success, true);
  assert.equal((await call(env.url, env.token, 'TAVO.Core.Group', 'create', { name: 'metered' })).error.code, 3206);
  // Answers are counted as they are made, durations once they are sent: the
  // metrics are read again until the last call's duration is in.
  let after = await metrics(env.token);
  for (let i = 0; i < 50 && sample(after, 'tavo_http_request_duration_seconds_count') -
    sample(before, 'tavo_http_request_duration_seconds_count') < 5; i++) after = await metrics(env.token);

  const grew = (name) => sample(after, name) - (sample(before, name) ?? 0);
  assert.equal(grew('tavo_login_failures_total'), 1);
  assert.equal(grew('tavo_api_calls_total{api="TAVO.Core.Group",method="create",code="3200"}'), 1);
  assert.equal(grew('tavo_api_calls_total{api="TAVO.Core.Group",method="create",code="3206"}'), 1);
  assert.equal(grew('tavo_store_commits_total{result="written"}'), 1);
  assert.ok(grew('tavo_store_fsyncs_total') >= 2, after);
  assert.equal(grew('tavo_http_requests_total{status="401"}'), 1);
  assert.ok(grew('tavo_http_request_duration_seconds_count') >= 5);
  assert.equal(sample(after, 'tavo_http_request_duration_seconds_bucket{le="+Inf"}'),
    sample(after, 'tavo_http_request_duration_seconds_count'));
  assert.ok(sample(after, 'tavo_sessions') >= 1);
  assert.equal(sample(after, 'tavo_directory_bound{kind="ldap"}'), 0);
});

test('calls to made-up APIs and methods share one series: the metrics stay small', async () => {
  const before = await metrics(env.token);
  const calls = [];
  for (let i = 0; i < 1000; i++) {
    calls.push(post(env.url, env.token, { api: `Made.Up.${i}`, version: 1, method: i % 2 ? 'list' : `m${i}`, params: {} }));
    if (calls.length === 8) await Promise.all(calls.splice(0));
  }
  await Promise.all(calls);
  assert.equal((await post(env.url, env.token, { api: 'TAVO.Core.Group', version: 1, method: 'nosuch', params: {} })).status, 404);
  const after = await metrics(env.token);
  assert.ok(after.length < before.length + 200, `${before.length} -> ${after.length} bytes`);
  assert.doesNotMatch(after, /Made\.Up|nosuch/);
  const unknown = 'tavo_api_calls_total{api="unknown",method="unknown",code="0"}';
  assert.equal(sample(after, unknown) - (sample(before, unknown) ?? 0), 1001);
});
