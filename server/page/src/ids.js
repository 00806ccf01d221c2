// SPDX-License-Identifier: Apache-2.0

/** A random name. (randomUUID is missing on pages that came by plain HTTP.) */
export function newId() {
  const bytes = crypto.getRandomValues(new Uint8Array(12));
  return Array.from(bytes, (byte) => byte.toString(16).padStart(2, "0")).join("");
}
