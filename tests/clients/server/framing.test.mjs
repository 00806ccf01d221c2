// SPDX-License-Identifier: Apache-2.0
// Streams as a parser of events sees them, and bodies cut in pieces of one byte.
import assert from "node:assert/strict";
import { test } from "node:test";
import { createParser } from "eventsource-parser";
import { key, quick } from "./shared.mjs";

const messages = [{ role: "user", content: "Hi" }];
const dialects = [
  ["/v1/chat/completions", { messages, max_tokens: 100, logprobs: true, return_progress: true }, true, false],
  ["/v1/completions", { prompt: ["Once", "Upon"], max_tokens: 50 }, true, false],
  ["/v1/responses", { input: "Hi", max_output_tokens: 100 }, false, true],
  ["/v1/messages", { messages, max_tokens: 100, thinking: { type: "adaptive" } }, false, true],
];

const post = (path, body) => fetch(quick + path, {
  method: "POST", headers: { authorization: `Bearer ${key}`, "content-type": "application/json" }, body: JSON.stringify(body) });

for (const [path, request, hasDone, hasNames] of dialects) {
  test(`${path}: every event is JSON, and nothing else is in the stream`, async () => {
    const reply = await post(path, { ...request, stream: true });
    assert.equal(reply.status, 200);
    assert.match(reply.headers.get("content-type"), /^text\/event-stream/);
    assert.ok(reply.headers.get("x-request-id"));
    const events = [];
    const parser = createParser({ onEvent: (one) => events.push(one), onError: (error) => { throw error; } });
    const text = await reply.text();
    for (const unit of text) parser.feed(unit);
    assert.ok(text.endsWith("\n\n"));
    assert.ok(text.split("\n").every((line) => line === "" || /^(data|event): |^:/.test(line)));
    if (hasDone) assert.equal(events.pop().data, "[DONE]");
    assert.ok(events.length > 2);
    for (const { event, data } of events) {
      const value = JSON.parse(data);
      assert.ok(!value.error);
      assert.equal(event, hasNames ? value.type : undefined);
    }
  });
}

test("a stream of lines is JSON line by line", async () => {
  for (const path of ["/api/chat", "/api/generate"]) {
    const reply = await post(path, { model: "model", messages, prompt: "Hi", options: { num_predict: 30 } });
    assert.match(reply.headers.get("content-type"), /^application\/x-ndjson/);
    const lines = (await reply.text()).split("\n");
    assert.equal(lines.pop(), "");
    assert.deepEqual(lines.map((line) => JSON.parse(line).done), lines.map((_, i) => i === lines.length - 1));
  }
});
