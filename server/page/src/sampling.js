// SPDX-License-Identifier: Apache-2.0
// The settings of sampling: their names, limits, and fields of the request.

export const kSampling = [
  { name: "temperature", label: "Temperature", min: 0, max: 5, step: 0.05, hint: "0 always takes the likeliest token" },
  { name: "topP", field: "top_p", label: "Top p", min: 0, max: 1, step: 0.01, hint: "share of the likeliest tokens" },
  { name: "topK", field: "top_k", label: "Top k", min: 0, max: 1000, step: 1, hint: "so many of the likeliest tokens" },
  { name: "minP", field: "min_p", label: "Min p", min: 0, max: 1, step: 0.01, hint: "least share of the likeliest" },
  { name: "presence", field: "presence_penalty", label: "Presence penalty", min: -2, max: 2, step: 0.1, hint: "against any token again" },
  { name: "frequency", field: "frequency_penalty", label: "Frequency penalty", min: -2, max: 2, step: 0.1, hint: "against frequent tokens" },
  { name: "repeat", field: "repeat_penalty", label: "Repeat penalty", min: 0.1, max: 3, step: 0.05, hint: "1 is none" },
  { name: "maxTokens", field: "max_tokens", label: "Longest reply", min: 1, max: 1000000, step: 1, hint: "in tokens" },
  { name: "thinkingBudget", field: "thinking_budget_tokens", label: "Longest thinking", min: 0, max: 1000000, step: 1, hint: "in tokens" },
  { name: "seed", label: "Seed", min: 0, max: 4294967295, step: 1, hint: "the same seed, the same reply" },
];

/** The number that the text stands for, or null when it is empty, no number, or out of the limits. */
export function readSetting(setting, text) {
  const value = String(text ?? "").trim().replace(",", ".");
  if (value === "") return null;
  const number = Number(value);
  if (!Number.isFinite(number) || number < setting.min || number > setting.max) return null;
  return setting.step === 1 && !Number.isInteger(number) ? null : number;
}

/** The fields of the request. A setting without a value is the model's own. */
export function samplingFields(settings) {
  const fields = {};
  for (const setting of kSampling) {
    const number = readSetting(setting, settings[setting.name]);
    if (number !== null) fields[setting.field ?? setting.name] = number;
  }
  const stops = (settings.stop ?? "").split("\n").filter((line) => line !== "");
  if (stops.length > 0) fields.stop = stops;
  return fields;
}
