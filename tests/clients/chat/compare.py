#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Random conversations: the renderer's prompts are those of the template.

    compare.py RENDER_LINES [COUNT [SEED]]

RENDER_LINES is the test program of that name. Exit status 77 without Jinja (Debian's
python3-jinja2).
"""

import json
import random
import subprocess
import sys

try:
    from reference import Refused, TEMPLATES, prompt
except ImportError:
    print("compare.py: skipped, python3-jinja2 is not installed")
    sys.exit(77)

PIECES = [
    "<think>", "</think>", "<tool_call>", "</tool_call>", "<tool_response>", "</tool_response>",
    "<|im_start|>", "<|im_end|>", "\n", "\n\n", " ", "\t", "\u00a0", "\u3000", "\u200b", "\u0085",
    "\x1c", "\x1b", "\x7f", "\u2028", "word", "Grüße", "生活", "😊", "{", "}", "{{ x }}", "{% if %}",
    '"', "'", "\\", "&", "<", ">", "a", "0", "True", "null", "",
]  # fmt: skip
KEYS = ["a", "b", "city", "x y", "", "ä", 'q"', "<b>", "a\nb"]


class Conversations:
    def __init__(self, seed):
        self.random = random.Random(seed)

    def text(self, most=6):
        return "".join(self.random.choices(PIECES, k=self.random.randint(0, most)))

    def number(self):
        pick = self.random
        return pick.choice([
            pick.randint(-10, 10),
            pick.randint(-(2**63), 2**64 - 1),
            float(pick.randint(-1000, 1000)),
            pick.uniform(-2, 2),
            pick.uniform(-1, 1) * 10.0 ** pick.randint(-320, 307),
            round(pick.uniform(-100, 100), pick.randint(0, 4)),
            -0.0,
        ])  # fmt: skip

    def json(self, depth=3):
        kind = self.random.randint(0, 7 if depth > 0 else 4)
        if kind == 0:
            return self.text()
        if kind == 1:
            return self.number()
        if kind < 5:
            return self.random.choice([True, False, None])
        if kind == 5:
            return [self.json(depth - 1) for _ in range(self.random.randint(0, 3))]
        return self.object(depth - 1)

    def object(self, depth=2):
        return {key: self.json(depth) for key in self.random.sample(KEYS, self.random.randint(0, 4))}

    def part(self, media):
        kind = self.random.randint(0, 9) if media else 9
        if kind == 0:
            return self.random.choice([{"type": "image"}, {"image": 1}, {"image_url": None}])
        if kind == 1:
            return self.random.choice([{"type": "video"}, {"video": "x"}])
        return self.random.choice([{"text": self.text()}, {"type": "text", "text": self.text()}])

    def content(self, media=True):
        kind = self.random.randint(0, 9)
        if kind == 0:
            return None
        if kind < 3:
            return [self.part(media) for _ in range(self.random.randint(0, 4))]
        return self.text()

    def call(self):
        arguments = self.object()
        function = {"name": self.text(2)}
        if self.random.random() < 0.9:
            as_text = self.random.random() < 0.4
            function["arguments"] = json.dumps(arguments) if as_text else arguments
        return {"function": function} if self.random.random() < 0.7 else function

    def message(self):
        role = self.random.choices(
            ["user", "assistant", "tool", "system", "developer"], weights=[40, 40, 30, 2, 2]
        )[0]
        message = {"role": role}
        if self.random.random() < 0.95:
            message["content"] = self.content(role not in ("system", "developer"))
        if role == "user" and self.random.random() < 0.2:
            message["content"] = "<tool_response>" + self.text() + "</tool_response>"
        if role == "assistant":
            if self.random.random() < 0.4:
                message["reasoning_content"] = self.random.choice([None, self.text(), self.text()])
            if self.random.random() < 0.4:
                message["tool_calls"] = [self.call() for _ in range(self.random.randint(0, 3))]
        return message

    def request(self):
        request = {"messages": [self.message() for _ in range(self.random.randint(0, 8))]}
        if self.random.random() < 0.7:
            request["messages"].insert(0, {"role": "user", "content": self.content()})
        if self.random.random() < 0.3:
            request["messages"].insert(0, {"role": "system", "content": self.content(False)})
        if self.random.random() < 0.3:
            request["tools"] = [self.object() for _ in range(self.random.randint(0, 3))]
        for name in ("enable_thinking", "preserve_thinking", "add_generation_prompt"):
            if self.random.random() < 0.5:
                request[name] = self.random.random() < 0.5
        for name in ("merge_system", "omit_empty_thinking", "add_vision_id"):
            request[name] = self.random.random() < 0.3
        request["chat_template"] = self.random.choice(list(TEMPLATES))
        return request


def expected(request):
    try:
        return prompt(request)
    except Refused:
        return None


def main():
    program = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    conversations = Conversations(seed)
    requests = [conversations.request() for _ in range(count)]
    lines = "".join(json.dumps(request) + "\n" for request in requests)
    result = subprocess.run([program], input=lines.encode(), stdout=subprocess.PIPE, check=True)
    answers = result.stdout.decode().split("\n")[:-1]
    if len(answers) != count:
        sys.exit(f"compare.py: {count} requests, {len(answers)} answers")
    refused = 0
    for request, line in zip(requests, answers):
        answer = json.loads(line)
        wanted = expected(request)
        refused += wanted is None
        found = None if isinstance(answer, dict) else answer
        if found != wanted:
            print("compare.py: a prompt differs from the template's")
            print("request: ", json.dumps(request))
            print("template:", json.dumps(wanted))
            print("renderer:", line)
            sys.exit(1)
    if refused == count:
        sys.exit("compare.py: the template refused every request")
    print(f"{count} conversations of seed {seed}, {refused} of them refused by both")


if __name__ == "__main__":
    main()
