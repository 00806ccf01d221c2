// SPDX-License-Identifier: Apache-2.0
// The messages of the chat that is open.
import { byId, h } from "./dom.js";
import { ReplyView } from "./reply_view.js";
import { alternatives, pathTo } from "./tree.js";
import { ResultView, TurnView } from "./turn_view.js";

const kNearEnd = 80; // pixels

export class ChatView {
  #views = new Map();
  #scroll = byId("scroll");
  #list = byId("messages");
  #latest = byId("latest");
  #growing = null;
  #pending = false;
  #follows = true;
  #top = 0;

  constructor(actions) {
    this.actions = actions;
    this.#scroll.addEventListener("scroll", () => this.#noteScroll(), { passive: true });
    this.#latest.addEventListener("click", () => this.toEnd());
  }

  /** Shows another chat from scratch. */
  open(state) {
    this.#views.clear();
    this.#list.replaceChildren();
    this.show(state);
    this.toEnd();
  }

  /** `state`: { chat, busy }. Shows what has changed. */
  show(state) {
    this.state = state;
    const path = pathTo(state.chat.messages, state.chat.info.leaf);
    const roots = path.map((message) => this.#viewOf(message).root);
    const now = [...this.#list.children];
    if (roots.length !== now.length || roots.some((root, at) => root !== now[at])) this.#list.replaceChildren(...roots);
    path.forEach((message, at) => this.#update(message, at + 1 === path.length));
    byId("welcome").hidden = path.length > 0;
    if (this.#follows) this.#jump();
    this.#noteScroll();
  }

  /** Shows the growth of one reply with the next picture of the screen. */
  grow(reply) {
    this.#growing = reply;
    if (this.#pending) return;
    this.#pending = true;
    requestAnimationFrame(() => {
      const begin = performance.now();
      this.#showGrowth();
      // A text that takes long to show is shown less often.
      setTimeout(() => {
        this.#pending = false;
        if (this.#growing) this.grow(this.#growing);
      }, 4 * (performance.now() - begin));
    });
  }

  #showGrowth() {
    const reply = this.#growing;
    this.#growing = null;
    if (this.state.chat.info.leaf !== reply.id) return;
    this.#update(reply, true);
    if (this.#follows) this.#jump();
    this.#noteScroll();
  }

  toEnd() {
    this.#follows = true;
    this.#jump();
    this.#noteScroll();
  }

  /** Opens the editor of the last turn. */
  editLast() {
    const turn = pathTo(this.state.chat.messages, this.state.chat.info.leaf).findLast(({ role }) => role === "user");
    if (turn) this.#views.get(turn.id).edit();
  }

  #viewOf(message) {
    let view = this.#views.get(message.id);
    if (!view) {
      const kinds = { assistant: ReplyView, tool: ResultView, user: TurnView };
      view = new kinds[message.role](message, this.actions);
      this.#views.set(message.id, view);
    }
    return view;
  }

  #update(message, last) {
    const { chat, busy } = this.state;
    const versions = alternatives(chat.messages, message);
    const place = { at: versions.indexOf(message), count: versions.length };
    this.#views.get(message.id)?.update({ place, last, busy });
  }

  #jump() {
    this.#scroll.scrollTop = this.#scroll.scrollHeight;
  }

  /** Follows the growing end until the user scrolls up, and again when the user is back there. */
  #noteScroll() {
    const { scrollTop, scrollHeight, clientHeight } = this.#scroll;
    const left = scrollHeight - scrollTop - clientHeight;
    if (scrollTop < this.#top - 1 && left > 2) this.#follows = false;
    else if (left < kNearEnd) this.#follows = true;
    this.#top = scrollTop;
    this.#latest.hidden = left < kNearEnd;
  }
}
