// SPDX-License-Identifier: Apache-2.0
// Holds constraints against an independent validator, npm's ajv: what a constraint produces
// is valid, and of random documents it takes those that are valid and no others.
//
//   npm ci && node compare.mjs PATH_TO_constrain_lines [SCHEMAS] [SEED]
import { execFileSync } from "node:child_process";
import Ajv2020 from "ajv/dist/2020.js";

const [program, schemas = "300", seed = "1"] = process.argv.slice(2);
if (!program) {
  console.error("usage: node compare.mjs PATH_TO_constrain_lines [SCHEMAS] [SEED]");
  process.exit(2);
}

const counts = { schemas: 0, produced: 0, valid: 0, invalid: 0, different: 0 };

function differs(schema, what, text) {
  if (++counts.different <= 5) console.log(`${what}: ${text}\n  schema ${JSON.stringify(schema)}`);
}

function compare({ schema, produced, documents }) {
  // Descriptions and x- keywords are ignored by both; formats only describe.
  const validate = new Ajv2020({ strict: false, validateFormats: false }).compile(schema);
  ++counts.schemas;
  for (const text of produced) {
    ++counts.produced;
    if (!validate(JSON.parse(text))) differs(schema, "produced, but not valid", text);
  }
  for (const { text, taken } of documents) {
    const valid = validate(JSON.parse(text));
    ++counts[valid ? "valid" : "invalid"];
    if (valid && !taken) differs(schema, "valid, but refused", text);
    if (!valid && taken) differs(schema, "not valid, but taken", text);
  }
}

const lines = execFileSync(program, [schemas, seed], { maxBuffer: 1 << 30 }).toString().split("\n");
lines.slice(0, -1).forEach((line) => compare(JSON.parse(line)));
console.log(`${counts.schemas} schemas, ${counts.produced} replies produced, ${counts.valid} valid documents ` +
  `and ${counts.invalid} others, ${counts.different} differences`);
const enough = counts.schemas === Number(schemas) && counts.produced > 2 * counts.schemas && counts.invalid > counts.schemas;
if (!enough) console.log("too little was compared");
process.exitCode = counts.different === 0 && enough ? 0 : 1;
