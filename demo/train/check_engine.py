# SPDX-License-Identifier: Apache-2.0
"""Holds the engine's probabilities against those of the program that trained the model.

usage: check_engine.py ZEM FOLDER MODEL
MODEL is FOLDER's checkpoint converted with --type f32. Eight held-out texts are continued
greedily; at each step the 20 likeliest tokens must have the same logarithm within 0.002.
"""
import json
import subprocess
import sys

import torch

from data import read_texts
from model import Decoder, Shape
from vocabulary import Encoder

STEPS, LIKELIEST, TOLERANCE = 6, 20, 2e-3


def of_engine(zem, model, ids):
    done = subprocess.run(
        [zem, "run", "-m", model, "--raw", "--ids", ",".join(map(str, ids)), "-n", str(STEPS),
         "--temp", "0", "--presence-penalty", "0", "--cache", "f32", "--json", "--logprobs",
         str(LIKELIEST)], text=True, stdout=subprocess.PIPE, check=True)
    return [r for r in map(json.loads, done.stdout.splitlines()) if "id" in r]


@torch.no_grad()
def log_probabilities(model, ids):
    padded = torch.tensor(ids + [0] * (-len(ids) % 64))[None]
    starts = torch.zeros_like(padded, dtype=torch.bool)
    starts[0, 0] = True
    return model(padded, starts)[0, len(ids) - 1].log_softmax(-1)


def main():
    zem, folder, container = sys.argv[1:]
    held = torch.load(f"{folder}/checkpoint.pt", map_location="cpu")
    model = Decoder(Shape(**held["shape"]))
    model.load_state_dict(held["mean"])
    with open(f"{folder}/tokenizer.json", encoding="utf-8") as file:
        encoder = Encoder(json.load(file))
    worst = compared = 0
    for text in read_texts(f"{folder}/held_out.jsonl")[:8]:
        ids = encoder.encode(text)
        ids = ids[:max(2, len(ids) * 3 // 4)]
        for token in of_engine(zem, container, ids):
            ours = log_probabilities(model, ids)
            for other in token["top"]:
                worst = max(worst, abs(other["logprob"] - ours[other["id"]].item()))
                compared += 1
            ids.append(token["id"])
    print(f"{compared} probabilities, largest difference of their logarithms {worst:.2e}")
    sys.exit(0 if compared >= 8 * LIKELIEST and worst < TOLERANCE else 1)


if __name__ == "__main__":
    main()
