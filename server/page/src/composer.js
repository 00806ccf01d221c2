// SPDX-License-Identifier: Apache-2.0
// The field for the next message.
import { byId } from "./dom.js";
import { loadDraft, saveDraft } from "./settings.js";
import { growToFit } from "./turn_view.js";

export class Composer {
  #field = byId("prompt");
  #send = byId("send");
  #stop = byId("stop");
  #busy = false;

  /** `actions`: send(text), stop(), editLast(). */
  constructor(actions) {
    this.actions = actions;
    byId("composer").addEventListener("submit", (event) => {
      event.preventDefault();
      this.#submit();
    });
    this.#stop.addEventListener("click", () => actions.stop());
    this.#field.addEventListener("input", () => this.#changed());
    this.#field.addEventListener("keydown", (event) => this.#key(event));
    addEventListener("resize", () => growToFit(this.#field));
    this.#field.value = loadDraft();
    this.#changed();
  }

  setBusy(busy) {
    const focused = document.activeElement === this.#stop || document.activeElement === this.#send;
    this.#busy = busy;
    this.#send.hidden = busy;
    this.#stop.hidden = !busy;
    this.#changed();
    if (focused) this.focus();
  }

  focus() {
    this.#field.focus();
  }

  #key(event) {
    if (event.isComposing) return; // Enter ends the input of a character here
    if (event.key === "Enter" && !event.shiftKey && !event.ctrlKey && !event.metaKey) {
      event.preventDefault();
      this.#submit();
    } else if (event.key === "ArrowUp" && this.#field.value === "" && !this.#busy) {
      event.preventDefault();
      this.actions.editLast();
    }
  }

  #submit() {
    const text = this.#field.value;
    if (this.#busy || text.trim() === "") return;
    this.#field.value = "";
    this.#changed();
    this.actions.send(text);
  }

  #changed() {
    growToFit(this.#field);
    this.#send.disabled = this.#field.value.trim() === "";
    saveDraft(this.#field.value);
  }
}
