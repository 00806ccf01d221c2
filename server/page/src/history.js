// SPDX-License-Identifier: Apache-2.0
// The chats of this browser, as the page works with them: what is stored, what is open, and
// what other tabs have changed.
import { excerpt } from "./format.js";
import { newId } from "./ids.js";
import { dropCutReply } from "./store.js";
import { exportChats, importChats } from "./transfer.js";

const kAbandonedMs = 60_000;

export class History {
  /** Newest first: { id, title, created, updated, system, leaf }. */
  chats = [];
  #open = new Map();
  #store;
  #tab;
  #channel = globalThis.BroadcastChannel ? new BroadcastChannel("zem") : null;

  constructor(store, tab) {
    this.#store = store;
    this.#tab = tab;
  }

  /** `heard(message)`: { changed: chat id } or { stop: reply id } from another tab. */
  async begin(heard) {
    await this.refresh();
    this.#channel?.addEventListener("message", ({ data }) => heard(data));
  }

  tell(message) {
    this.#channel?.postMessage(message);
  }

  /** Reads the list anew. Chats that are open keep their record: it is as new as the stored one. */
  async refresh() {
    const infos = new Map((await this.#store.chats()).map((info) => [info.id, info]));
    for (const { info } of this.#open.values()) infos.set(info.id, info);
    this.chats = [...infos.values()];
    this.#sort();
  }

  #sort() {
    this.chats.sort((a, b) => b.updated - a.updated);
  }

  /** A new chat; it is stored with its first message. */
  create(system) {
    const now = Date.now();
    const info = { id: newId(), title: "New chat", created: now, updated: now, system, leaf: null };
    return { info, messages: new Map() };
  }

  /** The chat, or null when it is gone. */
  async load(id) {
    if (this.#open.has(id)) return this.#open.get(id);
    const info = this.chats.find((chat) => chat.id === id);
    if (!info) return null;
    const messages = await this.#store.messages(id);
    for (const message of messages) this.#endAbandoned(message);
    const chat = { info, messages: new Map(messages.map((message) => [message.id, message])) };
    this.#open.set(id, chat);
    return chat;
  }

  /** A reply that no tab is receiving any more was cut off. */
  #endAbandoned(message) {
    if (message.state !== "streaming") return;
    const elsewhere = message.tab !== this.#tab && Date.now() - (message.saved ?? 0) < kAbandonedMs;
    if (!elsewhere) Object.assign(message, { state: "cut", thinkingSince: null });
  }

  /** Has the chat, or every chat but those of `kept`, read anew: another tab has changed it. */
  forget(id, kept) {
    for (const open of [...this.#open.keys()]) if (!kept.has(open) && (id ?? open) === open) this.#open.delete(open);
  }

  /** Adds messages, each a child of the one before; the last one is the new leaf. */
  async add(chat, messages) {
    for (const message of messages) {
      chat.messages.set(message.id, message);
      chat.info.leaf = message.id;
    }
    chat.info.updated = Date.now();
    if (!this.#open.has(chat.info.id)) {
      this.#open.set(chat.info.id, chat);
      this.chats.push(chat.info);
    }
    this.#sort();
    await this.#put({ chats: [chat.info], messages });
  }

  saveChat(chat) {
    return this.#open.has(chat.info.id) ? this.#put({ chats: [chat.info], messages: [] }) : Promise.resolve();
  }

  async saveReply(reply) {
    if (!this.#open.has(reply.chat)) return; // deleted meanwhile
    const stored = { ...reply, waiting: null, progress: null, tab: this.#tab, saved: Date.now() };
    await this.#put({ chats: [], messages: [stored] });
    if (reply.state !== "streaming") dropCutReply(reply.id);
  }

  async #put(records) {
    await this.#store.put(records);
    this.tell({ changed: records.chats[0]?.id ?? records.messages[0]?.chat });
  }

  async rename(id, title) {
    const info = this.chats.find((chat) => chat.id === id);
    if (!info) return;
    info.title = title;
    await this.#put({ chats: [info], messages: [] });
  }

  /** Gives a function that brings the chat back. */
  async remove(id) {
    const chat = await this.load(id);
    if (!chat) return async () => {};
    this.#open.delete(id);
    this.chats = this.chats.filter((info) => info.id !== id);
    await this.#store.remove(id);
    this.tell({ changed: id });
    return () => this.#bring([{ info: chat.info, messages: [...chat.messages.values()] }]);
  }

  async removeAll() {
    this.#open.clear();
    this.chats = [];
    await this.#store.clear();
    this.tell({ changed: null });
  }

  async #bring(chats) {
    for (const { info } of chats) this.chats.push(info);
    this.#sort();
    await this.#put({ chats: chats.map(({ info }) => info), messages: chats.flatMap(({ messages }) => messages) });
  }

  /** The number of chats that came from the file's text. Throws a sentence for the user. */
  async importText(text) {
    const chats = importChats(text);
    await this.#bring(chats);
    return chats.length;
  }

  /** The text of a file with these chats, or with all. */
  async exportText(ids = this.chats.map((chat) => chat.id)) {
    const chats = [];
    for (const info of this.chats.filter((chat) => ids.includes(chat.id))) {
      chats.push({ info, messages: await this.#store.messages(info.id) });
    }
    return exportChats(chats);
  }

  /** Chats with `query` in their title or a message: id -> some words around it. */
  async search(query) {
    const found = new Map();
    const wanted = query.toLowerCase();
    for (const chat of this.chats) if (chat.title.toLowerCase().includes(wanted)) found.set(chat.id, "");
    for (const message of await this.#store.allMessages()) {
      if (found.get(message.chat)) continue;
      const words = excerpt(message.text, query);
      if (words) found.set(message.chat, words);
    }
    return found;
  }
}
