// SPDX-License-Identifier: Apache-2.0
// What the user has set. Kept in the browser; the key only as long as the tab, unless asked.

const kSettings = "zem.settings";
const kKey = "zem.key";
const kDefaults = { theme: "auto", thinking: "auto", system: "", stop: "", tools: "", model: "" };

// By name: where storage is switched off, even its name throws.
function readStored(storage, name) {
  try {
    return globalThis[storage].getItem(name);
  } catch {
    return null;
  }
}

function writeStored(storage, name, value) {
  try {
    if (value) globalThis[storage].setItem(name, value);
    else globalThis[storage].removeItem(name);
  } catch {
    // Full, or switched off: the value holds until the page is closed.
  }
}

export function loadSettings() {
  let stored = {};
  try {
    stored = JSON.parse(readStored("localStorage", kSettings)) ?? {};
  } catch {
    // Damaged: begin anew.
  }
  const texts = Object.entries(stored).filter(([, value]) => typeof value === "string");
  return { ...kDefaults, ...Object.fromEntries(texts) };
}

export function saveSettings(settings) {
  writeStored("localStorage", kSettings, JSON.stringify(settings));
}

export function loadKey() {
  return readStored("sessionStorage", kKey) ?? readStored("localStorage", kKey) ?? "";
}

export function saveKey(key, lasting) {
  writeStored("sessionStorage", kKey, key);
  writeStored("localStorage", kKey, lasting ? key : "");
}

export const keyIsLasting = () => readStored("localStorage", kKey) !== null;

/** A name for this tab that outlives a reload. */
export function tabName(fresh) {
  const known = readStored("sessionStorage", "zem.tab");
  if (known) return known;
  writeStored("sessionStorage", "zem.tab", fresh);
  return fresh;
}

export function applyTheme(theme) {
  if (theme === "auto") delete document.documentElement.dataset.theme;
  else document.documentElement.dataset.theme = theme;
}

/** What stands in the field for the next message. */
export const loadDraft = () => readStored("sessionStorage", "zem.draft") ?? "";
export const saveDraft = (text) => writeStored("sessionStorage", "zem.draft", text);
