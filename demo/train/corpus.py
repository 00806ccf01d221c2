# SPDX-License-Identifier: Apache-2.0
"""Writes documents of the small world, rendered by the program that will read the model.

usage: corpus.py ZEM TEMPLATE STAGE COUNT SEED OUTPUT
One document a line: JSON of the text.
"""
import json
import random
import subprocess
import sys

import dialogues


def rendered(zem, template, requests):
    lines = "".join(json.dumps(r) + "\n" for r in requests)
    done = subprocess.run([zem, "render", "-", "--lines", "--chat-template-file", template],
                          input=lines, text=True, stdout=subprocess.PIPE, check=True)
    return [json.loads(line) for line in done.stdout.splitlines()]


def documents(zem, template, stage, count, seed):
    rng = random.Random(seed)
    made = [dialogues.document(rng, dialogues.STAGES[stage]) for _ in range(count)]
    chats = iter(rendered(zem, template, [d for kind, d in made if kind == "chat"]))
    return [next(chats) if kind == "chat" else d for kind, d in made]


def main():
    zem, template, stage, count, seed, output = sys.argv[1:]
    with open(output, "w", encoding="utf-8") as out:
        for text in documents(zem, template, stage, int(count), int(seed)):
            out.write(json.dumps(text) + "\n")


if __name__ == "__main__":
    main()
