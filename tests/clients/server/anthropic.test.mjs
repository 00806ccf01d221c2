// SPDX-License-Identifier: Apache-2.0
import assert from "node:assert/strict";
import { describe, test } from "node:test";
import Anthropic from "@anthropic-ai/sdk";
import { zodOutputFormat } from "@anthropic-ai/sdk/helpers/zod";
import { z } from "zod/v4";
import { assertFreed, assertValid, clock, counting, free, key, quick, slow, weather, whileFull } from "./shared.mjs";

const make = (server, more = {}) => new Anthropic({ baseURL: server, apiKey: key, maxRetries: 0, ...more });
const client = make(quick);
const messages = [{ role: "user", content: "Hi" }];
const tools = [weather, clock].map(({ parameters, ...one }) => ({ ...one, input_schema: parameters }));

test("a message", async () => {
  const { data, response } = await client.messages.create({ model: "model", max_tokens: 40, system: "Be short", messages }).withResponse();
  assert.ok(response.headers.get("x-request-id"));
  assert.equal(data.type, "message");
  assert.equal(data.role, "assistant");
  assert.match(data.stop_reason, /^(end_turn|max_tokens)$/);
  assert.ok(data.content.every((one) => one.type === "text"));
  assert.ok(data.usage.input_tokens + data.usage.cache_read_input_tokens > 0);
  assert.ok(data.usage.output_tokens > 0);
});

test("the length of a message is its usage", async () => {
  const counted = await client.messages.countTokens({ model: "model", messages, tools });
  const { usage } = await client.messages.create({ model: "model", max_tokens: 1, messages, tools });
  assert.equal(counted.input_tokens, usage.input_tokens + usage.cache_read_input_tokens);
});

test("models", async () => {
  const ids = [];
  for await (const model of client.models.list()) ids.push(model.id);
  assert.deepEqual(ids, ["model"]);
});

for (const type of ["disabled", "adaptive"]) {
  test(`a stream with thinking ${type}: blocks in order, the message of the helper is the whole one`, async () => {
    const request = { model: "model", max_tokens: 400, messages, temperature: 0, thinking: { type } };
    const whole = await client.messages.create(request);
    const stream = client.messages.stream(request);
    let open = null;
    let next = 0;
    const types = [];
    for await (const event of stream) {
      types.push(event.type);
      if (event.type === "content_block_start") {
        assert.equal(open, null);
        assert.equal(event.index, next++);
        open = event.index;
      } else if (event.type.startsWith("content_block")) {
        assert.equal(event.index, open);
        if (event.type === "content_block_stop") open = null;
      }
    }
    assert.equal(types[0], "message_start");
    assert.deepEqual(types.slice(-2), ["message_delta", "message_stop"]);
    const streamed = await stream.finalMessage();
    assert.deepEqual(streamed.content, whole.content);
    assert.equal(streamed.stop_reason, whole.stop_reason);
    assert.equal(streamed.usage.output_tokens, whole.usage.output_tokens);
    assert.equal(streamed.content[0]?.type === "thinking", type === "adaptive");
  });
}

test("a stop text names itself", async () => {
  const { content: [block] } = await client.messages.create({ model: "model", max_tokens: 40, messages, temperature: 0 });
  const stop = block.text.replaceAll("\ufffd", " ").trim().split(/\s+/).find((word) => word.length > 0)[0];
  const reply = await client.messages.create({ model: "model", max_tokens: 40, messages, temperature: 0, stop_sequences: [stop] });
  assert.equal(reply.stop_reason, "stop_sequence");
  assert.equal(reply.stop_sequence, stop);
  assert.ok(!reply.content.some((one) => one.text.includes(stop)));
});

for (const [what, choice] of [["any", { type: "any" }], ["named", { type: "tool", name: "weather" }]]) {
  test(`tools: ${what}, the call fits its schema, streamed as whole, its answer is taken back`, async () => {
    const request = { model: "model", max_tokens: 2000, messages, tools, temperature: 0, tool_choice: { ...choice, disable_parallel_tool_use: true } };
    const whole = await client.messages.create(request);
    const streamed = await client.messages.stream(request).finalMessage();
    for (const reply of [whole, streamed]) {
      assert.equal(reply.stop_reason, "tool_use");
      const calls = reply.content.filter((one) => one.type === "tool_use");
      assert.equal(calls.length, 1);
      if (what === "named") assert.equal(calls[0].name, "weather");
      assertValid(tools.find((one) => one.name === calls[0].name).input_schema, calls[0].input);
      const answer = { type: "tool_result", tool_use_id: calls[0].id, content: "rain" };
      const next = await client.messages.create({ model: "model", max_tokens: 5, tools, messages: [
        ...messages, { role: "assistant", content: reply.content }, { role: "user", content: [answer] }] });
      assert.equal(next.type, "message");
    }
    assert.deepEqual(streamed.content.map(({ id, ...one }) => one), whole.content.map(({ id, ...one }) => one));
  });
}

test("structured output is parsed", async () => {
  const format = zodOutputFormat(z.object({ sky: z.enum(["rain", "sun"]), sure: z.boolean(), days: z.array(z.enum(["mo", "tu"])) }));
  for (const content of ["Hi", "Ho", "Ha"]) {
    const request = { model: "model", max_tokens: 3000, messages: [{ role: "user", content }], output_config: { format } };
    const reply = await client.messages.parse(request);
    assertValid(format.schema, reply.parsed_output);
    const streamed = await client.messages.stream(request).finalMessage();
    assertValid(format.schema, streamed.parsed_output);
  }
});

describe("errors", () => {
  const fails = async (more, members, expected) => {
    const counted = counting();
    const { server = quick, ...options } = more;
    if (server === slow) await free();
    const one = make(server, { fetch: counted, maxRetries: 2, ...options });
    await assert.rejects(async () => {
      const reply = await one.messages.create({ model: "model", max_tokens: 10, messages, ...members });
      if (members.stream) for await (const _ of reply);
    }, expected);
    assert.equal(counted.requests, 1);
  };
  test("a wrong value: 400", () => fails({}, { temperature: -1 }, (error) =>
    error instanceof Anthropic.BadRequestError && error.error.error.type === "invalid_request_error" && /temperature/.test(error.message)));
  test("a stream with a wrong value: 400", () => fails({}, { messages: [], stream: true }, Anthropic.BadRequestError));
  test("an unknown key: 401", () => fails({ apiKey: "other" }, {}, Anthropic.AuthenticationError));
  test("a prompt that does not fit: 400", () =>
    fails({}, { messages: [{ role: "user", content: "word ".repeat(2000) }] }, Anthropic.BadRequestError));
  test("a reply that takes too long: asked once", () =>
    fails({ server: slow }, { max_tokens: 8000 }, (error) => error instanceof Anthropic.APIError && error.status === 408));
  test("a stream that takes too long ends with an error", () =>
    fails({ server: slow }, { max_tokens: 8000, stream: true }, Anthropic.APIError));
  test("a full server: 429, asked again", () => whileFull(async () => {
    const counted = counting();
    const one = make(slow, { fetch: counted, maxRetries: 1 });
    await assert.rejects(one.messages.create({ model: "model", max_tokens: 10, messages }), Anthropic.RateLimitError);
    assert.equal(counted.requests, 2);
  }));
});

describe("leaving frees the place", () => {
  const long = { model: "model", max_tokens: 8000, messages };
  test("a stream that is broken off", () => assertFreed(async () => {
    for await (const _ of make(slow).messages.stream(long)) break;
  }));
  test("a stream that is aborted after its first text", () => assertFreed(async () => {
    const stream = make(slow).messages.stream(long);
    stream.on("text", () => stream.abort());
    await assert.rejects(stream.done(), Anthropic.APIUserAbortError);
  }));
  test("a whole reply that the client waits for too short a time", () => assertFreed(() =>
    assert.rejects(make(slow).messages.create(long, { timeout: 300 }), Anthropic.APIConnectionTimeoutError)));
});
