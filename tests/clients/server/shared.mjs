// SPDX-License-Identifier: Apache-2.0
// What the tests of all clients share. The weights are random: tests check the form of answers.
import assert from "node:assert/strict";
import { setTimeout as sleep } from "node:timers/promises";
import Ajv from "ajv";

export const key = "secret";
export const quick = process.env.ZEM_QUICK_SERVER;
export const slow = process.env.ZEM_SLOW_SERVER; // one reply at the same time, no queue, 5 s each
if (!quick || !slow) throw new Error("run.sh starts the servers and sets their addresses");

export const weather = {
  name: "weather",
  description: "The weather of a place",
  parameters: {
    type: "object",
    properties: {
      city: { type: "string", maxLength: 8 },
      days: { type: "integer", minimum: 1, maximum: 5 },
    },
    required: ["city", "days"],
    additionalProperties: false,
  },
};
export const clock = {
  name: "clock",
  description: "The time",
  parameters: { type: "object", properties: {}, additionalProperties: false },
};
export const wrapped = (tool) => ({ type: "function", function: tool });

export function assertValid(schema, value) {
  const validate = new Ajv({ strict: false }).compile(schema);
  assert.ok(validate(value), `${JSON.stringify(value)}: ${JSON.stringify(validate.errors)}`);
}

export async function metric(server, name) {
  const headers = { authorization: `Bearer ${key}` };
  const text = await (await fetch(`${server}/metrics`, { headers })).text();
  const line = text.split("\n").find((one) => one.startsWith(`${name} `));
  return line ? Number(line.split(" ").at(-1)) : 0;
}

const kCancelled = 'zem_replies_total{reason="cancelled"}';

async function until(what, holds, milliseconds) {
  const end = Date.now() + milliseconds;
  while (!(await holds())) {
    assert.ok(Date.now() < end, `${what}: not within ${milliseconds} ms`);
    await sleep(10);
  }
}

const running = async () =>
  (await metric(slow, "zem_requests_processing")) + (await metric(slow, "zem_requests_deferred"));
export const free = (milliseconds = 5000) =>
  until("the place is free", async () => (await running()) === 0, milliseconds);

// Runs `leave`, which asks the slow server for a long reply and leaves: the place is free within
// a second, and the reply did not end by itself.
export async function assertFreed(leave) {
  await free();
  const before = await metric(slow, kCancelled);
  await leave();
  await free(1000);
  await until("the reply is counted", async () => (await metric(slow, kCancelled)) === before + 1, 1000);
}

// A fetch that counts requests.
export function counting() {
  const counted = async (...args) => {
    ++counted.requests;
    return fetch(...args);
  };
  counted.requests = 0;
  return counted;
}

// The place of the slow server is taken while `work` runs.
export async function whileFull(work) {
  await free();
  const controller = new AbortController();
  const reply = fetch(`${slow}/v1/completions`, {
    method: "POST",
    headers: { authorization: `Bearer ${key}` },
    body: JSON.stringify({ prompt: "Once", max_tokens: 8000 }),
    signal: controller.signal,
  }).catch(() => {});
  try {
    await until("a reply runs", async () => (await running()) === 1, 5000);
    await work();
  } finally {
    controller.abort();
    await reply;
  }
}
