// SPDX-License-Identifier: Apache-2.0
// The list of chats, and the search in it.
import { byId, h, iconButton } from "./dom.js";
import { dayGroup } from "./format.js";

const kSearchPauseMs = 200;
const kNarrow = matchMedia("(max-width: 52rem)");

export class Sidebar {
  #list = byId("chats");
  #search = byId("search");
  #timer = 0;
  #searches = 0;
  #shown = "";

  /** `actions`: open(id), remove(id), rename(id, title), search(query). */
  constructor(actions) {
    this.actions = actions;
    this.#search.addEventListener("input", () => {
      clearTimeout(this.#timer);
      this.#timer = setTimeout(() => this.refresh(), kSearchPauseMs);
    });
    byId("scrim").addEventListener("click", () => this.toggle(false));
    byId("menu").addEventListener("click", () => this.toggle());
    kNarrow.addEventListener("change", () => this.toggle(!kNarrow.matches));
    this.toggle(!kNarrow.matches);
  }

  get isOpen() {
    return document.body.classList.contains("with-sidebar");
  }

  toggle(open = !this.isOpen) {
    document.body.classList.toggle("with-sidebar", open);
    byId("sidebar").inert = !open;
    byId("main").inert = open && kNarrow.matches;
    byId("menu").setAttribute("aria-expanded", String(open));
    if (open && kNarrow.matches) this.#search.focus();
  }

  closeOnNarrow() {
    if (kNarrow.matches) this.toggle(false);
  }

  focusSearch() {
    this.toggle(true);
    this.#search.focus();
    this.#search.select();
  }

  /** `chats`: newest first; `running`: ids of chats with a reply on its way. */
  async show({ chats, current, running }) {
    Object.assign(this, { chats, current, running });
    await this.refresh();
  }

  async refresh() {
    const query = this.#search.value.trim();
    const turn = ++this.#searches;
    const found = query ? await this.actions.search(query) : null;
    if (turn !== this.#searches) return; // a later search was faster
    this.#render(found);
  }

  /** Leaves the list alone when it shows all that already: it may be under the pointer. */
  #render(found) {
    const key = JSON.stringify([this.chats, this.current, [...this.running.keys()], found && [...found]]);
    if (key === this.#shown) return;
    this.#shown = key;
    const shown = found ? this.chats.filter((chat) => found.has(chat.id)) : this.chats;
    const items = [];
    let group = "";
    for (const chat of shown) {
      const day = dayGroup(chat.updated);
      if (!found && day !== group) items.push(h("li", { class: "group", text: day }));
      group = day;
      items.push(this.#item(chat, found?.get(chat.id)));
    }
    if (items.length === 0) {
      items.push(h("li", { class: "group", text: found ? "Nothing found" : "Your chats will be listed here" }));
    }
    const focused = document.activeElement?.closest?.("#chats li")?.dataset.id;
    this.#list.replaceChildren(...items);
    if (focused) this.#list.querySelector(`[data-id="${CSS.escape(focused)}"] .open`)?.focus();
  }

  #item(chat, words) {
    const open = h("button", {
      type: "button",
      class: "open",
      "aria-current": chat.id === this.current ? "page" : null,
      on: { click: () => this.actions.open(chat.id), dblclick: () => this.#rename(item, chat) },
    }, h("span", { class: "chat-title", dir: "auto", text: chat.title }),
      words && words !== chat.title ? h("span", { class: "chat-words", dir: "auto", text: words }) : null);
    const tools = h("span", { class: "item-tools" },
      iconButton("edit", `Rename “${chat.title}”`, () => this.#rename(item, chat)),
      iconButton("trash", `Delete “${chat.title}”`, () => this.actions.remove(chat.id)));
    const item = h("li", { "data-id": chat.id, class: this.running.has(chat.id) ? "running" : null }, open, tools);
    return item;
  }

  #rename(item, chat) {
    const field = h("input", { class: "rename", dir: "auto", "aria-label": "Title of the chat", maxlength: "200" });
    field.value = chat.title;
    let ended = false;
    const end = (keep) => {
      if (ended) return;
      ended = true;
      this.#shown = "";
      if (keep && field.value.trim()) this.actions.rename(chat.id, field.value.trim());
      else this.refresh();
    };
    field.addEventListener("blur", () => end(true));
    field.addEventListener("keydown", (event) => {
      if (event.isComposing || (event.key !== "Enter" && event.key !== "Escape")) return;
      event.stopPropagation();
      end(event.key === "Enter");
    });
    item.replaceChildren(field);
    field.focus();
    field.select();
  }
}
