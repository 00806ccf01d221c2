// SPDX-License-Identifier: Apache-2.0
// Joins the parts of the page.
import { fetchModels, isHealthy } from "./api.js";
import { ChatView } from "./chat_view.js";
import { Composer } from "./composer.js";
import { announce, byId, h } from "./dom.js";
import { count } from "./format.js";
import { History } from "./history.js";
import { newId } from "./ids.js";
import { hideNotice, showNotice } from "./notices.js";
import { hasContent } from "./reply.js";
import { chatRequest } from "./request.js";
import { Run } from "./run.js";
import { askForKey, SettingsDialog } from "./settings_dialog.js";
import { applyTheme, loadKey, loadSettings, saveSettings, tabName } from "./settings.js";
import { bindShortcuts } from "./shortcuts.js";
import { Sidebar } from "./sidebar.js";
import { keepCutReply, openStore } from "./store.js";
import { alternatives, emptyReply, newestLeaf, pathTo, titleOf } from "./tree.js";

const kSaveMs = 500;
const kSignOfLifeMs = 5000;
const kHealthMs = 3000;

class Page {
  #settings = loadSettings();
  #models = [];
  #runs = new Map(); // by the chat's id
  #watching = false;
  #history;
  #chat;

  constructor(store) {
    this.#history = new History(store, tabName(newId()));
    applyTheme(this.#settings.theme);
    this.view = new ChatView(this);
    this.composer = new Composer({
      send: (text) => this.send(text),
      stop: () => this.stop(),
      editLast: () => this.view.editLast(),
    });
    this.sidebar = new Sidebar({
      open: (id) => this.open(id),
      remove: (id) => this.remove(id),
      rename: (id, title) => this.#history.rename(id, title).then(() => this.#show()),
      search: (query) => this.#history.search(query),
    });
    this.dialog = new SettingsDialog(this.#settings, this.#dialogActions());
    this.#bindButtons();
    if (!store.lasting) showNotice("memory", "This browser keeps no data here: the chats are gone when the page is closed.");
  }

  async begin() {
    await this.#history.begin((message) => this.#heard(message));
    addEventListener("hashchange", () => this.#openAddress());
    addEventListener("pagehide", () => this.#runs.forEach((run) => keepCutReply(run.reply)));
    await this.#openAddress();
    await this.#loadModels();
  }

  #dialogActions() {
    return {
      changed: () => {
        byId("thinking").value = this.#settings.thinking;
        if (this.#models.length === 0) this.#loadModels();
      },
      system: () => this.#chat.info.system,
      setSystem: (text) => {
        this.#chat.info.system = text;
        this.#history.saveChat(this.#chat);
      },
      exportAll: async () => saveFile("chats.json", await this.#history.exportText()),
      exportChat: async () => saveFile("chat.json", await this.#history.exportText([this.#chat.info.id])),
      importFile: (file) => this.#importFile(file),
      removeAll: async () => {
        this.#runs.forEach((run) => run.stop());
        await this.#history.removeAll();
        this.newChat();
      },
    };
  }

  #bindButtons() {
    const newChat = () => this.newChat();
    byId("new-chat").addEventListener("click", newChat);
    byId("new-chat-top").addEventListener("click", newChat);
    for (const id of ["open-settings", "tune"]) byId(id).addEventListener("click", () => this.dialog.open());
    byId("open-shortcuts").addEventListener("click", () => byId("shortcuts").showModal());
    byId("thinking").value = this.#settings.thinking;
    byId("thinking").addEventListener("change", () => {
      this.#settings.thinking = byId("thinking").value;
      saveSettings(this.#settings);
    });
    byId("model").addEventListener("change", () => {
      this.#settings.model = byId("model").value;
      saveSettings(this.#settings);
      this.#show();
    });
    bindShortcuts({
      stop: () => this.stop(),
      regenerate: () => this.#regenerateLast(),
      newChat,
      search: () => this.sidebar.focusSearch(),
      toggleSidebar: () => this.sidebar.toggle(),
      settings: () => this.dialog.open(),
      shortcuts: () => byId("shortcuts").showModal(),
    });
  }

  // ---- Which chat is shown

  async #openAddress() {
    const id = location.hash.slice(1);
    if (this.#chat && id === this.#chat.info.id) return;
    const chat = id ? await this.#history.load(id) : null;
    this.#switchTo(chat ?? this.#history.create(this.#settings.system));
  }

  async open(id) {
    const chat = await this.#history.load(id);
    if (!chat) return;
    this.#switchTo(chat);
    this.sidebar.closeOnNarrow();
    this.composer.focus();
  }

  newChat() {
    this.#switchTo(this.#history.create(this.#settings.system));
    this.sidebar.closeOnNarrow();
    this.composer.focus();
  }

  #switchTo(chat) {
    this.#chat = chat;
    const stored = chat.messages.size > 0;
    const address = stored ? `#${chat.info.id}` : location.pathname + location.search;
    if (location.hash !== (stored ? address : "")) history.pushState(null, "", address);
    this.view.open(this.#state());
    this.#show();
  }

  #state() {
    return { chat: this.#chat, busy: this.#isBusy(this.#chat) };
  }

  #isBusy(chat) {
    return this.#runs.has(chat.info.id) || chat.messages.get(chat.info.leaf)?.state === "streaming";
  }

  #show() {
    const state = this.#state();
    this.view.show(state);
    this.composer.setBusy(state.busy);
    const title = this.#chat.messages.size > 0 ? this.#chat.info.title : "";
    byId("title").textContent = title;
    document.title = title ? `${title} – zem` : "zem";
    this.#showContext(this.#model()?.context);
    this.sidebar.show({ chats: this.#history.chats, current: this.#chat.info.id, running: this.#runs });
  }

  #showContext(context) {
    const path = pathTo(this.#chat.messages, this.#chat.info.leaf);
    const used = path.findLast((message) => message.figures?.context)?.figures.context;
    const field = byId("context");
    field.hidden = used === undefined;
    if (used === undefined) return;
    field.textContent = context ? `${count(used)} / ${count(context)}` : `${count(used)} tokens`;
    field.classList.toggle("nearly-full", Boolean(context) && used > 0.9 * context);
  }

  // ---- Messages

  async send(text) {
    const chat = this.#chat;
    if (this.#isBusy(chat)) return;
    if (chat.messages.size === 0) chat.info.title = titleOf(text);
    history.replaceState(null, "", `#${chat.info.id}`);
    const turn = this.#message(chat, "user", chat.info.leaf, { text });
    await this.#addAndAnswer(chat, [turn]);
  }

  edit(turn, text) {
    const chat = this.#chat;
    if (this.#isBusy(chat)) return;
    return this.#addAndAnswer(chat, [this.#message(chat, "user", turn.parent, { text })]);
  }

  sendResults(reply, texts) {
    const chat = this.#chat;
    const results = [];
    reply.calls.forEach((call, at) => {
      const parent = results.at(-1)?.id ?? reply.id;
      results.push(this.#message(chat, "tool", parent, { call: call.id, name: call.name, text: texts[at] }));
    });
    return this.#addAndAnswer(chat, results);
  }

  regenerate(reply) {
    const chat = this.#chat;
    if (this.#isBusy(chat)) return;
    return this.#addAndAnswer(chat, [], reply.parent);
  }

  #regenerateLast() {
    const path = pathTo(this.#chat.messages, this.#chat.info.leaf);
    const last = path.findLast((message) => message.role === "assistant");
    if (last) this.regenerate(last);
  }

  continueReply(reply) {
    return this.#answer(this.#chat, reply, true);
  }

  retry(reply) {
    return hasContent(reply) ? this.regenerate(reply) : this.#answer(this.#chat, reply);
  }

  async askKey(reply) {
    if (!(await askForKey(reply.error.message))) return;
    await this.#loadModels();
    await this.retry(reply);
  }

  showAlternative(message, step) {
    const { messages, info } = this.#chat;
    const versions = alternatives(messages, message);
    const other = versions[versions.indexOf(message) + step];
    if (!other) return;
    info.leaf = newestLeaf(messages, other.id);
    this.#history.saveChat(this.#chat);
    this.#show();
  }

  /** False when there is nothing to be stopped. */
  stop() {
    const run = this.#runs.get(this.#chat.info.id);
    if (run) run.stop();
    else if (this.#isBusy(this.#chat)) this.#history.tell({ stop: this.#chat.info.leaf });
    else return false;
    return true;
  }

  #message(chat, role, parent, fields) {
    return { id: newId(), chat: chat.info.id, parent, role, created: Date.now(), ...fields };
  }

  async #addAndAnswer(chat, messages, parent = messages.at(-1).id) {
    const fields = this.#message(chat, "assistant", parent, {});
    const reply = emptyReply(fields);
    reply.created = Math.max(reply.created, (messages.at(-1)?.created ?? 0) + 1);
    const added = this.#history.add(chat, [...messages, reply]);
    if (this.#chat === chat) this.view.toEnd();
    await Promise.all([added.catch(tellUnsaved), this.#answer(chat, reply)]);
  }

  async #answer(chat, reply, continuing = false) {
    if (this.#runs.has(chat.info.id)) return;
    const body = this.#bodyFor(chat, reply, continuing);
    if (body) await this.#receive(chat, reply, body);
    await this.#history.saveReply(reply).catch(tellUnsaved);
    this.#show();
    if (reply.error?.kind === "key") await this.askKey(reply);
    if (reply.error?.kind === "gone") this.#watchServer();
  }

  #bodyFor(chat, reply, continuing) {
    try {
      return chatRequest({
        path: pathTo(chat.messages, reply.id),
        system: chat.info.system,
        model: this.#model()?.id,
        settings: this.#settings,
        continuing,
      });
    } catch (error) {
      Object.assign(reply, { state: "failed", error: { kind: "refused", message: error.message } });
      return null;
    }
  }

  async #receive(chat, reply, body) {
    let dirty = true;
    let saved = 0;
    const changed = () => {
      dirty = true;
      if (this.#chat === chat) this.view.grow(reply);
    };
    const run = new Run(reply, body, { key: loadKey(), changed });
    this.#runs.set(chat.info.id, run);
    const timer = setInterval(() => {
      if (!dirty && Date.now() - saved < kSignOfLifeMs) return;
      dirty = false;
      saved = Date.now();
      this.#history.saveReply(reply).catch(tellUnsaved);
    }, kSaveMs);
    announce("The reply is being written");
    const going = run.go();
    this.#show();
    await going;
    clearInterval(timer);
    this.#runs.delete(chat.info.id);
    announce(reply.state === "done" ? "The reply is complete" : "The reply has ended early");
  }

  // ---- The server

  #model() {
    return this.#models.find((model) => model.id === this.#settings.model) ?? this.#models[0];
  }

  async #loadModels() {
    try {
      this.#models = await fetchModels(loadKey());
      hideNotice("server");
    } catch (error) {
      if (error.kind === "gone" || error.kind === "busy") this.#watchServer(error.kind === "busy");
      else if (error.kind !== "key") showNotice("server", error.message, { kind: "bad" });
      return;
    }
    const model = this.#model();
    const choices = this.#models.map(({ id }) => h("option", { value: id, text: id }));
    byId("model").replaceChildren(...choices);
    byId("model").hidden = choices.length < 2;
    byId("model-name").textContent = choices.length === 1 ? model.id : "";
    if (model) byId("model").value = model.id;
    this.#show();
  }

  /** Says that the server is away until it is back. */
  async #watchServer(loading = false) {
    if (this.#watching) return;
    this.#watching = true;
    showNotice("server", loading ? "The server is not ready yet. Looking again every few seconds."
      : "No answer from the server. Looking for it every few seconds.");
    do {
      await new Promise((resolve) => setTimeout(resolve, kHealthMs));
    } while (!(await isHealthy()));
    this.#watching = false;
    hideNotice("server");
    showNotice("back", "The server is back.", { lasts: 5000 });
    await this.#loadModels();
  }

  // ---- The history

  async #heard({ changed, stop }) {
    if (stop) {
      for (const run of this.#runs.values()) if (run.reply.id === stop) run.stop();
      return;
    }
    this.#history.forget(changed, this.#runs);
    await this.#history.refresh();
    const { id } = this.#chat.info;
    const concerned = this.#chat.messages.size > 0 && (changed ?? id) === id && !this.#runs.has(id);
    if (concerned) {
      this.#chat = (await this.#history.load(id)) ?? this.#history.create(this.#settings.system);
      this.view.open(this.#state());
    }
    this.#show();
  }

  async remove(id) {
    this.#runs.get(id)?.stop();
    const title = this.#history.chats.find((chat) => chat.id === id)?.title;
    const bringBack = await this.#history.remove(id);
    if (this.#chat.info.id === id) this.newChat();
    else this.#show();
    const act = () => bringBack().then(() => this.open(id));
    showNotice("removed", `Deleted “${title}”.`, { lasts: 10_000, button: { label: "Undo", act } });
  }

  async #importFile(file) {
    byId("settings").close();
    try {
      const number = await this.#history.importText(await file.text());
      showNotice("import", number === 1 ? "One chat was added." : `${number} chats were added.`, { lasts: 6000 });
    } catch (error) {
      showNotice("import", error.message, { kind: "bad" });
    }
    this.#show();
  }
}

function tellUnsaved(error) {
  console.error(error);
  showNotice("unsaved", "The browser could not store the chat; it may have no room left. Export or delete chats.", { kind: "bad" });
}

function saveFile(name, text) {
  const address = URL.createObjectURL(new Blob([text], { type: "application/json" }));
  h("a", { href: address, download: name }).click();
  setTimeout(() => URL.revokeObjectURL(address), 10_000);
}

new Page(await openStore()).begin();
