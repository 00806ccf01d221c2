// SPDX-License-Identifier: Apache-2.0
// A server that speaks the stream of chat completions. The last message of the user says what
// it does; everything asked is kept in `requests`. Serves the page as the real server does.
import { createServer } from "node:http";
import { readFileSync } from "node:fs";
import { fileURLToPath } from "node:url";
import { kReplies } from "./replies.mjs";

const dist = (name) => readFileSync(fileURLToPath(new URL(`../../server/page/dist/${name}`, import.meta.url)));
const kPage = {
  "/": ["index.html", "text/html; charset=utf-8"],
  "/highlight.js": ["highlight.js", "text/javascript; charset=utf-8"],
  "/licenses.txt": ["licenses.txt", "text/plain; charset=utf-8"],
};
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

export class MockServer {
  requests = [];
  paths = [];
  aborted = 0;
  key = "";
  busyTimes = 0;
  models = [{ id: "demo-4b", object: "model", context_length: 32768 }];
  #server = createServer((request, response) => this.#answer(request, response));

  async listen(port = 0) {
    await new Promise((resolve) => this.#server.listen(port, "127.0.0.1", resolve));
    this.port = this.#server.address().port;
    return `http://127.0.0.1:${this.port}`;
  }

  close() {
    this.#server.closeAllConnections();
    return new Promise((resolve) => this.#server.close(resolve));
  }

  async #answer(request, response) {
    const { pathname } = new URL(request.url, "http://x");
    this.paths.push(pathname);
    if (kPage[pathname]) return sendPage(response, ...kPage[pathname]);
    if (pathname === "/health") return sendJson(response, 200, { status: "ok" });
    if (pathname === "/v1/models") return sendJson(response, 200, { object: "list", data: this.models });
    if (pathname === "/v1/chat/completions") return this.#chat(request, response);
    return sendError(response, 404, "There is nothing at this path.");
  }

  async #chat(request, response) {
    let text = "";
    for await (const piece of request) text += piece;
    const body = JSON.parse(text);
    this.requests.push(body);
    if (this.key && request.headers.authorization !== `Bearer ${this.key}`) {
      return sendError(response, 401, "The API key is missing or wrong.", { code: "invalid_api_key" });
    }
    if (this.busyTimes > 0) {
      --this.busyTimes;
      return sendError(response, 429, "The queue is full", {}, { "retry-after": "1" });
    }
    const asked = body.messages.findLast((message) => message.role === "user")?.content ?? "";
    const name = Object.keys(kReplies).find((known) => asked.startsWith(known)) ?? "plain";
    response.on("close", () => (this.aborted += response.writableEnded ? 0 : 1));
    const answer = kReplies[name];
    return answer.refuse ? sendError(response, ...answer.refuse) : this.#stream(response, answer, body);
  }

  async #stream(response, answer, body) {
    response.writeHead(200, { "content-type": "text/event-stream" });
    const send = (fields) => response.write(`data: ${JSON.stringify({
      id: "chatcmpl-1", object: "chat.completion.chunk", created: 1, model: body.model, usage: null, ...fields,
    })}\n\n`);
    const delta = (fields) => send({ choices: [{ index: 0, delta: fields, finish_reason: null }] });
    delta({ role: "assistant" });
    for (const step of answer.steps(body)) {
      if (response.destroyed) return;
      if (step.wait) await sleep(step.wait);
      else if (step.break) return response.destroy();
      else if (step.raw) response.write(step.raw);
      else if (step.progress) send({ choices: [], prompt_progress: step.progress });
      else delta(step);
    }
    send({ choices: [{ index: 0, delta: {}, finish_reason: answer.finish ?? "stop" }],
      timings: { cache_n: 980, prompt_n: 44, predicted_n: 212, predicted_per_second: 38.21 } });
    send({ choices: [], usage: { prompt_tokens: 1024, completion_tokens: 212, total_tokens: 1236,
      prompt_tokens_details: { cached_tokens: 980 } } });
    response.end("data: [DONE]\n\n");
  }
}

function sendPage(response, name, type) {
  response.writeHead(200, {
    "content-type": type,
    "content-security-policy": dist("policy.txt").toString().trim(),
    "x-content-type-options": "nosniff",
    "cache-control": "no-cache",
  });
  response.end(dist(name));
}

function sendJson(response, status, body, headers = {}) {
  response.writeHead(status, { "content-type": "application/json", ...headers });
  response.end(JSON.stringify(body));
}

function sendError(response, status, message, more = {}, headers = {}) {
  sendJson(response, status, { error: { message, type: "invalid_request_error", param: null, code: null, ...more } }, headers);
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  console.log(await new MockServer().listen(Number(process.argv[2] ?? 8123)));
}
