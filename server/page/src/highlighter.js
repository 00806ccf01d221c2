// SPDX-License-Identifier: Apache-2.0
// The second file: highlight.js with the common languages.
import highlighter from "highlight.js/lib/common";

/** The code with elements around its words, or null when the language is not known. */
globalThis.zemHighlighter = (code, language) =>
  highlighter.getLanguage(language) ? highlighter.highlight(code, { language, ignoreIllegals: true }).value : null;
