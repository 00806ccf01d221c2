# SPDX-License-Identifier: Apache-2.0
"""Writes what the model is asked after training, and what its replies must be.

usage: cases.py CASES TEXT
CASES gets a JSON object a line: "kind", "request" (a chat request) and "wants", all of which must
hold: "content" (the reply has it), "any" (one of them), "ends", "call" (the one call), "thinks".
TEXT gets plain text of the small world. Neither has a sum, or a seed, that training saw.
"""
import json
import random
import sys

import dialogues as d
import words

SEED = 3


def case(kind, messages, wants, thinking=False, tools=None):
    if isinstance(messages, str):
        messages = [{"role": "user", "content": messages}]
    request = {"messages": messages, "enable_thinking": thinking}
    if tools:
        request["tools"] = tools
    return {"kind": kind, "request": request, "wants": {"thinks": thinking, **wants}}


def sums(rng):
    pairs = [(a, b) for a in range(100) for b in range(100 - a)
             if a + b >= 10 and d.is_held_out(a, b)]
    for thinking, kind, count in ((False, "sum", 100), (True, "sum, thinking", 50)):
        for a, b in rng.sample(pairs, count):
            yield case(kind, d.sum_question(rng, a, b), {"content": f"= {a + b}."}, thinking)


def calls(rng):
    """First the call; then, in a request with its result, the answer."""
    for i in range(100):
        if i % 2:
            e = d.calculator_call(rng)
        else:
            e = d.weather_call(rng)
            if i % 4:
                continue
        if i % 8 == 0:
            city = words.HELD_OUT_CITIES[i // 8 % 8]
            e = renamed(e, city)
        function, key, value, answer = e.call
        tools = d.tools_for(rng, {function})
        thinking = i % 3 == 0
        yield case("tool call", e.user, {"call": {"name": function, "arguments": {key: value}}},
                   thinking, tools)
        messages = [{"role": "user", "content": e.user},
                    {"role": "assistant", "content": "",
                     "reasoning_content": e.thought if thinking else "", "tool_calls": [
                        {"type": "function", "function": {"name": function,
                                                          "arguments": {key: value}}}]},
                    {"role": "tool", "content": answer}]
        yield case("tool result", messages, {"content": answer.split(",")[0]}, thinking, tools)


def renamed(e, city):
    old = e.call[2]
    return d.Exchange(e.user.replace(old, city), e.reply.replace(old, city),
                      e.thought.replace(old, city), (*e.call[:2], city, e.call[3]))


def facts(rng):
    for make in (d.colour, d.animal, d.calendar, d.opposite, d.counting):
        for _ in range(12):
            e = make(rng)
            yield case("fact", e.user, {"content": e.reply}, rng.random() < 0.5)


def blocks(rng):
    makers = (d.greeting, d.identity, d.addition, d.animal, d.counting, d.opposite, d.unknown)
    for i in range(60):
        e = makers[i % len(makers)](rng)
        yield case("thinking block", e.user, {}, i % 2 == 0)


def stories(rng):
    for hero in list(words.HEROES) * 2:
        yield case("story", rng.choice(["Tell me a story about {}.", "Write a story about {}."])
                   .format(d.with_article(hero)), {"content": hero, "ends": "The end."})


NEW_THINGS = ("Portugal, the Amazon, Beethoven, the steam engine, silver, the kidney, cricket, "
              "the Berlin Wall, Neptune, a laser, the Beatles, calculus, tomatoes, Sanskrit, "
              "the Pacific Ocean, a submarine, philosophy, the Mona Lisa, diabetes, bitcoin").split(", ")


def unknown(rng):
    for thing in NEW_THINGS * 2:
        yield case("unknown", rng.choice(words.UNKNOWN_FORMS).format(thing),
                   {"any": ["do not know"]})


def names(rng):
    for _ in range(20):
        tell, ask = d.name_pair(rng)
        messages = [{"role": "user", "content": tell.user},
                    {"role": "assistant", "content": tell.reply},
                    {"role": "user", "content": ask.user}]
        yield case("remembered name", messages, {"content": ask.reply}, rng.random() < 0.5)


def main():
    cases, text = sys.argv[1:]
    rng = random.Random(SEED)
    with open(cases, "w", encoding="utf-8") as out:
        for make in (sums, calls, facts, blocks, stories, unknown, names):
            for one in make(rng):
                out.write(json.dumps(one) + "\n")
    with open(text, "w", encoding="utf-8") as out:
        out.write("\n".join(d.page(rng) for _ in range(40)))


if __name__ == "__main__":
    main()
