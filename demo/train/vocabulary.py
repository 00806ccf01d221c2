# SPDX-License-Identifier: Apache-2.0
"""A byte-level vocabulary, learnt from documents; and the ids of a text in it.

usage: vocabulary.py CORPUS MERGES OUTPUT
Writes tokenizer.json. Text is ASCII here, so the family's split pattern needs no Unicode classes.
"""
import json
import re
import sys
from collections import Counter

PATTERN = (r"(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?[\p{L}\p{M}]+|\p{N}"
           r"| ?[^\s\p{L}\p{M}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+")
ASCII_PATTERN = re.compile(PATTERN.replace(r"\p{L}\p{M}\p{N}", "a-zA-Z0-9")
                           .replace(r"\p{L}\p{N}", "a-zA-Z0-9").replace(r"\p{L}\p{M}", "a-zA-Z")
                           .replace(r"\p{N}", "[0-9]"), re.ASCII)

# In the order of their ids. The latter ones are kept when control tokens are left out of a text.
SPECIAL = ("<|endoftext|> <|im_start|> <|im_end|> <|object_ref_start|> <|object_ref_end|> "
           "<|box_start|> <|box_end|> <|quad_start|> <|quad_end|> <|vision_start|> <|vision_end|> "
           "<|vision_pad|> <|image_pad|> <|video_pad|>").split()
KEPT = ("<tool_call> </tool_call> <|fim_prefix|> <|fim_middle|> <|fim_suffix|> <|fim_pad|> "
        "<|repo_name|> <|file_sep|> <tool_response> </tool_response> <think> </think>").split()
ADDED_PATTERN = re.compile("(" + "|".join(map(re.escape, SPECIAL + KEPT)) + ")")


def byte_letters():
    """The printable character that stands for each byte."""
    plain = [*range(33, 127), *range(161, 173), *range(174, 256)]
    letters = {b: chr(b) for b in plain}
    others = [b for b in range(256) if b not in letters]
    letters.update({b: chr(256 + i) for i, b in enumerate(others)})
    return letters


LETTERS = byte_letters()


def spelled(piece):
    return "".join(LETTERS[b] for b in piece.encode())


def learn(texts, count):
    """The `count` most useful merges, most frequent pair first; ties by spelling."""
    words = Counter()
    for text in texts:
        for part in ADDED_PATTERN.split(text)[::2]:
            words.update(ASCII_PATTERN.findall(part))
    words = [(list(spelled(w)), n) for w, n in sorted(words.items())]
    merges = []
    for _ in range(count):
        pairs = Counter()
        for symbols, n in words:
            for pair in zip(symbols, symbols[1:]):
                pairs[pair] += n
        if not pairs:
            break
        best = min(pairs, key=lambda p: (-pairs[p], p))
        merges.append(best)
        for symbols, _ in words:
            merge(symbols, best)
    return merges


def merge(symbols, pair):
    i = 0
    while i + 1 < len(symbols):
        if (symbols[i], symbols[i + 1]) == pair:
            symbols[i:i + 2] = [pair[0] + pair[1]]
        i += 1


def tokenizer_json(merges):
    tokens = [LETTERS[b] for b in range(256)] + [a + b for a, b in merges]
    vocabulary = {}
    for token in tokens:
        vocabulary.setdefault(token, len(vocabulary))
    added = []
    for text in SPECIAL + KEPT:
        added.append({"id": len(vocabulary) + len(added), "content": text, "single_word": False,
                      "lstrip": False, "rstrip": False, "normalized": False,
                      "special": text in SPECIAL})
    level = {"type": "ByteLevel", "add_prefix_space": False, "trim_offsets": False,
             "use_regex": False}
    return {"version": "1.0", "truncation": None, "padding": None, "added_tokens": added,
            "normalizer": {"type": "NFC"},
            "pre_tokenizer": {"type": "Sequence", "pretokenizers": [
                {"type": "Split", "pattern": {"Regex": PATTERN}, "behavior": "Isolated",
                 "invert": False}, level]},
            "post_processor": None, "decoder": level,
            "model": {"type": "BPE", "dropout": None, "unk_token": None,
                      "continuing_subword_prefix": "", "end_of_word_suffix": "",
                      "fuse_unk": False, "byte_fallback": False, "ignore_merges": False,
                      "vocab": vocabulary, "merges": [f"{a} {b}" for a, b in merges]}}


class Encoder:
    def __init__(self, tokenizer):
        self.vocabulary = tokenizer["model"]["vocab"]
        self.ranks = {tuple(m.split(" ")): i for i, m in enumerate(tokenizer["model"]["merges"])}
        self.added = {t["content"]: t["id"] for t in tokenizer["added_tokens"]}
        self.size = len(self.vocabulary) + len(self.added)
        self.known = {}

    def piece(self, text):
        ids = self.known.get(text)
        if ids is None:
            symbols = list(spelled(text))
            while True:
                ranked = [(self.ranks[p], p) for p in zip(symbols, symbols[1:]) if p in self.ranks]
                if not ranked:
                    break
                merge(symbols, min(ranked)[1])
            ids = self.known[text] = [self.vocabulary[s] for s in symbols]
        return ids

    def encode(self, text):
        ids = []
        for i, part in enumerate(ADDED_PATTERN.split(text)):
            if i % 2:
                ids.append(self.added[part])
            else:
                for piece in ASCII_PATTERN.findall(part):
                    ids += self.piece(piece)
        return ids


def main():
    corpus, count, output = sys.argv[1:]
    with open(corpus, encoding="utf-8") as lines:
        merges = learn((json.loads(line) for line in lines), int(count))
    with open(output, "w", encoding="utf-8") as out:
        json.dump(tokenizer_json(merges), out, ensure_ascii=False, indent=0)
        out.write("\n")


if __name__ == "__main__":
    main()
