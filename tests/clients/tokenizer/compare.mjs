// SPDX-License-Identifier: Apache-2.0
// Holds the tokenizer against an independent one, npm's @huggingface/tokenizers: a
// vocabulary learnt here, texts of every script and all files below docs/, not one id of
// difference.
//
//   npm ci && node compare.mjs PATH_TO_encode_lines [TEXTS] [SEED]
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { Tokenizer } from "@huggingface/tokenizers";
import { Random, randomText } from "./random_text.mjs";
import { train } from "./train.mjs";

const kVocabulary = 20480;
const kCorpus = 12000;
const kDocuments = new URL("../../../docs/", import.meta.url);

const [program, texts = "10000", seed = "1"] = process.argv.slice(2);
if (!program) {
  console.error("usage: node compare.mjs PATH_TO_encode_lines [TEXTS] [SEED]");
  process.exit(2);
}

const random = new Random(Number(seed));
const corpus = Array.from({ length: kCorpus }, () => randomText(random));
const vocabulary = train(corpus, kVocabulary);
const oracle = new Tokenizer(vocabulary, {});
const documents = readdirSync(kDocuments, { recursive: true, withFileTypes: true })
  .filter((entry) => entry.isFile())
  .map((entry) => readFileSync(join(entry.parentPath ?? entry.path, entry.name), "utf8"));
if (documents.length === 0) throw new Error(`no files below ${kDocuments}`);
const samples = ["", ...documents, ...Array.from({ length: Number(texts) }, () => randomText(random))];

const folder = mkdtempSync(join(tmpdir(), "tokenizer-client-"));
try {
  const path = join(folder, "tokenizer.json");
  writeFileSync(path, JSON.stringify(vocabulary));
  const input = samples.map((text) => JSON.stringify(text) + "\n").join("");
  const output = execFileSync(program, [path], { input, maxBuffer: 1 << 30 }).toString();
  const lines = output.split("\n").slice(0, -1);
  if (lines.length !== samples.length) throw new Error(`${lines.length} lines for ${samples.length} texts`);
  let different = 0;
  let ids = 0;
  let bytes = 0;
  samples.forEach((text, i) => {
    const expected = text === "" ? [] : oracle.encode(text, { add_special_tokens: false }).ids;
    ids += expected.length;
    bytes += Buffer.byteLength(text);
    if (JSON.stringify(expected) === lines[i]) return;
    if (++different > 5) return;
    console.log(`text ${i}: ${JSON.stringify(text)}\n  expected ${JSON.stringify(expected)}\n  got      ${lines[i]}`);
    const was = JSON.parse(lines[i]);
    const at = expected.findIndex((id, k) => id !== was[k]);
    console.log(`  first at ${at}: ${JSON.stringify(oracle.decode(expected.slice(Math.max(0, at - 2), at + 3)))}`);
  });
  console.log(`${samples.length} texts (${documents.length} of them files of docs/) of ${bytes} bytes, ${ids} ids, ${different} texts differ`);
  process.exitCode = different === 0 ? 0 : 1;
} finally {
  rmSync(folder, { recursive: true });
}
