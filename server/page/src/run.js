// SPDX-License-Identifier: Apache-2.0
// One reply while it comes: asks for it, waits when the server is busy, ends in a state that
// can be shown and stored.
import { ApiError, streamChat } from "./api.js";
import { applyChunk, endThinking, hasContent } from "./reply.js";

const kTries = 20;
const kUsualWaitMs = 2000;
const kLongestWaitMs = 60000;

/** Waits; `tell(seconds)` says once a second how many are left. Ends at once when aborted. */
async function countDown(ms, signal, tell) {
  for (let end = Date.now() + ms; !signal.aborted && Date.now() < end; ) {
    const left = end - Date.now();
    tell(Math.ceil(left / 1000));
    await new Promise((resolve) => {
      const timer = setTimeout(resolve, Math.min(1000, left));
      signal.addEventListener("abort", () => (clearTimeout(timer), resolve()), { once: true });
    });
  }
}

export class Run {
  #abort = new AbortController();

  /** `changed()` is called after each change of the reply. */
  constructor(reply, body, { key, changed }) {
    this.reply = reply;
    this.body = body;
    this.key = key;
    this.changed = changed;
  }

  stop() {
    this.#abort.abort();
  }

  /** Never throws; the reply's `state` and `error` say what became of it. */
  async go() {
    const { reply } = this;
    reply.earlierTokens = hasContent(reply) ? (reply.figures?.tokens ?? 0) : 0;
    Object.assign(reply, { state: "streaming", error: null, finish: null, waiting: null, progress: null });
    this.changed();
    try {
      await this.#tryUntilTaken();
      reply.state = "done";
    } catch (error) {
      this.#fail(error);
    }
    endThinking(reply);
    reply.waiting = reply.progress = null;
    this.changed();
  }

  #fail(error) {
    const { reply } = this;
    if (this.#abort.signal.aborted) {
      reply.state = "stopped";
      return;
    }
    const known = error instanceof ApiError;
    if (!known) console.error(error);
    reply.state = hasContent(reply) ? "cut" : "failed";
    reply.error = { kind: known ? error.kind : "server", message: error.message };
  }

  async #tryUntilTaken() {
    const { signal } = this.#abort;
    for (let tries = 1; ; ++tries) {
      let taken = false;
      try {
        for await (const chunk of streamChat(this.body, { key: this.key, signal })) {
          taken = true;
          this.reply.waiting = null;
          applyChunk(this.reply, chunk);
          this.changed();
        }
        return;
      } catch (error) {
        if (error.kind === "cut" && this.reply.finish) return;
        if (signal.aborted || taken || error.kind !== "busy" || tries === kTries) throw error;
        const wait = Math.min(error.wait ?? kUsualWaitMs, kLongestWaitMs);
        await countDown(wait, signal, (seconds) => {
          this.reply.waiting = { seconds, reason: error.message };
          this.changed();
        });
        if (signal.aborted) throw error;
      }
    }
  }
}
