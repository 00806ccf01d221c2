// SPDX-License-Identifier: Apache-2.0
// Texts of every script, with what tokenizers stumble over.
import unassigned from "@unicode/unicode-9.0.0/General_Category/Unassigned/ranges.mjs";

// A generator of 32-bit numbers (Marsaglia's xorshift), so that a seed gives the same texts.
export class Random {
  constructor(seed) {
    this.state = seed >>> 0 || 1;
  }
  below(count) {
    this.state ^= this.state << 13;
    this.state ^= this.state >>> 17;
    this.state ^= this.state << 5;
    return (this.state >>> 0) % count;
  }
  of(list) {
    return list[this.below(list.length)];
  }
}

// Characters of later versions are left out: the reference normalises with the data
// of 9.0, and the oracle with that of the Node that runs it.
const later = new Uint8Array(0x110000);
for (const { begin, end } of unassigned) later.fill(1, begin, end);

function charactersOf(test) {
  const found = [];
  for (let point = 0; point < 0x110000; ++point) {
    if (later[point] || (point >= 0xd800 && point < 0xe000)) continue;
    const character = String.fromCodePoint(point);
    if (test.test(character)) found.push(character);
  }
  return found;
}

const kScripts = ["Latin", "Latin", "Latin", "Greek", "Cyrillic", "Armenian", "Hebrew", "Arabic", "Syriac",
  "Thaana", "Nko", "Devanagari", "Bengali", "Gurmukhi", "Gujarati", "Oriya", "Tamil", "Telugu", "Kannada",
  "Malayalam", "Sinhala", "Thai", "Lao", "Tibetan", "Myanmar", "Georgian", "Hangul", "Ethiopic", "Cherokee",
  "Canadian_Aboriginal", "Khmer", "Mongolian", "Hiragana", "Katakana", "Bopomofo", "Han", "Han", "Yi",
  "Balinese", "Gothic", "Deseret", "Tifinagh", "Brahmi", "Kaithi", "Chakma", "Cuneiform", "Adlam", "Osage"];
const scripts = new Map(
  [...new Set(kScripts)].map((name) => [name, charactersOf(new RegExp(`\\p{Script=${name}}`, "u"))]));
const marks = charactersOf(/\p{M}/u);
const numbers = charactersOf(/\p{N}/u);
const signs = charactersOf(/[\p{P}\p{S}]/u);
const spaces = charactersOf(/\p{White_Space}/u);
const controls = charactersOf(/[\p{Cc}\p{Cf}]/u);
const emoji = ["😀", "👍🏽", "👩‍👩‍👧‍👦", "🏳️‍🌈", "🇩🇪", "❤️", "1️⃣", "👨🏿‍🚀", "🧑"];
const contractions = ["'s", "'S", "'t", "'RE", "'ve", "'m", "'Ll", "'d", "'", "’s", "''ll", "'x"];
const words = "the of and to in is that it for was on are as with his they at be this from have or by one " +
  "had not but what all were when we there can an your which their said if do will each about how up " +
  "for(int i=0;i<n;++i){sum+=values[i];} def main(): return None // TODO 3.14159 2026-01-31 http://x.y/z?q=1";
const wordList = words.split(" ");

function repeated(make, random, most) {
  let text = "";
  for (let count = 1 + random.below(most); count > 0; --count) text += make();
  return text;
}

const parts = [
  (r) => " " + r.of(wordList),
  (r) => " " + r.of(wordList),
  (r) => (r.below(2) ? " " : "") + wordOf(r),
  (r) => (r.below(2) ? " " : "") + wordOf(r),
  (r) => (r.below(2) ? " " : "") + wordOf(r),
  (r) => wordOf(r).normalize("NFD"),
  (r) => r.of(wordList) + r.of(contractions),
  (r) => r.of(contractions) + r.of(wordList),
  (r) => repeated(() => r.of(marks), r, 5),
  (r) => r.of(wordList) + repeated(() => r.of(marks), r, 4),
  (r) => repeated(() => r.of(numbers), r, 4),
  (r) => repeated(() => String(r.below(10)), r, 6),
  (r) => repeated(() => r.of(signs), r, 4) + r.of(["", "\n", "\r\n", "\n\n"]),
  (r) => r.of(emoji) + r.of(["", " ", r.of(emoji)]),
  (r) => repeated(() => " ", r, 6),
  (r) => repeated(() => r.of(["\n", "\r\n", "\r", " ", "\t", "\n\n"]), r, 5),
  (r) => repeated(() => r.of(spaces), r, 4),
  (r) => repeated(() => r.of(controls), r, 3),
  (r) => String.fromCodePoint(0x1100 + r.below(19), 0x1161 + r.below(21), 0x11a7 + r.below(28)),
  (r) => r.of(["<|im_start|>", "<|im_end|>", "<|endoftext|>", "<think>", "</think>", "<|im_", "<|im_end|"]),
];

function wordOf(random) {
  const script = scripts.get(random.of(kScripts));
  // Neighbours occur together more often than far ones, so that merges are learnt.
  const base = random.below(script.length);
  return repeated(() => script[(base + random.below(12)) % script.length], random, 6);
}

export function randomText(random) {
  return repeated(() => random.of(parts)(random), random, 24);
}
