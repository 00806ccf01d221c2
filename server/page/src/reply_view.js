// SPDX-License-Identifier: Apache-2.0
// A reply on the page: thinking, text, tool calls, what became of it, and what can be done.
import { copyButton, h, icon, iconButton, textButton } from "./dom.js";
import { count, duration, figureTexts } from "./format.js";
import { MarkdownView } from "./markdown.js";
import { alternativesBar } from "./turn_view.js";

const kAdvice = {
  key: "This server wants an API key.",
  gone: "See that it is running and that this page can reach it, then try again.",
  context: "Begin a new chat, or edit an earlier turn and make it shorter.",
  server: "Try again. If it fails again, look at what the server has printed.",
  busy: "Many requests are waiting. Try again later.",
  refused: "Change the request or the settings, then try again.",
  cut: "",
};

/** The first line of the thinking, or the latest while it goes on. */
function previewOf(reasoning, latest) {
  const lines = reasoning.split("\n").map((line) => line.replace(/[*_`#>]/g, "").trim()).filter(Boolean);
  return ((latest ? lines.at(-1) : lines[0]) ?? "").slice(0, 200);
}

class ThinkingView {
  root;
  #label = h("span", { class: "thinking-label" });
  #preview = h("span", { class: "thinking-preview", dir: "auto" });
  #text = h("div", { class: "markdown" });
  #markdown = new MarkdownView(this.#text);
  #reply = null;

  constructor() {
    const summary = h("summary", {}, icon("next"), this.#label, this.#preview);
    this.root = h("details", { class: "thinking", on: { toggle: () => this.#showText() } }, summary, this.#text);
  }

  show(reply) {
    this.#reply = reply;
    this.root.hidden = reply.reasoning === "";
    if (this.root.hidden) return;
    const thinks = Boolean(reply.thinkingSince);
    this.root.classList.toggle("going-on", thinks);
    this.#label.textContent = thinks ? "Thinking"
      : reply.thinkingMs === undefined ? "Thoughts" : `Thought for ${duration(reply.thinkingMs)}`;
    this.#preview.textContent = previewOf(reply.reasoning, thinks);
    this.#showText();
  }

  #showText() {
    if (this.root.open && this.#reply) this.#markdown.show(this.#reply.reasoning, !this.#reply.thinkingSince);
  }
}

function prettyJson(text) {
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text; // not complete yet, or not JSON
  }
}

/** The calls of a reply; with `send`, a form for their results. */
function callsView(reply, send) {
  const fields = [];
  const cards = reply.calls.map((call) => {
    const card = h("div", { class: "call" },
      h("div", { class: "call-head" }, icon("tool"), h("span", { text: "Calls" }), h("code", { dir: "ltr", text: call.name || "…" })),
      h("pre", { dir: "ltr", tabindex: "0", text: prettyJson(call.arguments) }));
    if (send) {
      const field = h("textarea", { rows: "2", dir: "auto", placeholder: "Result for the model", "aria-label": `Result of ${call.name}` });
      fields.push(field);
      card.append(field);
    }
    return card;
  });
  if (!send) return h("div", { class: "calls" }, ...cards);
  const submit = (event) => {
    event.preventDefault();
    send(fields.map((field) => field.value));
  };
  const button = h("button", { class: "primary", text: reply.calls.length > 1 ? "Send the results" : "Send the result" });
  return h("form", { class: "calls", on: { submit } }, ...cards, h("div", { class: "row end" }, button));
}

function progressView({ progress, waiting }) {
  if (waiting) {
    const text = `${waiting.reason.replace(/\.?$/, ".")} Trying again in ${waiting.seconds} s.`;
    return h("p", { class: "progress", text });
  }
  if (progress?.total > 0) {
    const read = Math.min(progress.total, (progress.processed ?? 0));
    const bar = h("progress", { max: progress.total, value: read, "aria-label": "Prompt read" });
    return h("p", { class: "progress" }, `Reading the prompt: ${count(read)} of ${count(progress.total)} tokens`, bar);
  }
  return h("p", { class: "progress" }, h("span", { class: "pulse", role: "img", "aria-label": "Waiting for the reply" }));
}

export class ReplyView {
  root;
  #thinking = new ThinkingView();
  #text = h("div", { class: "markdown" });
  #markdown = new MarkdownView(this.#text);
  #calls = h("div");
  #end = h("div");
  #shown = {};

  constructor(reply, actions) {
    this.reply = reply;
    this.actions = actions;
    this.root = h("article", { class: "reply", "data-id": reply.id },
      h("h2", { class: "off-screen", text: "Reply" }), this.#thinking.root, this.#text, this.#calls, this.#end);
  }

  /** `place`: { at, count } among the alternatives; `last`: the chat ends here. */
  update({ place, last, busy }) {
    const { reply } = this;
    const streaming = reply.state === "streaming";
    this.root.setAttribute("aria-busy", String(streaming));
    this.root.classList.toggle("last", last);
    this.#thinking.show(reply);
    this.#markdown.show(reply.text, !streaming);

    const wantsResults = last && !busy && reply.state === "done" && reply.calls.length > 0;
    this.#replace("calls", [reply.calls, wantsResults], () => {
      const send = wantsResults ? (texts) => this.actions.sendResults(reply, texts) : null;
      this.#calls.replaceChildren(...(reply.calls.length > 0 ? [callsView(reply, send)] : []));
    });
    const { state, finish, error, figures, progress, waiting } = reply;
    const silent = streaming && reply.text === "" && reply.reasoning === "" && reply.calls.length === 0;
    this.#replace("end", [state, finish, error, figures, progress, waiting, place, last, busy, silent], () => {
      this.#end.replaceChildren(...this.#endParts({ place, last, busy, silent }));
    });
  }

  /** Renews a part when what it shows has changed, and so keeps the focus in it. */
  #replace(part, shows, renew) {
    const key = JSON.stringify(shows);
    if (this.#shown[part] === key) return;
    this.#shown[part] = key;
    renew();
  }

  #endParts({ place, last, busy, silent }) {
    const { reply } = this;
    if (reply.state === "streaming") return silent || reply.waiting || reply.progress ? [progressView(reply)] : [];
    const note = this.#note(last && !busy);
    const offered = Boolean(note?.querySelector("button")) && reply.state !== "done";
    return [note, this.#bar(place, busy || offered)].filter(Boolean);
  }

  #note(canAct) {
    const { reply } = this;
    const more = canAct && reply.text !== "" && reply.calls.length === 0
      ? textButton("Continue", () => this.actions.continueReply(reply)) : null;
    const again = canAct ? textButton("Regenerate", () => this.actions.regenerate(reply)) : null;
    if (reply.state === "stopped") return h("div", { class: "note" }, h("span", { text: "You stopped this reply." }), more, again);
    if (reply.state === "done") {
      if (reply.finish !== "length") return null;
      return h("div", { class: "note" }, h("span", { text: "The reply reached its limit of tokens." }), more);
    }
    if (reply.state === "cut") {
      const reason = reply.error && reply.error.kind !== "cut" ? reply.error.message : "This reply was cut off.";
      return h("div", { class: "note" }, h("span", { text: `${reason} What came is kept.` }), more, again);
    }
    return this.#failure(canAct);
  }

  #failure(canAct) {
    const { reply, actions } = this;
    const { kind, message } = reply.error ?? { kind: "cut", message: "This reply was cut off." };
    const box = h("div", { class: "failure", role: "alert" },
      h("p", { class: "strong", dir: "auto", text: message }), h("p", { text: kAdvice[kind] ?? "" }));
    if (!canAct) return box;
    const buttons = h("div", { class: "row" });
    if (kind === "key") buttons.append(textButton("Enter the key", () => actions.askKey(reply), { class: "primary" }));
    if (kind === "context") buttons.append(textButton("New chat", () => actions.newChat(), { class: "primary" }));
    buttons.append(textButton("Try again", () => actions.retry(reply)));
    box.append(buttons);
    return box;
  }

  #bar(place, withoutRegenerate) {
    const { reply, actions } = this;
    const bar = h("div", { class: "bar" }, alternativesBar(place, (step) => actions.showAlternative(reply, step)));
    if (reply.text !== "") bar.append(copyButton("Copy the reply", () => reply.text));
    if (!withoutRegenerate) bar.append(iconButton("regenerate", "Regenerate", () => actions.regenerate(reply)));
    if (reply.figures) {
      bar.append(h("span", { class: "figures", text: figureTexts(reply.figures).join(" · ") }));
    }
    return bar;
  }
}
