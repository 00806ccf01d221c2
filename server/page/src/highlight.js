// SPDX-License-Identifier: Apache-2.0
// Loads the highlighter when the first code needs it.

const kLongestCode = 50_000;
let loading = null;

// The build sets the address and the hash of the second file.
const kUrl = HIGHLIGHTER_URL;
const kIntegrity = HIGHLIGHTER_INTEGRITY;

const policy = globalThis.trustedTypes?.createPolicy("page", { createScriptURL: () => kUrl });

function load() {
  return new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.integrity = kIntegrity;
    script.src = policy ? policy.createScriptURL("") : kUrl;
    script.onload = () => resolve(globalThis.zemHighlighter);
    script.onerror = () => {
      loading = null;  // the next code tries again
      reject(new Error("the highlighter could not be loaded"));
    };
    document.head.append(script);
  });
}

/** Colours the element's code. Without a highlighter, or in an unknown language, it stays plain. */
export async function highlight(element, language, sanitised) {
  const code = element.textContent;
  if (code.length > kLongestCode) return;
  try {
    const highlighter = await (loading ??= load());
    const html = highlighter(code, language);
    if (html !== null && element.textContent === code) element.replaceChildren(sanitised(html));
  } catch (error) {
    console.warn(error);
  }
}
