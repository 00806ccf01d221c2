// SPDX-License-Identifier: Apache-2.0
// Numbers and times as people read them.

const kInteger = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });
const kRate = new Intl.NumberFormat("en", { maximumSignificantDigits: 3 });

export const count = (number) => kInteger.format(number);

export function duration(ms) {
  const seconds = ms / 1000;
  if (seconds < 1) return "less than a second";
  if (seconds < 60) return `${Math.round(seconds)} s`;
  return `${Math.floor(seconds / 60)} min ${Math.round(seconds % 60)} s`;
}

/** "412 tokens", "38.2 tokens/s", ... of the figures that are known. */
export function figureTexts(figures) {
  const texts = [];
  if (figures.tokens !== undefined) texts.push(`${count(figures.tokens)} ${figures.tokens === 1 ? "token" : "tokens"}`);
  if (figures.perSecond > 0) texts.push(`${kRate.format(figures.perSecond)} tokens/s`);
  if (figures.reused > 0) texts.push(`${count(figures.reused)} reused`);
  return texts;
}

/** "Today", "Yesterday", "This week", or a month. */
export function dayGroup(time, now = Date.now()) {
  const midnight = new Date(now).setHours(0, 0, 0, 0);
  const day = 24 * 3600 * 1000;
  if (time >= midnight) return "Today";
  if (time >= midnight - day) return "Yesterday";
  if (time >= midnight - 6 * day) return "This week";
  return new Intl.DateTimeFormat("en", { month: "long", year: "numeric" }).format(time);
}

/** Some words around the place where `query` stands in `text`. */
export function excerpt(text, query) {
  const at = text.toLowerCase().indexOf(query.toLowerCase());
  if (at < 0) return "";
  const begin = Math.max(0, at - 24);
  return (begin > 0 ? "…" : "") + text.slice(begin, at + 80).replace(/\s+/g, " ").trim();
}
