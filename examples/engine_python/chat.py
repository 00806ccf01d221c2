#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Streams the reply to one message, with the package zem. Ctrl-C ends the reply.

  chat.py MODEL MESSAGE
"""

import sys

import zem


def main(path, message):
    with zem.Model(path) as model:
        stream = model.chat([{"role": "user", "content": message}], stream=True, max_tokens=200)
        try:
            for event in stream:
                if event.kind == "content":
                    print(event.text, end="", flush=True)
        except KeyboardInterrupt:
            pass
        print()
        if stream.reply.usage:
            usage = stream.reply.usage
            print(f"{usage.generated_tokens} tokens in {usage.generate_seconds:.2f} s",
                  file=sys.stderr)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: chat.py MODEL MESSAGE")
    try:
        main(*sys.argv[1:])
    except zem.ZemError as error:
        sys.exit(f"chat.py: {error}")
