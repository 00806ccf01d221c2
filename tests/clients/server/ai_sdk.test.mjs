// SPDX-License-Identifier: Apache-2.0
import assert from "node:assert/strict";
import { describe, test } from "node:test";
import { createOpenAICompatible } from "@ai-sdk/openai-compatible";
import { APICallError, RetryError, generateText, jsonSchema, Output, stepCountIs, streamText, tool } from "ai";
import { assertFreed, assertValid, clock, counting, key, quick, slow, weather, whileFull } from "./shared.mjs";

const make = (server = quick, more = {}) => createOpenAICompatible({
  name: "zem", baseURL: `${server}/v1`, apiKey: key, includeUsage: true, supportsStructuredOutputs: true, ...more })("model");
const model = make();
const noThinking = { providerOptions: { zem: { chat_template_kwargs: { enable_thinking: false } } } };
const tools = Object.fromEntries([weather, clock].map((one) =>
  [one.name, tool({ description: one.description, inputSchema: jsonSchema(one.parameters) })]));
const base = { model, prompt: "Hi", seed: 3, maxRetries: 0 };

for (const thinks of [true, false]) {
  test(`a stream ${thinks ? "that thinks" : "without thinking"} is the whole reply`, async () => {
    const request = { ...base, maxOutputTokens: 200, ...(thinks ? {} : noThinking) };
    const whole = await generateText(request);
    const stream = streamText({ ...request, onError: () => {} });
    const parts = [];
    for await (const part of stream.fullStream) parts.push(part);
    assert.deepEqual(parts.filter((one) => one.type === "error"), []);
    assert.equal(await stream.text, whole.text);
    assert.equal((await stream.reasoningText) ?? "", whole.reasoningText ?? "");
    assert.equal(Boolean(whole.reasoningText), thinks);
    assert.match(whole.finishReason, /^(stop|length)$/);
    assert.equal(await stream.finishReason, whole.finishReason);
    const usage = await stream.usage;
    assert.ok(usage.inputTokens > 0);
    assert.equal(usage.outputTokens, whole.usage.outputTokens);
    assert.equal(usage.totalTokens, usage.inputTokens + usage.outputTokens);
    assert.equal(usage.outputTokenDetails.reasoningTokens > 0, thinks);
  });
}

for (const toolChoice of ["required", { type: "tool", toolName: "weather" }]) {
  test(`tools: choice ${JSON.stringify(toolChoice)}, streamed as whole`, async () => {
    const request = { ...base, tools, toolChoice, maxOutputTokens: 2000, providerOptions: { zem: { ...noThinking.providerOptions.zem, parallel_tool_calls: false } } };
    const whole = await generateText(request);
    const stream = streamText({ ...request, onError: () => {} });
    assert.equal(whole.finishReason, "tool-calls");
    assert.equal(await stream.finishReason, "tool-calls");
    for (const calls of [whole.toolCalls, await stream.toolCalls]) {
      assert.equal(calls.length, 1);
      assert.ok(!calls[0].invalid && calls[0].toolCallId);
      const { parameters } = [weather, clock].find((one) => one.name === calls[0].toolName);
      assertValid(parameters, calls[0].input);
      assert.deepEqual(calls[0].input, whole.toolCalls[0].input);
    }
  });
}

test("tools: the answer of a tool goes back", async () => {
  const answers = { weather: tool({ inputSchema: jsonSchema(weather.parameters), execute: async () => "rain" }) };
  const reply = await generateText({ ...base, tools: answers, toolChoice: "required", stopWhen: stepCountIs(2), maxOutputTokens: 600, ...noThinking });
  assert.equal(reply.steps.length, 2);
});

test("structured output is parsed, whole and streamed", async () => {
  const request = { ...base, output: Output.object({ schema: jsonSchema(weather.parameters) }), maxOutputTokens: 2000, ...noThinking };
  for (let seed = 1; seed <= 4; ++seed) {
    const whole = await generateText({ ...request, seed });
    assertValid(weather.parameters, whole.output);
    const stream = streamText({ ...request, seed });
    assert.deepEqual(await stream.output, whole.output);
  }
});

describe("errors", () => {
  const fails = async (members, status) => {
    const fetch = counting();
    const { apiKey = key, ...rest } = members;
    await assert.rejects(generateText({ ...base, maxRetries: 2, model: make(quick, { fetch, apiKey }), ...rest }), (error) =>
      APICallError.isInstance(error) && error.statusCode === status && !error.isRetryable && error.data.error.message.length > 0);
    assert.equal(fetch.requests, 1);
  };
  test("a wrong value: 400, asked once", () => fails({ temperature: -1 }, 400));
  test("an unknown key: 401, asked once", () => fails({ apiKey: "other" }, 401));
  test("a full server: 429, asked again", () => whileFull(async () => {
    const fetch = counting();
    await assert.rejects(generateText({ ...base, maxRetries: 1, model: make(slow, { fetch }) }), (error) =>
      RetryError.isInstance(error) && error.lastError.statusCode === 429);
    assert.equal(fetch.requests, 2);
  }));
});

test("a stream that is aborted frees the place", () => assertFreed(async () => {
  const controller = new AbortController();
  const stream = streamText({ ...base, model: make(slow), maxOutputTokens: 8000, abortSignal: controller.signal, onError: () => {} });
  for await (const part of stream.fullStream) {
    if (part.type.endsWith("delta")) controller.abort();
  }
}));
