// SPDX-License-Identifier: Apache-2.0
// What the mock server replies, by the beginning of the user's message.

/** The text in pieces of a few letters, as tokens would come; `pause` ms between them. */
function* pieces(text, pause, field = "content") {
  const letters = Array.from(text);
  for (let at = 0; at < letters.length; at += 4) {
    yield { [field]: letters.slice(at, at + 4).join("") };
    if (pause) yield { wait: pause };
  }
}

const kMarkdown = `Here is a small program that adds the numbers of a list, **one by one**.

## The program

\`\`\`python
def total(numbers):
    """The sum of the numbers."""
    result = 0
    for number in numbers:
        result += number  # one after another
    return result


print(total([1, 2, 3]))
\`\`\`

It does three things:

1. It begins with \`result = 0\`.
2. It adds each number:
   - whole numbers stay whole
   - others become floats
3. It gives the sum back.

| Input | Result | Time |
|---|---:|:--:|
| \`[1, 2, 3]\` | 6 | 1 µs |
| \`[]\` | 0 | < 1 µs |

> Python has \`sum()\` for this already.

See [the documentation](https://docs.python.org/3/library/functions.html#sum) for more. H<sub>2</sub>O, <b>bold</b>.`;

export const kAttack = `<img src=x onerror="window.hacked=1"> <script>window.hacked=2</script>

<svg onload="window.hacked=3"><a xlink:href="javascript:window.hacked=4">x</a></svg>

[click](javascript:window.hacked=5) [data](data:text/html,<script>window.hacked=6</script>) [relative](/v1/models)

![picture](https://example.invalid/leak.png?q=1)

<iframe srcdoc="<script>parent.hacked=7</script>"></iframe><style>body{display:none}</style>

\`\`\`js" onmouseover="window.hacked=8
<img src=x onerror="window.hacked=9">
\`\`\`

\`\`\`html
<script>window.hacked=10</script><img src=x onerror="window.hacked=11">
\`\`\`

<details open ontoggle="window.hacked=12"><math><mtext><table><mglyph><style><img src=x onerror="window.hacked=13"></style>

The end of the attack.`;

export const kReplies = {
  plain: { steps: () => pieces("A short reply.", 1) },
  again: { steps: (body) => pieces(`Reply to ${body.messages.length} messages, number ${Math.random()}.`, 0) },
  slow: { steps: () => pieces("word ".repeat(400), 40) },
  markdown: { steps: () => pieces(kMarkdown, 1) },
  attack: { steps: function* () {
    yield* pieces(kAttack, 0, "reasoning_content");
    yield* pieces(kAttack, 1);
  } },
  think: { steps: function* () {
    yield* pieces("The user wants a list.\nI should **keep** it short.\nThree items will do.", 8, "reasoning_content");
    yield* pieces("Apples, pears, plums.", 5);
  } },
  ponder: { steps: function* () {
    yield* pieces("First I look at the question.\nThen I weigh what is known of it.", 5, "reasoning_content");
    yield { wait: 3000 };
    yield { content: "Done." };
  } },
  weather: { finish: "tool_calls", steps: function* (body) {
    if (body.messages.at(-1).role === "tool") return yield* pieces(`The tool said: ${body.messages.at(-1).content}`, 0);
    yield { content: "I look it up." };
    yield { tool_calls: [{ index: 0, id: "call_1", type: "function", function: { name: "get_weather", arguments: "" } }] };
    yield { tool_calls: [{ index: 0, function: { arguments: '{"city": "<img src=x' } }] };
    yield { tool_calls: [{ index: 0, function: { arguments: ' onerror=window.hacked=20>"}' } }] };
  } },
  rtl: { steps: () => pieces("مرحبا! هذه قائمة قصيرة:\n\n- **الأول**: خبز\n- الثاني: ماء\n\nوهذا برنامج:\n\n```python\nprint('hello')\n```\n\nשלום, זה טקסט בעברית. And this sentence is English.\n\nThis paragraph is English again.", 1) },
  progress: { steps: function* () {
    for (let processed = 0; processed <= 8192; processed += 2048) {
      yield { progress: { total: 8192, cache: 0, processed, time_ms: 10 } };
      yield { wait: 400 };
    }
    yield { content: "Read." };
  } },
  long: { finish: "length", steps: () => pieces("This text is cut at the lim", 0) },
  cut: { steps: function* () {
    yield* pieces("This much came before the line broke", 2);
    yield { wait: 150 };
    yield { break: true };
  } },
  garbage: { steps: () => [{ raw: "data: {not json\n\n" }] },
  midway: { steps: () => [{ content: "Half" }, { raw: 'data: {"error":{"message":"The device was lost.","code":"internal"}}\n\n' }] },
  deep: { steps: () => pieces("> ".repeat(30000) + "deep", 0).next().value && [{ content: "> ".repeat(30000) + "deep" }] },
  broken: { refuse: [500, "Something in the server failed."] },
  context: { refuse: [400, "The prompt has 40000 tokens; the context has 32768.", { code: "context_length_exceeded" }] },
  "Your last reply was cut off": { steps: () => pieces("it, and goes on to the end.", 0) },
};
