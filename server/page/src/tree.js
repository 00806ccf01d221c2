// SPDX-License-Identifier: Apache-2.0
// The messages of a chat form a tree: another reply, or an edited turn, is a sibling of the
// first one, so nothing is lost. What is shown is the path from the root to one leaf.
//
// A message: { id, chat, parent, role, created, text } and
//   a reply ("assistant"): reasoning, calls, state, finish, error, figures, model, thinkingMs
//   the result of a call ("tool"): call (its id), name

/** The messages from the root to `leaf`, in order. */
export function pathTo(messages, leaf) {
  const path = [];
  const seen = new Set();
  for (let id = leaf; id && messages.has(id) && !seen.has(id); id = messages.get(id).parent) {
    seen.add(id);
    path.push(messages.get(id));
  }
  return path.reverse();
}

export function childrenOf(messages, id) {
  return [...messages.values()]
    .filter((message) => (message.parent ?? null) === (id ?? null))
    .sort((a, b) => a.created - b.created || (a.id < b.id ? -1 : 1));
}

/** The message and its alternatives, oldest first. */
export function alternatives(messages, message) {
  return childrenOf(messages, message.parent);
}

/** The end of the newest branch that goes through the message. */
export function newestLeaf(messages, id) {
  const seen = new Set();
  for (;;) {
    seen.add(id);
    const children = childrenOf(messages, id).filter((child) => !seen.has(child.id));
    if (children.length === 0) return id;
    id = children.at(-1).id;
  }
}

/** The title of a chat that begins with `text`. */
export function titleOf(text) {
  const line = text.trim().split("\n", 1)[0].replace(/\s+/g, " ").trim();
  const letters = Array.from(line);
  return letters.length > 60 ? letters.slice(0, 59).join("").trimEnd() + "…" : line || "New chat";
}

export function emptyReply(fields) {
  return { role: "assistant", text: "", reasoning: "", calls: [], state: "streaming", ...fields };
}
