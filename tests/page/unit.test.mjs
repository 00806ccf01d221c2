// SPDX-License-Identifier: Apache-2.0
// The parts of the page that need no browser.
import assert from "node:assert/strict";
import { createServer } from "node:http";
import { describe, test } from "node:test";
import { fetchModels, streamChat } from "../../server/page/src/api.js";
import { dayGroup, duration, excerpt, figureTexts } from "../../server/page/src/format.js";
import { applyChunk } from "../../server/page/src/reply.js";
import { chatRequest, readTools } from "../../server/page/src/request.js";
import { kSampling, readSetting, samplingFields } from "../../server/page/src/sampling.js";
import { EventReader } from "../../server/page/src/sse.js";
import { exportChats, importChats } from "../../server/page/src/transfer.js";
import { alternatives, emptyReply, newestLeaf, pathTo, titleOf } from "../../server/page/src/tree.js";

describe("events", () => {
  const kStream = ': ping\n\ndata: {"a":"é"}\r\n\r\nevent: x\ndata: one\ndata:two\nid: 5\n\ndata\n\ndata: [DONE]\n\ndata: unfinished';
  const kEvents = ['{"a":"é"}', "one\ntwo", "", "[DONE]"];

  test("come out alike however the stream is cut", () => {
    for (let size = 1; size <= kStream.length; ++size) {
      const reader = new EventReader();
      const found = [];
      for (let at = 0; at < kStream.length; at += size) found.push(...reader.push(kStream.slice(at, at + size)));
      assert.deepEqual(found, kEvents, `pieces of ${size}`);
    }
  });

  test("lines may end with a carriage return alone", () => {
    assert.deepEqual([...new EventReader().push("data: a\r\rdata: b\r\r\n")], ["a", "b"]);
  });

  test("no event without data", () => {
    assert.deepEqual([...new EventReader().push("\n\n\nevent: x\n\ndatabase: y\n\n")], []);
  });
});

describe("replies", () => {
  const grown = (...chunks) => {
    const reply = emptyReply({});
    for (const chunk of chunks) applyChunk(reply, chunk);
    return reply;
  };
  const delta = (fields, finish = null) => ({ choices: [{ index: 0, delta: fields, finish_reason: finish }] });

  test("grow by deltas", () => {
    const reply = grown({ model: "m", ...delta({ role: "assistant", content: "" }) },
      delta({ reasoning_content: "Hm" }), delta({ content: "Yes" }), delta({}, "stop"));
    assert.deepEqual([reply.model, reply.reasoning, reply.text, reply.finish], ["m", "Hm", "Yes", "stop"]);
    assert.equal(reply.thinkingSince, null);
    assert.ok(reply.thinkingMs >= 0);
  });

  test("join the parts of several calls", () => {
    const part = (index, more) => delta({ tool_calls: [{ index, ...more }] });
    const { calls } = grown(part(0, { id: "a", function: { name: "f", arguments: "{" } }),
      part(1, { id: "b", function: { name: "g" } }), part(0, { function: { arguments: "}" } }), part(1, { function: { arguments: "[]" } }));
    assert.deepEqual(calls, [{ index: 0, id: "a", name: "f", arguments: "{}" }, { index: 1, id: "b", name: "g", arguments: "[]" }]);
  });

  test("take usage and timings", () => {
    const { figures } = grown({ choices: [], timings: { cache_n: 5, predicted_n: 3, predicted_per_second: 10 } },
      { choices: [], usage: { prompt_tokens: 7, completion_tokens: 3, prompt_tokens_details: { cached_tokens: 6 } } });
    assert.deepEqual(figures, { tokens: 3, context: 10, reused: 6, perSecond: 10 });
  });

  test("count the tokens of what came before they went on", () => {
    const reply = emptyReply({ earlierTokens: 20 });
    applyChunk(reply, { choices: [], usage: { prompt_tokens: 30, completion_tokens: 4 } });
    assert.deepEqual([reply.figures.tokens, reply.figures.context], [24, 34]);
  });

  test("bear chunks with nothing in them", () => {
    assert.equal(grown({}, { choices: [] }, { choices: [{}] }, { choices: null }, delta({ tool_calls: null, content: null })).text, "");
  });
});

describe("requests", () => {
  const settings = { thinking: "auto", tools: "", stop: "" };
  const turn = (id, parent, text) => ({ id, parent, role: "user", text });
  const reply = (id, parent, fields) => emptyReply({ id, parent, state: "done", ...fields });

  test("leave out replies without content, and the wanted one", () => {
    const path = [turn("a", null, "one"), reply("b", "a", { state: "failed" }), turn("c", "b", "two"), reply("d", "c")];
    const { messages } = chatRequest({ path, system: " ", model: "m", settings });
    assert.deepEqual(messages, [{ role: "user", content: "one" }, { role: "user", content: "two" }]);
  });

  test("to go on have the text so far and think no more", () => {
    const path = [turn("a", null, "one"), reply("b", "a", { text: "Half a" })];
    const body = chatRequest({ path, model: "m", settings: { ...settings, thinking: "on" }, continuing: true });
    assert.deepEqual(body.messages.map(({ role }) => role), ["user", "assistant", "user"]);
    assert.equal(body.messages[1].content, "Half a");
    assert.deepEqual(body.chat_template_kwargs, { enable_thinking: false });
  });

  test("have thinking and calls of earlier replies", () => {
    const call = { index: 0, id: "x", name: "f", arguments: "{}" };
    const path = [turn("a", null, "one"), reply("b", "a", { reasoning: "Hm", calls: [call] }),
      { id: "c", parent: "b", role: "tool", call: "x", name: "f", text: "5" }, reply("d", "c")];
    const { messages } = chatRequest({ path, model: "m", settings });
    assert.equal(messages[1].reasoning_content, "Hm");
    assert.deepEqual(messages[1].tool_calls[0].function, { name: "f", arguments: "{}" });
    assert.equal(messages[2].tool_call_id, "x");
  });

  test("name what is wrong with the tools", () => {
    assert.deepEqual(readTools(" "), []);
    assert.throws(() => readTools("{"), /are not JSON/);
    assert.throws(() => readTools("{}"), /must be a list/);
    assert.throws(() => readTools('[{"name":"a"},{"type":"function"}]'), /Tool 2 has no "name"/);
    assert.throws(() => readTools("[null]"), /Tool 1/);
  });
});

describe("settings of sampling", () => {
  const setting = (name) => kSampling.find((known) => known.name === name);

  test("take numbers within their limits only", () => {
    const rows = [["temperature", "0", 0], ["temperature", " 0,7 ", 0.7], ["temperature", "-1", null], ["temperature", "", null],
      ["temperature", "warm", null], ["temperature", "Infinity", null], ["topK", "2.5", null], ["topK", "20", 20],
      ["topP", "1.01", null], ["seed", "4294967295", 4294967295], ["seed", "4294967296", null], ["temperature", undefined, null]];
    for (const [name, text, number] of rows) assert.equal(readSetting(setting(name), text), number, `${name} ${text}`);
  });

  test("send what is set and nothing else", () => {
    assert.deepEqual(samplingFields({}), {});
    assert.deepEqual(samplingFields({ topP: "0.9", repeat: "x", stop: "END\n\n###" }), { top_p: 0.9, stop: ["END", "###"] });
  });
});

describe("the tree of messages", () => {
  const messages = new Map([["a", null, 1], ["b", "a", 2], ["c", "a", 3], ["d", "c", 4], ["e", null, 5]]
    .map(([id, parent, created]) => [id, { id, parent, created }]));

  test("gives paths, alternatives and leaves", () => {
    assert.deepEqual(pathTo(messages, "d").map(({ id }) => id), ["a", "c", "d"]);
    assert.deepEqual(alternatives(messages, messages.get("b")).map(({ id }) => id), ["b", "c"]);
    assert.deepEqual(alternatives(messages, messages.get("a")).map(({ id }) => id), ["a", "e"]);
    assert.equal(newestLeaf(messages, "a"), "d");
    assert.deepEqual(pathTo(messages, null), []);
    assert.deepEqual(pathTo(messages, "gone"), []);
  });

  test("ends even when it goes in a circle", () => {
    const circle = new Map([["a", { id: "a", parent: "b", created: 1 }], ["b", { id: "b", parent: "a", created: 2 }]]);
    assert.equal(pathTo(circle, "a").length, 2);
    assert.ok(newestLeaf(circle, "a"));
  });

  test("titles are one short line of whole characters", () => {
    assert.equal(titleOf("  Two\twords \nmore"), "Two words");
    assert.equal(titleOf("\n "), "New chat");
    assert.equal(titleOf("😀".repeat(100)), "😀".repeat(59) + "…");
  });
});

describe("files of chats", () => {
  const chat = { info: { id: "1", title: "T", created: 1, updated: 2, system: "S", leaf: "c" }, messages: [
    { id: "a", chat: "1", parent: null, role: "user", created: 1, text: "Hi" },
    emptyReply({ id: "b", chat: "1", parent: "a", created: 2, state: "done", text: "Ho", tab: "t", saved: 5 }),
    emptyReply({ id: "c", chat: "1", parent: "a", created: 3, state: "done", text: "Hu", figures: { tokens: 4 } }),
  ] };

  test("give back what went in, under new names", () => {
    const [read] = importChats(exportChats([chat]));
    assert.notEqual(read.info.id, "1");
    assert.deepEqual([read.info.title, read.info.system, read.info.updated], ["T", "S", 2]);
    const [a, b, c] = read.messages;
    assert.deepEqual([a.text, b.text, c.text], ["Hi", "Ho", "Hu"]);
    assert.deepEqual([b.parent, c.parent, read.info.leaf], [a.id, a.id, c.id]);
    assert.deepEqual(c.figures, { tokens: 4 });
    assert.equal(b.tab, undefined);
    assert.ok(read.messages.every((message) => message.chat === read.info.id));
  });

  test("never hold a circle, nor a message that is its own parent", () => {
    const messages = [{ id: "a", role: "user", parent: "a" }, { id: "b", role: "user", parent: "c" },
      { id: "c", role: "user", parent: "b" }, { id: "c", role: "user", parent: "c" }, { role: "user", parent: undefined }];
    const [read] = importChats(JSON.stringify({ format: "zem-chats", version: 1, chats: [{ messages }] }));
    assert.equal(read.messages.length, 5);
    const parents = new Map(read.messages.map(({ id, parent }) => [id, parent]));
    for (const id of parents.keys()) {
      let steps = 0;
      for (let at = id; at !== null; at = parents.get(at)) assert.ok(++steps <= 5);
    }
  });

  test("may name a child before its parent", () => {
    const [read] = importChats(exportChats([{ ...chat, messages: chat.messages.toReversed() }]));
    const [c, b, a] = read.messages;
    assert.deepEqual([a.parent, b.parent, c.parent, read.info.leaf], [null, a.id, a.id, c.id]);
  });

  test("a reply that was coming when it was written is cut off", () => {
    const text = exportChats([{ ...chat, messages: [emptyReply({ id: "a", state: "streaming" })] }]);
    assert.equal(importChats(text)[0].messages[0].state, "cut");
  });
});

describe("numbers and times", () => {
  test("read as people say them", () => {
    assert.deepEqual(figureTexts({ tokens: 1, perSecond: 1234.5, reused: 0 }), ["1 token", "1,230 tokens/s"]);
    assert.deepEqual(figureTexts({}), []);
    assert.deepEqual([duration(400), duration(12_400), duration(61_000)], ["less than a second", "12 s", "1 min 1 s"]);
    const now = new Date(2026, 2, 10, 9).getTime();
    const at = (...when) => dayGroup(new Date(2026, ...when).getTime(), now);
    assert.deepEqual([at(2, 10, 0), at(2, 9, 23), at(2, 5), at(1, 5)], ["Today", "Yesterday", "This week", "February 2026"]);
    assert.equal(excerpt("a\nlong text about pears and more", "PEARS"), "a long text about pears and more");
    assert.equal(excerpt("nothing", "pears"), "");
  });
});

describe("answers of a server", () => {
  const kUsual = { status: 200, headers: { "content-type": "text/event-stream" } };

  /** What comes of one exchange with a server that answers like this: text, or the kind of the error. */
  async function outcome({ status, headers, body }) {
    const server = createServer((_, response) => {
      response.writeHead(status, headers);
      response.end(body);
    });
    await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
    const { fetch } = globalThis;
    globalThis.fetch = (path, options) => fetch(`http://127.0.0.1:${server.address().port}/${path}`, options);
    try {
      const chunks = [];
      for await (const chunk of streamChat({}, { signal: new AbortController().signal })) chunks.push(chunk);
      return { chunks: chunks.length };
    } catch (error) {
      return { kind: error.kind, wait: error.wait ?? undefined, message: error.message };
    } finally {
      globalThis.fetch = fetch;
      server.close();
    }
  }
  const kindOf = async (status, error, headers = {}) =>
    (await outcome({ status, headers, body: typeof error === "string" ? error : JSON.stringify({ error }) })).kind;

  test("are told apart", async () => {
    assert.equal(await kindOf(401, { message: "no" }), "key");
    assert.equal(await kindOf(403, { message: "the key is not valid" }), "key");
    assert.equal(await kindOf(403, { message: "this origin is refused" }), "refused");
    assert.equal(await kindOf(429, { message: "full" }), "busy");
    assert.equal(await kindOf(503, { message: "loading" }), "busy");
    assert.equal(await kindOf(400, { message: "too long", code: "context_length_exceeded" }), "context");
    assert.equal(await kindOf(400, { message: "prompt has 5 tokens, the context 4" }), "context");
    assert.equal(await kindOf(400, { message: "temperature: too high" }), "refused");
    assert.equal(await kindOf(500, { message: "lost" }), "server");
    assert.equal(await kindOf(502, "<h1>Bad gateway</h1>"), "server");
    assert.equal(await kindOf(400, "null"), "refused");
  });

  test("with nothing to say still make a sentence", async () => {
    assert.equal((await outcome({ status: 502, headers: {}, body: "" })).message, "The server answered 502 Bad Gateway");
  });

  test("say how long to wait", async () => {
    const wait = async (headers) => (await outcome({ status: 429, headers, body: "{}" })).wait;
    assert.equal(await wait({ "retry-after": "3" }), 3000);
    assert.equal(await wait({ "retry-after-ms": "250", "retry-after": "3" }), 250);
    assert.equal(await wait({ "retry-after": "-5" }), 0);
    assert.equal(await wait({ "retry-after": "nonsense" }), undefined);
    assert.equal(await wait({}), undefined);
  });

  test("that end too early, or hold no JSON, are errors", async () => {
    assert.deepEqual(await outcome({ ...kUsual, body: "data: {}\n\ndata: [DONE]\n\n" }), { chunks: 1 });
    assert.equal((await outcome({ ...kUsual, body: "data: {}\n\n" })).kind, "cut");
    assert.equal((await outcome({ ...kUsual, body: "" })).kind, "cut");
    assert.equal((await outcome({ ...kUsual, body: "data: 5\n\n" })).kind, "server");
    assert.equal((await outcome({ ...kUsual, body: 'data: {"error":{"message":"lost"}}\n\n' })).message, "lost");
  });

  test("a server that is not there is gone", async () => {
    const { fetch } = globalThis;
    globalThis.fetch = () => Promise.reject(new TypeError("failed"));
    await assert.rejects(fetchModels(""), { kind: "gone" });
    globalThis.fetch = fetch;
  });
});
