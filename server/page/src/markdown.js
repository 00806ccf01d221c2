// SPDX-License-Identifier: Apache-2.0
// Markdown of replies as elements. What a model writes is a stranger's text: tags show as
// text but for a few without attributes, and everything passes the sanitiser.
import DOMPurify from "dompurify";
import { Marked } from "marked";
import { copyButton, h } from "./dom.js";
import { highlight } from "./highlight.js";

const kPlainTag = /^<\/?(?:b|br|del|em|i|ins|kbd|mark|s|small|strong|sub|sup|u)\s*\/?>$/i;
const kSanitiser = {
  ALLOWED_TAGS: [
    "a", "b", "blockquote", "br", "code", "del", "em", "h1", "h2", "h3", "h4", "h5", "h6", "hr", "i", "ins", "kbd",
    "li", "mark", "ol", "p", "pre", "s", "small", "span", "strong", "sub", "sup", "table", "tbody", "td", "th", "thead",
    "tr", "u", "ul",
  ],
  ALLOWED_ATTR: ["align", "class", "href", "start"],
  ALLOWED_URI_REGEXP: /^(?:https?:|mailto:)/i,
  ADD_URI_SAFE_ATTR: ["align", "start"], // these are no addresses
  ALLOW_DATA_ATTR: false,
  ALLOW_ARIA_ATTR: false,
  RETURN_DOM_FRAGMENT: true,
};
const kClass = /^(?:language-\S+|hljs-[\w-]+(?: [\w-]+)*)$/;
const kLongestText = 400_000;

DOMPurify.addHook("afterSanitizeAttributes", (node) => {
  if (node.hasAttribute?.("class") && !kClass.test(node.getAttribute("class"))) node.removeAttribute("class");
  if (node.localName === "a") {
    node.setAttribute("target", "_blank");
    node.setAttribute("rel", "noopener noreferrer");
  }
});

export const sanitised = (html) => DOMPurify.sanitize(html, kSanitiser);

const escaped = (text) =>
  text.replace(/[&<>"']/g, (letter) => `&#${letter.charCodeAt(0)};`);

const marked = new Marked({
  gfm: true,
  renderer: {
    html: ({ text }) => (kPlainTag.test(text.trim()) ? text : escaped(text)),
    // A picture would be a request to a stranger; the link leaves that to the reader.
    image: ({ href, text }) => `<a href="${escaped(href)}">${escaped(text || href)}</a>`,
    checkbox: ({ checked }) => (checked ? "☑ " : "☐ "),
  },
});

function dressCode(pre) {
  const code = pre.querySelector("code") ?? pre;
  const language = /language-(\S+)/.exec(code.className)?.[1] ?? "";
  const figure = h("div", { class: "code", dir: "ltr" });
  pre.replaceWith(figure);
  pre.tabIndex = 0;
  figure.append(
    h("div", { class: "code-head" }, h("span", { text: language }), copyButton("Copy the code", () => code.textContent)),
    pre,
  );
  return { code, language };
}

function dressTable(table) {
  const frame = h("div", { class: "table", tabindex: "0" });
  table.replaceWith(frame);
  frame.append(table);
}

/** The elements of one block. */
function renderBlock(token, links) {
  const tokens = Object.assign([token], { links });
  const root = h("div", { class: "block", dir: "auto" });
  root.append(sanitised(marked.parser(tokens)));
  const codes = [...root.querySelectorAll("pre")].map(dressCode);
  root.querySelectorAll("table").forEach(dressTable);
  return { raw: token.raw, root, codes, highlighted: false };
}

/** Keeps `root` showing a text that grows: only blocks that changed are made anew. */
export class MarkdownView {
  #root;
  #blocks = [];
  #text = null;
  #whole = false;

  constructor(root) {
    this.#root = root;
  }

  /** `whole`: nothing more will come. */
  show(text, whole) {
    if (text === this.#text && whole === this.#whole) return;
    this.#text = text;
    this.#whole = whole;
    try {
      if (text.length > kLongestText) throw new RangeError("too long");
      this.#showBlocks(marked.lexer(text), whole);
    } catch {
      // Nested beyond what the parser's recursion can take, or very long: as it is.
      this.#blocks = [];
      this.#root.replaceChildren(h("div", { class: "plain", dir: "auto", text }));
    }
  }

  #showBlocks(tokens, whole) {
    const visible = tokens.filter((token) => token.type !== "space" && token.type !== "def");
    if (this.#blocks.length === 0) this.#root.replaceChildren();
    visible.forEach((token, at) => {
      const old = this.#blocks[at];
      if (old?.raw !== token.raw) {
        const block = renderBlock(token, tokens.links);
        if (old) old.root.replaceWith(block.root);
        else this.#root.append(block.root);
        this.#blocks[at] = block;
      }
      if (whole || at + 1 < visible.length) colour(this.#blocks[at]);
    });
    for (const block of this.#blocks.splice(visible.length)) block.root.remove();
  }
}

function colour(block) {
  if (block.highlighted) return;
  block.highlighted = true;
  for (const { code, language } of block.codes) {
    if (language) highlight(code, language, sanitised);
  }
}
