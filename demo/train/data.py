# SPDX-License-Identifier: Apache-2.0
"""Documents as rows of tokens with weights, packed without padding."""
import json
import random

import numpy as np

LENGTH = 512  # tokens of a row

PROMPT_WEIGHT = 0.05


class Documents:
    """Token ids of each document, and how much each token counts in the loss."""

    def __init__(self, encoder, texts):
        self.encoder = encoder
        self.start = encoder.added["<|im_start|>"]
        self.end = encoder.added["<|im_end|>"]
        self.think = encoder.added["<think>"]
        self.empty_block = encoder.encode("<think>\n\n</think>\n\n")
        self.reply = encoder.encode("<|im_start|>assistant\n")
        self.system = encoder.encode("<|im_start|>system\n#")
        self.items = []
        for text in texts:
            ids = encoder.encode(text)
            if len(ids) <= LENGTH:
                weights = self.of_chat(ids) if ids[0] == self.start else self.of_text(text, ids)
                self.items.append((np.array(ids, np.int16), np.array(weights, np.float32)))

    def of_chat(self, ids):
        """Replies count wholly, what the user says a little, the description of tools not at all."""
        weights = [PROMPT_WEIGHT] * len(ids)
        at = 0
        if ids[:len(self.system)] == self.system:
            at = ids.index(self.end) + 1
            weights[:at] = [0.0] * at
        while at < len(ids):
            if ids[at:at + len(self.reply)] != self.reply:
                at += 1
                continue
            weights[at:at + len(self.reply)] = [0.0] * len(self.reply)
            at += len(self.reply)
            given = 0
            if ids[at:at + len(self.empty_block)] == self.empty_block:
                given = len(self.empty_block)
            elif ids[at] == self.think:
                given = 2
            weights[at:at + given] = [0.0] * given
            at += given
            stop = ids.index(self.end, at) + 1
            weights[at:stop] = [1.0] * (stop - at)
            at = stop
        return weights

    def of_text(self, text, ids):
        """Of sums, the results count; of stories all."""
        if " = " not in text:
            return [0.5] * len(ids)
        weights, result = [], False
        for token in ids:
            piece = self.pieces()[token]
            if "=" in piece:
                result = True
                weights.append(PROMPT_WEIGHT)
                continue
            weights.append(1.0 if result else PROMPT_WEIGHT)
            if "\u010a" in piece:
                result = False
        return weights

    def pieces(self):
        if not hasattr(self, "spelling"):
            self.spelling = {i: t for t, i in self.encoder.vocabulary.items()}
        return self.spelling


def pack(items, seed):
    """Rows of LENGTH tokens: ids, weights, where documents begin. Each document lies in one row;
    what is left of a row is filled with the beginning of another document."""
    order = list(range(len(items)))
    random.Random(seed).shuffle(order)
    rows, open_rows = [], []
    for index in order:
        size = len(items[index][0])
        fitting = [r for r in open_rows if r[0] >= size]
        if fitting:
            best = min(fitting, key=lambda r: r[0])
        else:
            if len(open_rows) >= 24:
                fullest = min(open_rows, key=lambda r: r[0])
                open_rows.remove(fullest)
                rows.append(fullest[1])
            best = [LENGTH, []]
            open_rows.append(best)
        best[0] -= size
        best[1].append(index)
        if best[0] == 0:
            open_rows.remove(best)
            rows.append(best[1])
    rows += [r[1] for r in open_rows]
    ids = np.zeros((len(rows), LENGTH), np.int16)
    weights = np.zeros((len(rows), LENGTH), np.float32)
    starts = np.zeros((len(rows), LENGTH), bool)
    for i, members in enumerate(rows):
        at = 0
        for index in members + [members[0]]:
            size = min(len(items[index][0]), LENGTH - at)
            if size <= 0:
                break
            ids[i, at:at + size] = items[index][0][:size]
            weights[i, at:at + size] = items[index][1][:size]
            weights[i, at] = 0  # nothing foretells a first token
            starts[i, at] = True
            at += size
        starts[i, at:] = True
    return ids, weights, starts


def read_texts(path):
    with open(path, encoding="utf-8") as lines:
        return [json.loads(line) for line in lines]
