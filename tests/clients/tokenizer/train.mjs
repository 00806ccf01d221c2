// SPDX-License-Identifier: Apache-2.0
// A byte-level vocabulary learnt from texts: again and again the most frequent pair of
// neighbours becomes a token.
export const kPattern = "(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\\r\\n\\p{L}\\p{N}]?[\\p{L}\\p{M}]+|\\p{N}|" +
  " ?[^\\s\\p{L}\\p{M}\\p{N}]+[\\r\\n]*|\\s*[\\r\\n]+|\\s+(?!\\S)|\\s+";
const kAdded = [["<|endoftext|>", true], ["<|im_start|>", true], ["<|im_end|>", true], ["<think>", false],
  ["</think>", false]];

// The printable character of every byte.
function spellings() {
  const spelled = [];
  let next = 0x100;
  for (let byte = 0; byte < 256; ++byte) {
    const itself = (byte >= 0x21 && byte <= 0x7e) || (byte >= 0xa1 && byte <= 0xac) || byte >= 0xae;
    spelled.push(String.fromCodePoint(itself ? byte : next++));
  }
  return spelled;
}

function countedWords(texts) {
  // Any way to cut the texts does: it only says which merges are learnt.
  const counts = new Map();
  for (const text of texts) {
    for (const word of text.normalize("NFC").match(/ ?[\p{L}\p{M}]+|\s+|[^\s\p{L}\p{M}]+/gu) ?? []) {
      counts.set(word, (counts.get(word) ?? 0) + 1);
    }
  }
  return counts;
}

export function train(texts, size) {
  const spelled = spellings();
  const tokens = [...spelled];
  const ids = new Map(tokens.map((token, id) => [token, id]));
  const merges = [];
  const words = [...countedWords(texts)].map(([word, count]) => ({ ids: [...Buffer.from(word)], count }));
  const pairs = new Map(); // left * 2^20 + right to { count, words }
  const note = (index, sign) => {
    const word = words[index];
    for (let i = 0; i + 1 < word.ids.length; ++i) {
      const key = word.ids[i] * 2 ** 20 + word.ids[i + 1];
      let pair = pairs.get(key);
      if (!pair) pairs.set(key, (pair = { count: 0, words: new Set() }));
      pair.count += sign * word.count;
      pair.words.add(index);
    }
  };
  words.forEach((_, index) => note(index, 1));

  while (tokens.length < size) {
    // Many at a time: what they change in each other's counts matters little here.
    const best = [...pairs].filter(([, pair]) => pair.count > 1).sort((a, b) => b[1].count - a[1].count);
    if (best.length === 0) throw new Error(`the texts give ${tokens.length} tokens, needs ${size}`);
    for (const [key] of best.slice(0, Math.max(1, best.length >> 5))) {
      if (tokens.length === size) break;
      const pair = pairs.get(key);
      const [left, right] = [Math.floor(key / 2 ** 20), key % 2 ** 20];
      const joined = tokens[left] + tokens[right];
      pairs.delete(key);
      if (ids.has(joined) || pair.count < 1) continue;
      const id = tokens.push(joined) - 1;
      ids.set(joined, id);
      merges.push([tokens[left], tokens[right]]);
      for (const index of pair.words) {
        const old = words[index].ids;
        if (!old.some((symbol, i) => symbol === left && old[i + 1] === right)) continue;
        note(index, -1);
        const joinedIds = [];
        for (let i = 0; i < old.length; ++i) {
          const here = old[i] === left && old[i + 1] === right;
          joinedIds.push(here ? id : old[i]);
          if (here) ++i;
        }
        words[index].ids = joinedIds;
        note(index, 1);
      }
    }
  }
  return asJson(tokens, merges);
}

// Bytes were their own ids; the published form counts the spelled ones the same way.
function asJson(tokens, merges) {
  const part = (type, rest) => ({ type, add_prefix_space: false, trim_offsets: false, use_regex: false, ...rest });
  return {
    version: "1.0",
    truncation: null,
    padding: null,
    added_tokens: kAdded.map(([content, special], i) => ({ id: tokens.length + i, content, single_word: false,
      lstrip: false, rstrip: false, normalized: false, special })),
    normalizer: { type: "NFC" },
    pre_tokenizer: { type: "Sequence", pretokenizers: [
      { type: "Split", pattern: { Regex: kPattern }, behavior: "Isolated", invert: false }, part("ByteLevel")] },
    post_processor: part("ByteLevel"),
    decoder: part("ByteLevel"),
    model: { type: "BPE", dropout: null, unk_token: null, continuing_subword_prefix: "", end_of_word_suffix: "",
      fuse_unk: false, byte_fallback: false, ignore_merges: false,
      vocab: Object.fromEntries(tokens.map((token, id) => [token, id])), merges },
  };
}
