// The OpenAPI document: it validates, it lists exactly the served methods, and
// its parameter schemas agree with the methods' own checks, both ways: each
// method's example is accepted, and a value outside a parameter's schema is
// refused with 3201.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { REPO, withServer, runTavo, post, moduleFolder, scratch, GROUP_MODULE } from './helpers.mjs';

// The validator is installed with the browser tests' packages (tools/install-deps.sh --browser).
const SwaggerParser = createRequire(join(REPO, 'tests/browser/package.json'))('@apidevtools/swagger-parser');

const env = withServer();

function openapiDocument() {
  const tmp = scratch();
  try {
    const r = runTavo(['openapi', '--modules', moduleFolder(tmp.dir, [GROUP_MODULE])]);
    assert.equal(r.status, 0, r.stderr);
    return JSON.parse(r.stdout);
  } finally {
    tmp.cleanup();
  }
}

// The per-method request schemas of POST /api, and its answer schemas by
// title, references resolved.
async function methodSchemas() {
  const op = (await SwaggerParser.dereference(openapiDocument())).paths['/api'].post;
  const answers = new Map(op.responses['200'].content['application/json'].schema.oneOf.map((s) => [s.title, s]));
  return { requests: op.requestBody.content['application/json'].schema.oneOf, answers };
}

// Whether `value` fits `schema`, for the keywords the descriptions use.
function fits(schema, value) {
  if (schema.oneOf) return schema.oneOf.filter((s) => fits(s, value)).length === 1;
  if (schema.enum && !schema.enum.includes(value)) return false;
  const kind = Array.isArray(value) ? 'array' : value === null ? 'null' : typeof value;
  switch (schema.type) {
    case 'string': return kind === 'string';
    case 'boolean': return kind === 'boolean';
    case 'object': return kind === 'object';
    case 'array': return kind === 'array' && value.every((v) => fits(schema.items ?? {}, v));
    case 'integer':
      return Number.isInteger(value) && !(value < schema.minimum) && !(value > schema.maximum);
    default: return true;
  }
}

const admitsStrings = (s) => s.type === 'string' || (s.oneOf ?? []).some(admitsStrings);

// A value the schema refuses. A string parameter also takes numbers and
// booleans, which it reads as their text, so those are not tried for it.
function outside(schema) {
  const candidates = [-1, 'text', 7, 2.5, [{}], {}];
  return candidates.find((v) => !fits(schema, v) && !(admitsStrings(schema) && typeof v !== 'object'));
}

test('the document validates and lists exactly the served methods', async () => {
  const doc = openapiDocument();
  assert.equal(doc.openapi, '3.1.0');
  await SwaggerParser.validate(structuredClone(doc));
  const res = await fetch(`${env.url}/api/info`, { headers: { 'X-Tavo-Token': env.token } });
  const served = (await res.json()).data.apis.flatMap((a) => a.methods.map((m) => `${a.api} v${a.version} ${m}`));
  const { requests } = await methodSchemas();
  assert.deepEqual(requests.map((s) => s.title).sort(), [...served].sort());
  // Every method has its own description.
  for (const s of requests) assert.ok(s.description, `${s.title} has no summary`);
});

test('every method accepts its example and refuses values outside its parameter schema', async () => {
  const { requests, answers } = await methodSchemas();
  for (const schema of requests) {
    const example = schema.examples[0];
    const call = (params) => post(env.url, env.token, { ...example, params });
    const { status, body } = await call(example.params);
    assert.equal(status, 200, schema.title);
    if (body.success) {
      const data = answers.get(`${schema.title} answer`).properties.data;
      for (const key of data.required ?? []) assert.ok(key in body.data, `${schema.title}: no ${key} in the answer`);
    } else {
      const codes = answers.get(`${schema.title} error`).properties.error.properties.code.enum;
      assert.notEqual(body.error.code, 3201, `${schema.title} refused its example`);
      assert.ok(codes.includes(body.error.code), `${schema.title}: code ${body.error.code} is not listed`);
    }

    const params = schema.properties.params;
    const exclusive = new Set((params.oneOf ?? []).flatMap((s) => s.required ?? []));
    for (const [name, property] of Object.entries(params.properties ?? {})) {
      // Of "one of these" parameters, only the one the example names is replaced.
      if (exclusive.has(name) && !(name in example.params)) continue;
      const wrong = outside(property);
      assert.notEqual(wrong, undefined, `${schema.title}: no value outside ${name}'s schema`);
      const answer = (await call({ ...example.params, [name]: wrong })).body;
      assert.deepEqual(answer, { success: false, error: { code: 3201 } },
        `${schema.title}: ${name}=${JSON.stringify(wrong)} was not refused`);
    }
  }
});
