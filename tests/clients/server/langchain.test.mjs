// SPDX-License-Identifier: Apache-2.0
import assert from "node:assert/strict";
import { describe, test } from "node:test";
import { ChatOpenAI, ChatOpenAIResponses } from "@langchain/openai";
import { assertFreed, assertValid, clock, counting, key, quick, slow, weather, wrapped } from "./shared.mjs";

const make = (more = {}, server = quick) => new ChatOpenAI({
  model: "model", apiKey: key, maxRetries: 0, maxTokens: 1500, modelKwargs: { seed: 3, chat_template_kwargs: { enable_thinking: false } },
  ...more, configuration: { baseURL: `${server}/v1`, ...more.configuration } });
const tools = [wrapped(weather), wrapped(clock)];

test("a message and its usage", async () => {
  const reply = await make({ maxTokens: 20 }).invoke("Hi");
  assert.equal(typeof reply.content, "string");
  const { input_tokens: read, output_tokens: written, total_tokens: all } = reply.usage_metadata;
  assert.ok(read > 0 && written > 0);
  assert.equal(all, read + written);
  assert.match(reply.response_metadata.finish_reason, /^(stop|length)$/);
});

test("a stream is the whole message, usage comes once", async () => {
  const model = make({ maxTokens: 100, streamUsage: true });
  const whole = await model.invoke("Hi");
  let message;
  let usages = 0;
  for await (const chunk of await model.stream("Hi")) {
    message = message ? message.concat(chunk) : chunk;
    if (chunk.usage_metadata) ++usages;
  }
  assert.equal(message.content, whole.content);
  assert.equal(usages, 1);
  assert.equal(message.usage_metadata.output_tokens, whole.usage_metadata.output_tokens);
  assert.equal(message.response_metadata.finish_reason, whole.response_metadata.finish_reason);
});

for (const choice of ["required", "weather"]) {
  test(`tools: choice ${choice}, streamed as whole`, async () => {
    const model = make().bindTools(tools, { tool_choice: choice, parallel_tool_calls: false });
    const whole = await model.invoke("Hi");
    let message;
    for await (const chunk of await model.stream("Hi")) message = message ? message.concat(chunk) : chunk;
    for (const { tool_calls: calls, invalid_tool_calls: invalid } of [whole, message]) {
      assert.equal(calls.length, 1);
      assert.deepEqual(invalid ?? [], []);
      assert.ok(calls[0].id);
      assertValid(tools.find((one) => one.function.name === calls[0].name).function.parameters, calls[0].args);
    }
    assert.deepEqual(message.tool_calls[0].args, whole.tool_calls[0].args);
  });
}

for (const method of ["jsonSchema", "functionCalling"]) {
  test(`structured output by ${method}`, async () => {
    const reply = await make().withStructuredOutput(weather.parameters, { method, name: "forecast" }).invoke("Hi");
    assertValid(weather.parameters, reply);
  });
}

test("responses", async () => {
  // The client takes the usage of replies that come to their end: a form brings them there.
  const text = { format: { type: "json_schema", name: "forecast", schema: weather.parameters } };
  const model = new ChatOpenAIResponses({
    model: "model", apiKey: key, maxRetries: 0, maxTokens: 2000, temperature: 0,
    modelKwargs: { text, reasoning: { effort: "none" } }, configuration: { baseURL: `${quick}/v1` } });
  const whole = await model.invoke("Hi");
  let message;
  for await (const chunk of await model.stream("Hi")) message = message ? message.concat(chunk) : chunk;
  assertValid(weather.parameters, JSON.parse(whole.text));
  assert.equal(message.text, whole.text);
  assert.equal(message.usage_metadata.output_tokens, whole.usage_metadata.output_tokens);
});

describe("errors", () => {
  const fails = async (more, status) => {
    const fetch = counting();
    await assert.rejects(make({ maxRetries: 2, ...more, configuration: { fetch } }).invoke("Hi"), (error) => error.status === status);
    assert.equal(fetch.requests, 1);
  };
  test("a wrong value: 400, asked once", () => fails({ temperature: -1 }, 400));
  test("an unknown key: 401, asked once", () => fails({ apiKey: "other" }, 401));
});

test("a stream that is aborted frees the place", () => assertFreed(async () => {
  const controller = new AbortController();
  const stream = await make({ maxTokens: 8000 }, slow).stream("Hi", { signal: controller.signal });
  await assert.rejects(async () => { for await (const _ of stream) controller.abort(); });
}));
