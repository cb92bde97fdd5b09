// The appliance's HTTP API as the admin page uses it.
//
// Session: login() and restoreSession() keep the session token in memory (the
// server also sets an HttpOnly cookie, which the browser sends by itself);
// every call() sends the token in the X-Tavo-Token header. A reload asks the
// server for the token again with restoreSession().
//
// Errors: every failure rejects with an ApiError, never with anything else:
//   kind "api"     the method answered {"success": false}; `code` is the API code
//   kind "http"    the server answered an HTTP error; `status` is set
//   kind "expired" HTTP 401 from /api: the session is gone (onExpired listeners
//                  have already been told)
//   kind "network" the server could not be reached
//   kind "format"  the answer was not the expected JSON envelope

import * as busy from './busy.js';

export class ApiError extends Error {
  constructor(kind, { code = 0, status = 0, detail = '', retryAfter = 0 } = {}) {
    super(`${kind}${code ? ` ${code}` : ''}${status ? ` HTTP ${status}` : ''}${detail ? `: ${detail}` : ''}`);
    this.name = 'ApiError';
    this.kind = kind;
    this.code = code;
    this.status = status;
    this.retryAfter = retryAfter; // seconds, from a 429 answer's Retry-After
  }
}

let token = null;
let account = '';
const expiredListeners = [];

export function currentAccount() {
  return account;
}

export function isLoggedIn() {
  return token !== null;
}

// `fn` runs once each time a call finds the session gone.
export function onExpired(fn) {
  expiredListeners.push(fn);
}

async function post(path, body, headers = {}) {
  busy.begin();
  try {
    let response;
    try {
      response = await fetch(path, {
        method: 'POST',
        credentials: 'same-origin',
        cache: 'no-store',
        headers: { 'Content-Type': 'application/json', ...headers },
        body: body === undefined ? undefined : JSON.stringify(body),
      });
    } catch (err) {
      throw new ApiError('network', { detail: String(err && err.message) });
    }
    return await readEnvelope(response);
  } finally {
    busy.end();
  }
}

// Returns {status, envelope, retryAfter}; envelope is null when the body is
// not JSON.
async function readEnvelope(response) {
  let envelope = null;
  try {
    envelope = await response.json();
  } catch (err) {
    envelope = null;
  }
  const retryAfter = Number.parseInt(response.headers.get('Retry-After') ?? '', 10);
  return { status: response.status, envelope, retryAfter: Number.isFinite(retryAfter) ? retryAfter : 0 };
}

function dataOf({ status, envelope, retryAfter }) {
  if (status !== 200) throw new ApiError('http', { status, retryAfter });
  if (!envelope || typeof envelope !== 'object') throw new ApiError('format');
  if (envelope.success === true) return envelope.data ?? {};
  const code = envelope.error && Number(envelope.error.code);
  if (Number.isInteger(code) && code > 0) throw new ApiError('api', { code });
  throw new ApiError('format');
}

function takeSession(data) {
  if (!data || typeof data.token !== 'string' || data.token === '') throw new ApiError('format');
  token = data.token;
  account = typeof data.account === 'string' ? data.account : '';
}

// Logs in. Rejects with kind "http" (401 for any failed check, 429 too many
// failed tries) or another ApiError.
export async function login(name, password) {
  const answer = await post('/api/auth/login', { account: name, password });
  takeSession(dataOf(answer));
  return account;
}

// Asks the server whether the cookie's session is still alive. Resolves true
// (token restored) or false; network problems reject.
export async function restoreSession() {
  busy.begin();
  try {
    let response;
    try {
      response = await fetch('/api/auth/session', { credentials: 'same-origin', cache: 'no-store' });
    } catch (err) {
      throw new ApiError('network', { detail: String(err && err.message) });
    }
    if (response.status === 401 || response.status === 403) return false;
    takeSession(dataOf(await readEnvelope(response)));
    return true;
  } finally {
    busy.end();
  }
}

export async function logout() {
  const headers = token ? { 'X-Tavo-Token': token } : {};
  token = null;
  account = '';
  try {
    await post('/api/auth/logout', {}, headers);
  } catch (err) {
    // The session is forgotten on this side either way; the server ends idle
    // sessions by itself.
  }
}

// Calls one method: call('TAVO.Core.Group', 'list', {type: 'local'}).
// Resolves with the method's data.
export async function call(api, method, params = {}) {
  if (token === null) {
    for (const fn of expiredListeners) fn();
    throw new ApiError('expired');
  }
  const answer = await post('/api', { api, version: 1, method, params }, { 'X-Tavo-Token': token });
  if (answer.status === 401) {
    token = null;
    account = '';
    for (const fn of expiredListeners) fn();
    throw new ApiError('expired');
  }
  return dataOf(answer);
}

// Opens a streamed answer (the change stream) with the session token in its
// header; resolves with the Response once its head has arrived. `signal`
// aborts it. A 401 ends the session here as a call's would.
export async function openStream(path, signal) {
  if (token === null) throw new ApiError('expired');
  let response;
  try {
    response = await fetch(path, {
      credentials: 'same-origin', cache: 'no-store', headers: { 'X-Tavo-Token': token }, signal,
    });
  } catch (err) {
    throw new ApiError('network', { detail: String(err && err.message) });
  }
  if (response.status === 401) {
    token = null;
    account = '';
    for (const fn of expiredListeners) fn();
    throw new ApiError('expired');
  }
  if (response.status !== 200 || !response.body) throw new ApiError('http', { status: response.status });
  return response;
}
