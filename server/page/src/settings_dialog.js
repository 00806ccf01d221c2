// SPDX-License-Identifier: Apache-2.0
// The dialog with the settings. Every change holds at once.
import { byId, h } from "./dom.js";
import { readTools } from "./request.js";
import { kSampling, readSetting } from "./sampling.js";
import { applyTheme, keyIsLasting, loadKey, saveKey, saveSettings } from "./settings.js";

/** Shows `problem` under the field, or takes the note away. */
function noteProblem(field, problem) {
  const id = `${field.id}-problem`;
  byId(id)?.remove();
  if (problem) {
    field.setAttribute("aria-invalid", "true");
    field.setAttribute("aria-describedby", id);
    field.after(h("span", { id, class: "problem", text: problem }));
  } else {
    field.removeAttribute("aria-invalid");
    field.removeAttribute("aria-describedby");
  }
}

function problemOf(setting, text) {
  if (text.trim() === "" || readSetting(setting, text) !== null) return null;
  const kind = setting.step === 1 ? "a whole number" : "a number";
  return `Enter ${kind} from ${setting.min} to ${setting.max}. Until then the model's own value is used.`;
}

export class SettingsDialog {
  #dialog = byId("settings");

  /**
   * `settings` is changed in place. `actions`: changed(), setSystem(text), system(),
   * exportAll(), exportChat(), importFile(file), removeAll().
   */
  constructor(settings, actions) {
    this.settings = settings;
    this.actions = actions;
    this.#bindTexts();
    this.#bindSampling();
    this.#bindTools();
    this.#bindKey();
    this.#bindHistory();
  }

  open() {
    byId("system").value = this.actions.system();
    byId("key").value = loadKey();
    byId("key-lasting").checked = keyIsLasting();
    this.#dialog.showModal();
  }

  #save() {
    saveSettings(this.settings);
    this.actions.changed();
  }

  #bind(id, name, event = "input", then = () => {}) {
    const field = byId(id);
    field.value = this.settings[name] ?? "";
    field.addEventListener(event, () => {
      this.settings[name] = field.value;
      this.#save();
      then(field);
    });
  }

  #bindTexts() {
    this.#bind("theme", "theme", "change", (field) => applyTheme(field.value));
    this.#bind("stop-texts", "stop");
    byId("system").addEventListener("input", () => this.actions.setSystem(byId("system").value));
    byId("system-for-all").addEventListener("click", (event) => {
      this.settings.system = byId("system").value;
      this.#save();
      event.target.textContent = "New chats begin with it now";
      setTimeout(() => (event.target.textContent = "Use for new chats"), 2000);
    });
  }

  #bindSampling() {
    for (const setting of kSampling) {
      const id = `set-${setting.name}`;
      const field = h("input", { id, inputmode: "decimal", autocomplete: "off", placeholder: "model’s own" });
      field.value = this.settings[setting.name] ?? "";
      field.addEventListener("input", () => {
        this.settings[setting.name] = field.value;
        noteProblem(field, problemOf(setting, field.value));
        this.#save();
      });
      noteProblem(field, problemOf(setting, field.value));
      byId("sampling").append(h("div", { class: "field" },
        h("label", { for: id }, setting.label, h("span", { class: "hint", text: setting.hint })), field));
    }
    byId("reset-sampling").addEventListener("click", () => {
      for (const setting of kSampling) {
        const field = byId(`set-${setting.name}`);
        field.value = this.settings[setting.name] = "";
        noteProblem(field, null);
      }
      byId("stop-texts").value = this.settings.stop = "";
      this.#save();
    });
  }

  #bindTools() {
    this.#bind("tools", "tools", "input", (field) => {
      try {
        readTools(field.value);
        noteProblem(field, null);
      } catch (error) {
        noteProblem(field, error.message);
      }
    });
  }

  #bindKey() {
    const save = () => {
      saveKey(byId("key").value.trim(), byId("key-lasting").checked);
      this.actions.changed();
    };
    byId("key").addEventListener("change", save);
    byId("key-lasting").addEventListener("change", save);
  }

  #bindHistory() {
    byId("export-all").addEventListener("click", () => this.actions.exportAll());
    byId("export-chat").addEventListener("click", () => this.actions.exportChat());
    byId("import").addEventListener("click", () => byId("import-file").click());
    byId("import-file").addEventListener("change", async (event) => {
      const [file] = event.target.files;
      event.target.value = "";
      if (file) await this.actions.importFile(file);
    });
    byId("remove-all").addEventListener("click", () => byId("confirm").showModal());
    byId("confirm").addEventListener("close", () => {
      if (byId("confirm").returnValue === "yes") this.actions.removeAll();
      byId("confirm").returnValue = "";
    });
  }
}

/** Asks for the API key, with the server's own words; gives true when there is a new one. */
export function askForKey(reason) {
  const dialog = byId("key-dialog");
  const field = byId("asked-key");
  field.value = "";
  byId("key-reason").textContent = reason;
  dialog.returnValue = "";
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => {
      const given = dialog.returnValue === "yes" && field.value.trim() !== "";
      if (given) saveKey(field.value.trim(), byId("asked-key-lasting").checked);
      resolve(given);
    }, { once: true });
  });
}
