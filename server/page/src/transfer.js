// SPDX-License-Identifier: Apache-2.0
// The history as a file. A file comes from anywhere: only what has the right form is taken,
// and everything gets a new name, so that a file replaces nothing.
import { newId } from "./ids.js";
import { titleOf } from "./tree.js";

const kFormat = "zem-chats";
const kStates = ["done", "stopped", "cut", "failed"];
const kFinishes = ["stop", "length", "tool_calls"];

/** The file's text; each chat is { info, messages }. */
export function exportChats(chats) {
  const plain = chats.map(({ info, messages }) => ({
    ...info,
    messages: messages.map(({ waiting, progress, tab, saved, ...message }) => message),
  }));
  return JSON.stringify({ format: kFormat, version: 1, chats: plain }, null, 1);
}

const text = (value) => (typeof value === "string" ? value : "");
const number = (value, otherwise) => (Number.isFinite(value) ? value : otherwise);
const oneOf = (list, value, otherwise) => (list.includes(value) ? value : otherwise);

function readFigures(value) {
  if (!value || typeof value !== "object") return undefined;
  const names = ["tokens", "context", "reused", "perSecond"];
  return Object.fromEntries(names.filter((name) => Number.isFinite(value[name])).map((name) => [name, value[name]]));
}

function readCalls(value) {
  const calls = Array.isArray(value) ? value.filter((call) => call && typeof call === "object") : [];
  return calls.map((call, index) => ({
    index,
    id: text(call.id),
    name: text(call.name),
    arguments: text(call.arguments),
  }));
}

function readMessage(value, chat, at) {
  const message = {
    id: newId(),
    chat,
    parent: null,
    role: value.role,
    created: number(value.created, at),
    text: text(value.text),
  };
  if (value.role === "tool") return { ...message, call: text(value.call), name: text(value.name) };
  if (value.role !== "assistant") return message;
  return {
    ...message,
    reasoning: text(value.reasoning),
    calls: readCalls(value.calls),
    state: oneOf(kStates, value.state, "cut"),
    finish: oneOf(kFinishes, value.finish, null),
    model: text(value.model),
    thinkingMs: number(value.thinkingMs, undefined),
    figures: readFigures(value.figures),
  };
}

function isMessage(value) {
  return value && typeof value === "object" && ["user", "assistant", "tool"].includes(value.role);
}

/** A message that is its own ancestor loses its parent. */
function openCircles(messages) {
  const byId = new Map(messages.map((message) => [message.id, message]));
  const sound = new Set();
  for (const message of messages) {
    const way = new Set();
    for (let at = message; at && !sound.has(at); at = byId.get(at.parent)) {
      way.add(at);
      if (way.has(byId.get(at.parent))) at.parent = null;
    }
    for (const at of way) sound.add(at);
  }
}

function readChat(value) {
  const id = newId();
  const list = Array.isArray(value.messages) ? value.messages.filter(isMessage) : [];
  if (list.length === 0) return null;

  const messages = list.map((message, at) => readMessage(message, id, at));
  const names = new Map();
  list.forEach((message, at) => {
    if (typeof message.id === "string" && !names.has(message.id)) names.set(message.id, messages[at].id);
  });
  list.forEach((message, at) => (messages[at].parent = names.get(message.parent) ?? null));
  openCircles(messages);

  const now = Date.now();
  const info = {
    id,
    title: text(value.title).slice(0, 200) || titleOf(messages[0].text),
    created: number(value.created, now),
    updated: number(value.updated, now),
    system: text(value.system),
    leaf: names.get(value.leaf) ?? messages.at(-1).id,
  };
  return { info, messages };
}

/** The chats of the file: [{ info, messages }]. Throws a sentence for the user. */
export function importChats(fileText) {
  let file;
  try {
    file = JSON.parse(fileText);
  } catch {
    throw new Error("This file is not JSON. Choose a file that this page has exported.");
  }
  if (file?.format !== kFormat || !Array.isArray(file.chats)) {
    throw new Error("This file holds no chats of this page. Choose one that this page has exported.");
  }
  if (file.version !== 1) throw new Error(`This file has version ${Number(file.version)}; this page reads version 1.`);
  return file.chats
    .filter((chat) => chat && typeof chat === "object")
    .map(readChat)
    .filter((chat) => chat !== null);
}
