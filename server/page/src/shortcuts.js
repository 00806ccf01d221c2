// SPDX-License-Identifier: Apache-2.0
// The keys of the whole page, and the list of them.
import { byId, h } from "./dom.js";

const kMac = /mac|iphone|ipad/i.test(navigator.platform);
const kControl = kMac ? "⌘" : "Ctrl";

/** `names` of `actions` are called by these keys. `key` is that of the event. */
const kShortcuts = [
  { keys: ["Enter"], says: "Send the message" },
  { keys: ["Shift", "Enter"], says: "New line" },
  { keys: ["↑"], says: "Edit the last message, in an empty field" },
  { keys: ["Esc"], says: "Stop the reply", key: "escape", bare: true, name: "stop" },
  { keys: [kControl, "Shift", "Enter"], says: "Regenerate the last reply", key: "enter", shift: true, name: "regenerate" },
  { keys: [kControl, "Shift", "O"], says: "New chat", key: "o", shift: true, name: "newChat" },
  { keys: [kControl, "K"], says: "Search the chats", key: "k", name: "search" },
  { keys: [kControl, "B"], says: "Show or hide the chats", key: "b", name: "toggleSidebar" },
  { keys: [kControl, ","], says: "Settings", key: ",", name: "settings" },
  { keys: [kControl, "/"], says: "This list", key: "/", shift: "any", name: "shortcuts" },
];

function matches(shortcut, event) {
  const control = kMac ? event.metaKey : event.ctrlKey;
  return event.key.toLowerCase() === shortcut.key && control === !shortcut.bare &&
    (shortcut.shift === "any" || event.shiftKey === Boolean(shortcut.shift)) && !event.altKey;
}

export function bindShortcuts(actions) {
  byId("shortcut-list").append(...kShortcuts.map(({ keys, says }) =>
    h("div", {}, h("dt", {}, ...keys.map((key) => h("kbd", { text: key }))), h("dd", { text: says }))));
  addEventListener("keydown", (event) => {
    if (event.isComposing || event.defaultPrevented || document.querySelector("dialog[open]")) return;
    const shortcut = kShortcuts.find((known) => known.name && matches(known, event));
    if (!shortcut) return;
    if (actions[shortcut.name]() !== false) event.preventDefault();
  });
}
