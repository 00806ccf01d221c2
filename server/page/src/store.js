// SPDX-License-Identifier: Apache-2.0
// The history, in the browser's database. Where there is none (some private windows), it
// lives until the page is closed.

const kName = "zem";
const kCut = "zem.cut.";

const done = (request) =>
  new Promise((resolve, reject) => {
    request.onsuccess = () => resolve(request.result);
    request.onerror = () => reject(request.error);
  });

const committed = (transaction) =>
  new Promise((resolve, reject) => {
    transaction.oncomplete = () => resolve();
    transaction.onerror = transaction.onabort = () => reject(transaction.error);
  });

function openDatabase() {
  const opening = indexedDB.open(kName, 1);
  opening.onupgradeneeded = () => {
    opening.result.createObjectStore("chats", { keyPath: "id" });
    opening.result.createObjectStore("messages", { keyPath: "id" }).createIndex("chat", "chat");
  };
  return done(opening);
}

class Database {
  lasting = true;
  #database;

  constructor(database) {
    this.#database = database;
    // Another page with a newer form of the database waits for this.
    database.onversionchange = () => database.close();
  }

  chats() {
    return done(this.#database.transaction("chats").objectStore("chats").getAll());
  }

  messages(chat) {
    return done(this.#database.transaction("messages").objectStore("messages").index("chat").getAll(chat));
  }

  message(id) {
    return done(this.#database.transaction("messages").objectStore("messages").get(id));
  }

  allMessages() {
    return done(this.#database.transaction("messages").objectStore("messages").getAll());
  }

  put({ chats = [], messages = [] }) {
    const transaction = this.#database.transaction(["chats", "messages"], "readwrite");
    for (const chat of chats) transaction.objectStore("chats").put(chat);
    for (const message of messages) transaction.objectStore("messages").put(message);
    return committed(transaction);
  }

  async remove(chat) {
    const transaction = this.#database.transaction(["chats", "messages"], "readwrite");
    transaction.objectStore("chats").delete(chat);
    const messages = transaction.objectStore("messages");
    for (const key of await done(messages.index("chat").getAllKeys(chat))) messages.delete(key);
    return committed(transaction);
  }

  clear() {
    const transaction = this.#database.transaction(["chats", "messages"], "readwrite");
    transaction.objectStore("chats").clear();
    transaction.objectStore("messages").clear();
    return committed(transaction);
  }
}

class Memory {
  lasting = false;
  #chats = new Map();
  #messages = new Map();

  async chats() {
    return [...this.#chats.values()];
  }

  async messages(chat) {
    return [...this.#messages.values()].filter((message) => message.chat === chat);
  }

  async allMessages() {
    return [...this.#messages.values()];
  }

  async put({ chats = [], messages = [] }) {
    for (const chat of chats) this.#chats.set(chat.id, structuredClone(chat));
    for (const message of messages) this.#messages.set(message.id, structuredClone(message));
  }

  async remove(chat) {
    this.#chats.delete(chat);
    for (const message of await this.messages(chat)) this.#messages.delete(message.id);
  }

  async clear() {
    this.#chats.clear();
    this.#messages.clear();
  }
}

/** The history. Every method gives a promise. */
export async function openStore() {
  try {
    const store = new Database(await openDatabase());
    await takeCutReplies(store);
    return store;
  } catch {
    return new Memory();
  }
}

/** Keeps a reply while the page is being closed, when the database may not be waited for. */
export function keepCutReply(reply) {
  try {
    localStorage.setItem(kCut + reply.id, JSON.stringify({ ...reply, state: "cut", waiting: null, progress: null }));
  } catch {
    // Too long for this place: what the database has is at most half a second older.
  }
}

/** Takes what was kept back: the reply has been stored as a whole. */
export function dropCutReply(id) {
  try {
    localStorage.removeItem(kCut + id);
  } catch {
    // There is no such place, and nothing in it.
  }
}

async function takeCutReplies(store) {
  for (const key of Object.keys(localStorage).filter((name) => name.startsWith(kCut))) {
    const reply = parsed(localStorage.getItem(key));
    const stored = await store.message(key.slice(kCut.length));
    if (reply && stored?.state === "streaming") await store.put({ messages: [reply] });
    localStorage.removeItem(key);
  }
}

function parsed(text) {
  try {
    return JSON.parse(text);
  } catch {
    return null; // it was not written to its end
  }
}
