// SPDX-License-Identifier: Apache-2.0
// What the user has said, and results of tools.
import { copyButton, h, icon, iconButton, textButton } from "./dom.js";

/** "‹ 2 of 3 ›", when there is more than one. */
export function alternativesBar({ at, count }, show) {
  if (count < 2) return null;
  const previous = iconButton("previous", "Previous version", () => show(-1), { disabled: at === 0 });
  const next = iconButton("next", "Next version", () => show(1), { disabled: at + 1 === count });
  return h("span", { class: "versions" }, previous,
    h("span", { "aria-label": `Version ${at + 1} of ${count}`, text: `${at + 1}/${count}` }), next);
}

export function growToFit(field) {
  field.style.height = "auto";
  field.style.height = `${field.scrollHeight + field.offsetHeight - field.clientHeight}px`;
}

export class TurnView {
  root;
  #body = h("div");
  #bar = h("div", { class: "bar" });
  #shown = "";
  #editing = false;

  constructor(turn, actions) {
    this.turn = turn;
    this.actions = actions;
    this.root = h("article", { class: "turn", "data-id": turn.id },
      h("h2", { class: "off-screen", text: "You" }), this.#body, this.#bar);
    this.#showText();
  }

  update({ place, busy }) {
    const key = JSON.stringify([place, busy]);
    if (this.#editing || this.#shown === key) return;
    this.#shown = key;
    const versions = alternativesBar(place, (step) => this.actions.showAlternative(this.turn, step));
    this.#bar.replaceChildren(...[versions, copyButton("Copy the message", () => this.turn.text),
      busy ? null : iconButton("edit", "Edit", () => this.edit())].filter(Boolean));
  }

  edit() {
    if (this.#editing) return;
    this.#editing = true;
    const field = h("textarea", { dir: "auto", "aria-label": "Edit the message", rows: "1" });
    field.value = this.turn.text;
    const submit = (event) => {
      event?.preventDefault();
      if (field.value.trim() === "") return;
      this.#stopEditing();
      this.actions.edit(this.turn, field.value);
    };
    const keys = (event) => {
      if (event.isComposing) return;
      if (event.key === "Escape") {
        event.stopPropagation();
        this.#stopEditing();
      } else if (event.key === "Enter" && !event.shiftKey) {
        submit(event);
      }
    };
    field.addEventListener("input", () => growToFit(field));
    field.addEventListener("keydown", keys);
    this.#body.replaceChildren(h("form", { class: "edit", on: { submit } }, field,
      h("div", { class: "row end" }, textButton("Cancel", () => this.#stopEditing()),
        h("button", { class: "primary", text: "Send" }))));
    this.#bar.hidden = true;
    growToFit(field);
    field.focus();
    field.setSelectionRange(field.value.length, field.value.length);
  }

  #stopEditing() {
    this.#editing = false;
    this.#bar.hidden = false;
    this.#showText();
    this.#bar.querySelector(".icon-edit")?.closest("button").focus();
  }

  #showText() {
    this.#body.replaceChildren(h("div", { class: "bubble", dir: "auto", text: this.turn.text }));
  }
}

export class ResultView {
  root;

  constructor(result) {
    this.root = h("article", { class: "result", "data-id": result.id }, h("details", { class: "call" },
      h("summary", { class: "call-head" }, icon("tool"), h("span", { text: "Result of" }),
        h("code", { dir: "ltr", text: result.name || "a tool" })),
      h("pre", { dir: "auto", tabindex: "0", text: result.text })));
  }

  update() {}
}
