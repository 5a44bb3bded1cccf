// Checks docs/schemas/ with the validators of AsyncAPI and JSON Schema, and against docs/wire-format.md.
// A test compares every example of that page with what the library writes, so that they stand for
// documents of the library.
//
// A block of the page begins with "```json", the name of its schema and, for a second example of the
// same schema, one more word.

const fs = require('fs');
const path = require('path');
const Ajv = require('ajv/dist/2020');
const { Parser, fromFile } = require('@asyncapi/parser');

const DOCS = path.join(__dirname, '../../docs');
const SCHEMAS = path.join(DOCS, 'schemas');
const INVALID = require('./invalid.json');
const ERROR_OR_WARNING = 1; // the larger numbers are remarks

let failures = 0;
function check(condition, message) {
  if (!condition) {
    console.error(message);
    failures += 1;
  }
}

const page = fs.readFileSync(path.join(DOCS, 'wire-format.md'), 'utf8');

/** The blocks with documents: where they begin, the name of the schema, and the document. */
function examples() {
  const blocks = [...page.matchAll(/^```json(.*)\n([^]*?)\n```$/gm)];
  return blocks.map(([, heading, text]) => ({ heading, schema: heading.trim().split(' ')[0], text }));
}

/** The rows of the first table of the page. */
function topics() {
  const rows = [...page.matchAll(/^\| ([\w ]+) \| (.*) \| ([012]) \| (yes|no) \|$/gm)];
  return rows.map(([, title, topic, qos, retained]) => ({
    title, topic, qos: Number(qos), retained: retained === 'yes',
  }));
}

/** The same topic as it stands in the AsyncAPI document; undefined if the row describes it in words. */
function addressOf(topic) {
  const address = topic.match(/^`(.*)`$/)?.[1]
    .replace('<base>[/<server>][/<sub-path>]', '{service}')
    .replace('<name>??', '{request}')
    .replace('<name>?=', '{reply}');
  return address?.replace(/<(\w+)>/g, '{$1}');
}

function checkSchemas() {
  const ajv = new Ajv({ strict: true, allowUnionTypes: true, allErrors: true });
  const files = fs.readdirSync(SCHEMAS).filter((file) => file.endsWith('.json'));
  for (const file of files) {
    try {
      ajv.addSchema(JSON.parse(fs.readFileSync(path.join(SCHEMAS, file), 'utf8')), file);
    } catch (error) {
      throw new Error(`${file}: ${error.message}`);
    }
  }
  const isValid = (schema, document) => ajv.validate(`${schema}.json`, document);
  // What no example shows yet, as schema/member: a misspelled optional member would accept everything.
  const notShown = new Set(files.flatMap((file) => Object.keys(ajv.getSchema(file).schema.properties)
    .map((member) => `${path.basename(file, '.json')}/${member}`)));

  for (const { heading, schema, text } of examples()) {
    if (!files.includes(`${schema}.json`)) {
      check(false, `wire-format.md: "\`\`\`json${heading}" names no schema in docs/schemas`);
      continue;
    }
    const document = JSON.parse(text);
    Object.keys(document).forEach((member) => notShown.delete(`${schema}/${member}`));
    check(isValid(schema, document), `wire-format.md: ${heading}: ${ajv.errorsText()}`);
    const later = { ...document, 'member of a later version': {} };
    check(isValid(schema, later), `${schema}.json refuses members that it does not know`);
    check(schema in INVALID, `tests/schemas/invalid.json has no documents for ${schema}`);
  }
  check(notShown.size === 0, `wire-format.md has no example of ${[...notShown].join(', ')}`);

  for (const [schema, documents] of Object.entries(INVALID)) {
    for (const document of documents) {
      check(!isValid(schema, document), `${schema}.json accepts ${JSON.stringify(document)}`);
    }
  }
}

async function checkAsyncApi() {
  const file = path.join(SCHEMAS, 'asyncapi.yaml');
  const { document, diagnostics } = await fromFile(new Parser(), file).parse();
  for (const { severity, path: place, message } of diagnostics) {
    check(severity > ERROR_OR_WARNING, `asyncapi.yaml: ${place.join('/')}: ${message}`);
  }
  if (!document) {
    return;
  }
  const rows = new Map(topics().map((row) => [row.title, row]));
  const described = new Set();
  for (const channel of document.channels().all()) {
    const row = rows.get(channel.title());
    check(row, `wire-format.md: no row of the first table is for "${channel.title()}"`);
    if (row) {
      checkChannel(channel, row);
      described.add(row.title);
    }
  }
  const missing = [...rows.keys()].filter((title) => !described.has(title));
  check(missing.length === 0, `asyncapi.yaml has no channel for ${missing}`);
}

function checkChannel(channel, row) {
  const address = addressOf(row.topic) ?? channel.address();
  check(channel.address() === address, `asyncapi.yaml: ${channel.id()} is not on ${row.topic}`);
  const operations = channel.operations().all();
  check(operations.length > 0, `asyncapi.yaml: nobody publishes ${channel.id()}`);
  for (const operation of operations) {
    const { qos, retain } = operation.bindings().get('mqtt').value();
    check(qos === row.qos && retain === row.retained,
      `asyncapi.yaml: ${operation.id()}: QoS or retained flag differ from wire-format.md`);
  }
}

checkSchemas();
checkAsyncApi().then(() => {
  console.log(`${examples().length} examples, ${topics().length} topics, ${failures} failures`);
  process.exitCode = failures > 0 ? 1 : 0;
});
