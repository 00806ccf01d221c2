// SPDX-License-Identifier: Apache-2.0
// Making elements. Text goes in as text, never as markup.

const kSvg = "http://www.w3.org/2000/svg";

/**
 * An element. `props`: "on" maps events to functions, "class", "text", other names are
 * attributes; true is an empty attribute, false and null leave it out.
 */
export function h(tag, props = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(props)) {
    if (name === "on") {
      for (const [event, listener] of Object.entries(value)) element.addEventListener(event, listener);
    } else if (name === "text") {
      element.textContent = value;
    } else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(name, value === true ? "" : value);
    }
  }
  element.append(...children.filter((child) => child !== null && child !== undefined && child !== false));
  return element;
}

export const byId = (id) => document.getElementById(id);

// Strokes on a field of 24 by 24.
const kIcons = {
  check: "M5 12.5l4.5 4.5L19 7.5",
  close: "M6 6l12 12M18 6L6 18",
  copy: "M9 9h10v11H9zM5 15V4h10",
  down: "M12 5v14M6 13l6 6 6-6",
  edit: "M4 20h4L19 9l-4-4L4 16zM13 7l4 4",
  keyboard: "M3 6h18v12H3zM7 10h.01M11 10h.01M15 10h.01M8 14h8",
  menu: "M4 7h16M4 12h16M4 17h16",
  next: "M10 6l6 6-6 6",
  plus: "M12 5v14M5 12h14",
  previous: "M14 6l-6 6 6 6",
  regenerate: "M20 11a8 8 0 1 0-2.3 6.2M20 5v6h-6",
  send: "M12 19V5M6 11l6-6 6 6",
  settings: "M4 7h9M17 7h3M4 17h3M11 17h9M15 5v4M9 15v4",
  stop: "M7 7h10v10H7z",
  tool: "M14.5 6a4 4 0 0 0 4.9 5.1L11 19.5a2.1 2.1 0 0 1-3-3l8.4-8.4A4 4 0 0 0 14.5 6z",
  trash: "M5 7h14M10 7V4h4v3M7 7l1 13h8l1-13",
};

/** A picture that says nothing to a screen reader. */
export function icon(name) {
  const svg = document.createElementNS(kSvg, "svg");
  svg.setAttribute("viewBox", "0 0 24 24");
  svg.setAttribute("class", `icon icon-${name}`);
  svg.setAttribute("aria-hidden", "true");
  const path = document.createElementNS(kSvg, "path");
  path.setAttribute("d", kIcons[name]);
  svg.append(path);
  return svg;
}

/** A button with a picture only; `label` is its name and its hint. */
export function iconButton(name, label, onClick, props = {}) {
  return h(
    "button",
    { type: "button", class: "quiet", "aria-label": label, title: label, on: { click: onClick }, ...props },
    icon(name),
  );
}

export function textButton(label, onClick, props = {}) {
  return h("button", { type: "button", text: label, on: { click: onClick }, ...props });
}

/** Has the screen reader say `text`. */
export function announce(text) {
  byId("live").textContent = text;
}

/** True when the text is in the clipboard. Plain HTTP has no clipboard interface; a selection does. */
export async function copyText(text) {
  try {
    await navigator.clipboard.writeText(text);
    return true;
  } catch {
    const focused = document.activeElement;
    const field = h("textarea", { class: "off-screen", "aria-hidden": "true" });
    field.value = text;
    // In a modal dialog or not: what lies outside of the focused part cannot be selected.
    (focused?.closest("dialog") ?? document.body).append(field);
    field.select();
    const copied = document.execCommand("copy");
    field.remove();
    focused?.focus();
    return copied;
  }
}

/** A button that copies what `text()` gives, and says so for a moment. */
export function copyButton(label, text) {
  const button = iconButton("copy", label, async () => {
    const copied = await copyText(text());
    button.replaceChildren(icon(copied ? "check" : "close"));
    announce(copied ? "Copied" : "The browser did not allow copying");
    setTimeout(() => button.replaceChildren(icon("copy")), 1500);
  });
  return button;
}
