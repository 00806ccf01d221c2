// SPDX-License-Identifier: Apache-2.0
import assert from "node:assert/strict";
import { describe, test } from "node:test";
import { Ollama } from "ollama";
import { assertFreed, assertValid, clock, counting, free, key, quick, slow, weather, whileFull, wrapped } from "./shared.mjs";

const make = (host, more = {}) => new Ollama({ host, headers: { Authorization: `Bearer ${key}` }, ...more });
const client = make(quick);
const messages = [{ role: "user", content: "Hi" }];
const options = { seed: 3, num_predict: 200 };

async function collect(stream) {
  const all = [];
  for await (const one of stream) all.push(one);
  return all;
}

function assertEnd(part) {
  assert.equal(part.done, true);
  assert.match(part.done_reason, /^(stop|length)$/);
  assert.ok(part.prompt_eval_count > 0 && part.eval_count > 0 && part.total_duration > 0);
  assert.ok(!Number.isNaN(Date.parse(part.created_at)));
}

test("the model, its details, the version", async () => {
  const { models } = await client.list();
  assert.deepEqual(models.map((one) => one.name), ["model"]);
  assert.ok((await client.show({ model: "model" })).capabilities.includes("completion"));
  assert.ok((await client.version()).version);
});

for (const think of [true, false]) {
  test(`chat: a stream with think ${think} is the whole reply`, async () => {
    const request = { model: "model", messages, think, options };
    const whole = await client.chat(request);
    assertEnd(whole);
    const parts = await collect(await client.chat({ ...request, stream: true }));
    assertEnd(parts.at(-1));
    assert.ok(parts.slice(0, -1).every((one) => one.done === false && one.message.role === "assistant"));
    const joined = (member) => parts.map((one) => one.message[member] ?? "").join("");
    assert.equal(joined("content"), whole.message.content);
    assert.equal(joined("thinking"), whole.message.thinking ?? "");
    assert.equal(Boolean(whole.message.thinking), think);
    assert.equal(parts.at(-1).eval_count, whole.eval_count);
  });
}

test("generate: a stream is the whole reply", async () => {
  for (const raw of [true, false]) {
    const request = { model: "model", prompt: "Hi", system: "Be short", raw, think: false, options };
    if (raw) delete request.system;
    const whole = await client.generate(request);
    assertEnd(whole);
    const parts = await collect(await client.generate({ ...request, stream: true }));
    assert.equal(parts.map((one) => one.response).join(""), whole.response);
  }
});

test("tools: offered, and a call with its answer is taken back", async () => {
  const tools = [wrapped(weather), wrapped(clock)];
  const call = { function: { name: "weather", arguments: { city: "Rome", days: 1 } } };
  const reply = await client.chat({ model: "model", tools, think: false, options, messages: [
    ...messages, { role: "assistant", content: "", tool_calls: [call] }, { role: "tool", tool_name: "weather", content: "rain" }] });
  assertEnd(reply);
  // A call of a model that knows nothing is a matter of chance; where there is one, it is an object.
  for (const { function: called } of reply.message.tool_calls ?? []) assert.equal(typeof called.arguments, "object");
});

test("structured output fits its schema", async () => {
  for (let seed = 1; seed <= 4; ++seed) {
    const request = { model: "model", messages, format: weather.parameters, think: false, options: { seed, num_predict: 2000 } };
    const whole = await client.chat(request);
    assert.equal(whole.done_reason, "stop");
    assertValid(weather.parameters, JSON.parse(whole.message.content));
    const { response } = await client.generate({ model: "model", prompt: "Hi", format: weather.parameters, think: false, options: request.options });
    assertValid(weather.parameters, JSON.parse(response));
  }
});

describe("errors", () => {
  const fails = async (host, members, status, more = {}) => {
    const counted = counting();
    await assert.rejects(make(host, { fetch: counted, ...more }).chat({ model: "model", messages, ...members }), (error) =>
      error.name === "ResponseError" && error.status_code === status && error.message.length > 0 && typeof error.error === "string");
    assert.equal(counted.requests, 1);
  };
  test("a wrong value: 400", () => fails(quick, { options: { temperature: -1 } }, 400));
  test("a stream with a wrong value: 400", () => fails(quick, { stream: true, messages: [{}] }, 400));
  test("images: 400", () => fails(quick, { messages: [{ ...messages[0], images: ["aGk="] }] }, 400));
  test("no key: 401", () => fails(quick, {}, 401, { headers: {} }));
  test("a full server: 429", () => whileFull(() => fails(slow, {}, 429)));
  test("a stream that takes too long ends with an error", async () => {
    await free();
    const stream = await make(slow).chat({ model: "model", messages, stream: true, think: false });
    await assert.rejects(collect(stream), /not finished in time/);
  });
});

test("a stream that is aborted frees the place", () => assertFreed(async () => {
  const one = make(slow);
  const stream = await one.chat({ model: "model", messages, stream: true });
  await assert.rejects(async () => { for await (const _ of stream) one.abort(); }, { name: "AbortError" });
}));
