// SPDX-License-Identifier: Apache-2.0
// Lines above the chat for what concerns the whole page.
import { byId, h, iconButton, textButton } from "./dom.js";

/** Shows one notice of a name, in place of an earlier one. `button`: { label, act }. */
export function showNotice(name, text, { button = null, lasts = Infinity, kind = "" } = {}) {
  hideNotice(name);
  const notice = h("div", { class: `notice ${kind}`, "data-name": name }, h("span", { dir: "auto", text }));
  if (button) {
    notice.append(textButton(button.label, () => {
      notice.remove();
      button.act();
    }));
  }
  notice.append(iconButton("close", "Close this notice", () => notice.remove()));
  byId("notices").append(notice);
  if (lasts !== Infinity) setTimeout(() => notice.remove(), lasts);
}

export function hideNotice(name) {
  byId("notices").querySelector(`[data-name="${name}"]`)?.remove();
}
