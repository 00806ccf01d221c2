// SPDX-License-Identifier: Apache-2.0
// Server-sent events of a body.

/** Takes pieces of text, and gives the data of each event that ended in them. */
export class EventReader {
  #rest = "";
  #data = [];

  *push(text) {
    this.#rest += text;
    let begin = 0;
    for (;;) {
      const end = this.#lineEnd(begin);
      if (!end) break;
      const data = this.#line(this.#rest.slice(begin, end.at));
      begin = end.next;
      if (data !== null) yield data;
    }
    this.#rest = this.#rest.slice(begin);
  }

  #lineEnd(begin) {
    for (let at = begin; at < this.#rest.length; ++at) {
      const letter = this.#rest[at];
      if (letter === "\n") return { at, next: at + 1 };
      if (letter === "\r") {
        // The second half of CR LF may come with the next piece.
        if (at + 1 === this.#rest.length) return null;
        return { at, next: this.#rest[at + 1] === "\n" ? at + 2 : at + 1 };
      }
    }
    return null;
  }

  #line(line) {
    if (line === "") {
      if (this.#data.length === 0) return null;
      const data = this.#data.join("\n");
      this.#data = [];
      return data;
    }
    const match = /^data(?:: ?|$)/.exec(line);
    if (match) this.#data.push(line.slice(match[0].length));
    return null;
  }
}

/** The data of each event of the stream of bytes. */
export async function* eventsOf(stream) {
  const reader = stream.getReader();
  const decoder = new TextDecoder();
  const events = new EventReader();
  try {
    for (;;) {
      const { done, value } = await reader.read();
      if (done) return;
      yield* events.push(decoder.decode(value, { stream: true }));
    }
  } finally {
    reader.cancel().catch(() => {});
  }
}
