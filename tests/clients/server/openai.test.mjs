// SPDX-License-Identifier: Apache-2.0
import assert from "node:assert/strict";
import { describe, test } from "node:test";
import { z } from "zod";
import OpenAI6 from "openai";
import { LengthFinishReasonError as Length6 } from "openai/error";
import * as zod6 from "openai/helpers/zod";
import OpenAI4 from "openai-4";
import { LengthFinishReasonError as Length4 } from "openai-4/error";
import * as zod4 from "openai-4/helpers/zod";
import {
  assertFreed, assertValid, clock, counting, free, key, quick, slow, weather, whileFull, wrapped,
} from "./shared.mjs";

const user = [{ role: "user", content: "Hi" }];
const noThinking = { chat_template_kwargs: { enable_thinking: false } };
const forecast = z.object({ city: z.string().regex(/^[a-z]{1,8}$/), kind: z.enum(["rain", "sun"]) });
const tools = [wrapped(weather), wrapped(clock)];

function assertUsage(usage) {
  assert.ok(usage.prompt_tokens > 0);
  assert.equal(usage.total_tokens, usage.prompt_tokens + usage.completion_tokens);
  assert.ok(usage.prompt_tokens_details.cached_tokens <= usage.prompt_tokens);
  assert.ok(usage.completion_tokens_details.reasoning_tokens <= usage.completion_tokens);
}

async function collect(stream) {
  const all = [];
  for await (const one of stream) all.push(one);
  return all;
}

for (const [name, OpenAI, TooLong, { zodResponseFormat, zodTextFormat }] of [
  ["openai 6", OpenAI6, Length6, zod6],
  ["openai 4", OpenAI4, Length4, zod4],
]) {
  const make = (server, more = {}) => new OpenAI({ baseURL: `${server}/v1`, apiKey: key, maxRetries: 0, ...more });
  const client = make(quick);
  const helpers = client.chat.completions.stream ? client.chat.completions : client.beta.chat.completions;

  describe(name, () => {
    test("models", async () => {
      const models = await collect(client.models.list());
      assert.deepEqual(models.map((one) => one.id), ["model"]);
      assert.equal((await client.models.retrieve("model")).object, "model");
    });

    test("chat: the same seed gives the same reply, choices have places of their own", async () => {
      const request = { model: "model", messages: user, max_tokens: 30, seed: 5, n: 2 };
      const { data, response } = await client.chat.completions.create(request).withResponse();
      assert.ok(response.headers.get("x-request-id"));
      assert.deepEqual(data.choices.map((one) => one.index), [0, 1]);
      for (const choice of data.choices) {
        assert.equal(choice.message.role, "assistant");
        assert.match(choice.finish_reason, /^(stop|length)$/);
      }
      assertUsage(data.usage);
      const again = await client.chat.completions.create(request);
      assert.notEqual(again.id, data.id);
      assert.deepEqual(again.choices, data.choices);
    });

    test("chat: log-probabilities are finite, their bytes are the content", async () => {
      const { choices: [choice] } = await client.chat.completions.create({
        model: "model", messages: user, max_tokens: 20, seed: 4, logprobs: true, top_logprobs: 3, ...noThinking });
      const tokens = choice.logprobs.content;
      assert.ok(tokens.length > 0);
      assert.ok(tokens.every((one) => Number.isFinite(one.logprob) && one.top_logprobs.length === 3));
      const bytes = Uint8Array.from(tokens.flatMap((one) => one.bytes));
      assert.equal(new TextDecoder("utf-8", { ignoreBOM: true }).decode(bytes), choice.message.content);
    });

    for (const thinks of [true, false]) {
      test(`chat: a stream ${thinks ? "that thinks" : "without thinking"} is the whole reply`, async () => {
        const request = { model: "model", messages: user, max_tokens: 300, seed: 7, chat_template_kwargs: { enable_thinking: thinks } };
        const whole = await client.chat.completions.create(request);
        const chunks = await collect(await client.chat.completions.create({
          ...request, stream: true, stream_options: { include_usage: true } }));
        assert.equal(new Set(chunks.map((one) => one.id)).size, 1);
        assert.ok(chunks.every((one) => one.model === "model" && one.object === "chat.completion.chunk"));
        const last = chunks.at(-1);
        assert.deepEqual(last.choices, []);
        assertUsage(last.usage);
        const rest = chunks.slice(0, -1);
        assert.ok(rest.every((one) => one.usage === null && one.choices[0].index === 0));
        const choices = rest.map((one) => one.choices[0]);
        assert.equal(choices[0].delta.role, "assistant");
        assert.ok(choices.slice(1).every((one) => !("role" in one.delta)));
        assert.ok(choices.slice(0, -1).every((one) => one.finish_reason === null));
        assert.deepEqual(choices.at(-1).delta, {});
        const [choice] = whole.choices;
        assert.equal(choices.at(-1).finish_reason, choice.finish_reason);
        const joined = (member) => choices.map((one) => one.delta[member] ?? "").join("");
        assert.equal(joined("content"), choice.message.content);
        assert.equal(joined("reasoning_content"), choice.message.reasoning_content ?? "");
        assert.equal(last.usage.completion_tokens, whole.usage.completion_tokens);
        assert.equal(last.usage.completion_tokens_details.reasoning_tokens > 0, thinks);
      });
    }

    test("chat: the stream helper makes the message", async () => {
      const stream = helpers.stream({ model: "model", messages: user, max_tokens: 30, seed: 9, stream_options: { include_usage: true }, ...noThinking });
      let said = "";
      stream.on("content", (delta) => { said += delta; });
      const reply = await stream.finalChatCompletion();
      assert.equal(reply.choices[0].message.content, said);
      assert.ok((await stream.totalUsage()).completion_tokens > 0);
    });

    for (const [what, choice, names] of [
      ["required", "required", ["weather", "clock"]],
      ["named", { type: "function", function: { name: "weather" } }, ["weather"]],
    ]) {
      test(`tools: ${what}, the call fits its schema, streamed as whole`, async () => {
        for (let seed = 1; seed <= 4; ++seed) {
          const request = { model: "model", messages: user, tools, tool_choice: choice, parallel_tool_calls: false, max_tokens: 1000, seed, ...noThinking };
          const whole = await client.chat.completions.create(request);
          assert.equal(whole.choices[0].finish_reason, "tool_calls");
          const { content, tool_calls: calls } = whole.choices[0].message;
          assert.ok(content === null || typeof content === "string");
          assert.equal(calls.length, 1);
          assert.equal(calls[0].type, "function");
          assert.ok(calls[0].id);
          assert.ok(names.includes(calls[0].function.name));
          const { parameters } = tools.find((one) => one.function.name === calls[0].function.name).function;
          assertValid(parameters, JSON.parse(calls[0].function.arguments));

          const streamed = await helpers.stream(request).finalChatCompletion();
          assert.equal(streamed.choices[0].finish_reason, "tool_calls");
          const [call] = streamed.choices[0].message.tool_calls;
          assert.ok(call.id);
          assert.equal(call.function.name, calls[0].function.name);
          assert.equal(call.function.arguments, calls[0].function.arguments);
        }
      });
    }

    test("tools: several calls have places and ids of their own", async () => {
      let most = 0;
      // Tokens of the quick model are bytes, and then its special ones.
      const favoured = { 10: 8, 261: 8 }; // line feed, <tool_call>
      for (let seed = 1; seed <= 12; ++seed) {
        const reply = await helpers.stream({ model: "model", messages: user, tools, tool_choice: "required", max_tokens: 1500, seed, logit_bias: favoured, ...noThinking }).finalChatCompletion();
        const calls = reply.choices[0].message.tool_calls;
        assert.equal(new Set(calls.map((one) => one.id)).size, calls.length);
        most = Math.max(most, calls.length);
      }
      assert.ok(most > 1, "no reply had several calls");
    });

    test("tools: the runner calls the function", async () => {
      const told = [];
      const runner = helpers.runTools({
        model: "model", messages: user, max_tokens: 1000, seed: 3, tool_choice: { type: "function", function: { name: "weather" } }, ...noThinking,
        tools: [{ type: "function", function: { ...weather, parse: JSON.parse, function: (given) => { told.push(given); return "rain"; } } }] });
      await runner.done();
      assert.equal(told.length, 1);
      assertValid(weather.parameters, told[0]);
    });

    test("tools: the server takes a call and its answer back", async () => {
      const call = { id: "call_1", type: "function", function: { name: "weather", arguments: '{"city":"Rome","days":1}' } };
      const reply = await client.chat.completions.create({ model: "model", max_tokens: 10, tools, messages: [
        ...user, { role: "assistant", content: null, tool_calls: [call] }, { role: "tool", tool_call_id: "call_1", content: "rain" }] });
      assert.ok(reply.usage.prompt_tokens > 0);
    });

    test("structured output: the helper parses it", async () => {
      const format = zodResponseFormat(forecast, "forecast");
      for (let seed = 1; seed <= 4; ++seed) {
        const request = { model: "model", messages: user, response_format: format, max_tokens: 1000, seed, ...noThinking };
        const reply = await helpers.parse(request);
        const [{ message, finish_reason: reason }] = reply.choices;
        assert.equal(reason, "stop");
        assertValid(format.json_schema.schema, JSON.parse(message.content));
        assert.deepEqual(message.parsed, JSON.parse(message.content));
        const streamed = await helpers.stream(request).finalChatCompletion();
        assert.deepEqual(streamed.choices[0].message.parsed, message.parsed);
      }
    });

    test("structured output: any object", async () => {
      const reply = await client.chat.completions.create({ model: "model", messages: user, max_tokens: 3000, seed: 2, response_format: { type: "json_object" }, ...noThinking });
      if (reply.choices[0].finish_reason === "stop") assertValid({ type: "object" }, JSON.parse(reply.choices[0].message.content));
    });

    test("structured output that is cut says length", async () => {
      const request = { model: "model", messages: user, max_tokens: 3, response_format: zodResponseFormat(forecast, "forecast"), ...noThinking };
      await assert.rejects(helpers.parse(request), TooLong);
    });

    test("responses: a stream is whole, its helper makes the answer", async () => {
      const request = { model: "model", input: "Hi", instructions: "Be short", max_output_tokens: 400, temperature: 0 };
      const whole = await client.responses.create(request);
      assert.equal(whole.object, "response");
      assert.match(whole.status, /^(completed|incomplete)$/);
      assert.equal(whole.usage.total_tokens, whole.usage.input_tokens + whole.usage.output_tokens);
      const stream = client.responses.stream(request);
      const events = await collect(stream);
      assert.equal(events[0].type, "response.created");
      assert.deepEqual(events.map((one) => one.sequence_number), events.map((_, i) => i));
      const streamed = await stream.finalResponse();
      const said = (reply) => reply.output.map((one) => [one.type, one.content[0].text]);
      assert.deepEqual(said(streamed), said(whole));
      assert.deepEqual(streamed.usage.output_tokens, whole.usage.output_tokens);
    });

    test("responses: tools, required and named", async () => {
      const flat = [weather, clock].map((one) => ({ type: "function", strict: true, ...one }));
      for (const choice of ["required", { type: "function", name: "weather" }]) {
        const request = { model: "model", input: "Hi", tools: flat, tool_choice: choice, parallel_tool_calls: false, max_output_tokens: 2000, reasoning: { effort: "none" }, temperature: 0 };
        const streamed = await client.responses.stream(request).finalResponse();
        assert.equal(streamed.status, "completed");
        for (const reply of [await client.responses.create(request), streamed]) {
          const call = reply.output.find((one) => one.type === "function_call");
          const { parameters } = flat.find((one) => one.name === call.name);
          assertValid(parameters, JSON.parse(call.arguments));
          const next = await client.responses.create({ model: "model", max_output_tokens: 5, tools: flat, input: [
            { role: "user", content: "Hi" }, ...reply.output, { type: "function_call_output", call_id: call.call_id, output: "rain" }] });
          assert.equal(next.object, "response");
        }
      }
    });

    test("responses: structured output is parsed", async () => {
      const request = { model: "model", input: "Hi", max_output_tokens: 2000, reasoning: { effort: "none" }, text: { format: zodTextFormat(forecast, "forecast") } };
      const reply = await client.responses.parse(request);
      assertValid(request.text.format.schema, reply.output_parsed);
      const streamed = await client.responses.stream(request).finalResponse();
      assertValid(request.text.format.schema, streamed.output_parsed);
    });

    test("completions: a text, ids, several prompts, a stream", async () => {
      const reply = await client.completions.create({ model: "model", prompt: ["Once", "Upon"], max_tokens: 8, seed: 1 });
      assert.deepEqual(reply.choices.map((one) => one.index), [0, 1]);
      await client.completions.create({ model: "model", prompt: [72, 105], max_tokens: 3 });
      const echoed = await client.completions.create({ model: "model", prompt: "Once", echo: true, max_tokens: 3 });
      assert.ok(echoed.choices[0].text.startsWith("Once"));
      const chunks = await collect(await client.completions.create({ model: "model", prompt: "Once", max_tokens: 8, seed: 1, stream: true }));
      assert.equal(chunks.map((one) => one.choices[0]?.text ?? "").join(""), reply.choices[0].text);
    });

    describe("errors", () => {
      const fails = async (more, ask, expected, requests = 1) => {
        const counted = counting();
        const { server = quick, ...options } = more;
        if (server === slow) await free();
        await assert.rejects(ask(make(server, { fetch: counted, maxRetries: 2, ...options })), expected);
        assert.equal(counted.requests, requests);
      };
      const chat = (members, options) => (one) => one.chat.completions.create({ model: "model", messages: user, ...members }, options);

      test("a wrong value: 400 with its name, asked once", () =>
        fails({}, chat({ temperature: -1 }), (error) =>
          error instanceof OpenAI.BadRequestError && error.param === "temperature" && error.type === "invalid_request_error" && Boolean(error.requestID ?? error.request_id)));
      test("a stream with a wrong value: 400", () => fails({}, chat({ stream: true, messages: [] }), OpenAI.BadRequestError));
      test("a prompt that does not fit: 400 with both numbers", () =>
        fails({}, chat({ messages: [{ role: "user", content: "word ".repeat(2000) }] }), (error) =>
          error instanceof OpenAI.BadRequestError && error.code === "context_length_exceeded" && error.error.n_prompt_tokens > error.error.n_ctx));
      test("an unknown key: 401", () => fails({ apiKey: "other" }, chat({}), OpenAI.AuthenticationError));
      test("an unknown model: 404", () => fails({}, (one) => one.models.retrieve("other"), OpenAI.NotFoundError));
      test("an unknown path: 404", () => fails({}, (one) => one.embeddings.create({ model: "model", input: "Hi" }), OpenAI.NotFoundError));
      test("a body that is too large: 413", () =>
        fails({}, chat({ messages: [{ role: "user", content: "x".repeat(33 << 20) }] }), (error) => error instanceof OpenAI.APIError && error.status === 413));
      test("a full server: 429, asked again after a second", () => whileFull(async () => {
        const counted = counting();
        const begin = Date.now();
        await assert.rejects(chat({})(make(slow, { fetch: counted, maxRetries: 1 })), OpenAI.RateLimitError);
        assert.equal(counted.requests, 2);
        assert.ok(Date.now() - begin >= 900);
      }));
      test("a reply that takes too long: 408, asked once", () =>
        fails({ server: slow }, chat({ max_tokens: 8000, ...noThinking }), (error) => error instanceof OpenAI.APIError && error.status === 408));
      test("a stream that takes too long ends with an error", () =>
        fails({ server: slow }, async (one) => collect(await chat({ max_tokens: 8000, stream: true, ...noThinking })(one)), OpenAI.APIError));
    });

    describe("leaving frees the place", () => {
      const long = { model: "model", messages: user, max_tokens: 8000 };
      test("a stream that is broken off", () => assertFreed(async () => {
        for await (const _ of await make(slow).chat.completions.create({ ...long, stream: true })) break;
      }));
      test("a stream that is aborted", () => assertFreed(async () => {
        const stream = await make(slow).chat.completions.create({ ...long, stream: true });
        for await (const _ of stream) stream.controller.abort();
      }));
      test("a whole reply that the client waits for too short a time", () => assertFreed(() =>
        assert.rejects(make(slow).chat.completions.create(long, { timeout: 300 }), OpenAI.APIConnectionTimeoutError)));
    });
  });
}
