// SPDX-License-Identifier: Apache-2.0
// Makes the files of dist/ from src/:
//   npm ci && node build.mjs
// dist/ is committed, so that building the server needs no Node.
import { createHash } from "node:crypto";
import { mkdirSync, readdirSync, readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";
import { build, transform } from "esbuild";

const root = fileURLToPath(new URL(".", import.meta.url));
const read = (path) => readFileSync(join(root, path), "utf8");
const hash = (text, kind) => `${kind}-${createHash(kind).update(text).digest("base64")}`;
const target = ["chrome123", "firefox128", "safari17.5"];

async function bundle(entry, format, define = {}) {
  const result = await build({
    absWorkingDir: root,
    entryPoints: [entry],
    bundle: true,
    minify: true,
    write: false,
    charset: "utf8",
    legalComments: "none", // the licences are in licenses.txt
    format,
    target,
    define,
  });
  return result.outputFiles[0].text.trim();
}

async function style() {
  const sheets = ["base", "layout", "chat", "dialogs"].map((name) => read(`src/style/${name}.css`));
  return (await transform(sheets.join("\n"), { loader: "css", minify: true, target })).code.trim();
}

// In a script element, "<!--" and "<script" change how the rest is read. In JavaScript that
// a minifier has written, they occur within texts and patterns only.
const inElement = (script) => script.replace(/<(?=!--|\/?script)/gi, "\\x3C");

function page(css, script) {
  const html = read("src/index.html").replace(/>\s*\n\s*</g, ">\n<").replace(/^\s+/gm, "");
  return html.replace("/* STYLE */", () => css).replace("/* SCRIPT */", () => script);
}

function policy(css, script) {
  return [
    "default-src 'none'",
    `script-src '${hash(script, "sha256")}' 'strict-dynamic'`,
    `style-src '${hash(css, "sha256")}'`,
    "img-src data:",
    "connect-src 'self'",
    "base-uri 'none'",
    "form-action 'none'",
    "frame-ancestors 'none'",
    "require-trusted-types-for 'script'",
    "trusted-types dompurify page",
  ].join("; ");
}

function licences() {
  const works = [
    ["marked", "LICENSE", "marked, MIT"],
    ["dompurify", "LICENSE", "DOMPurify, Apache-2.0 (or MPL-2.0; used under Apache-2.0)"],
    ["highlight.js", "LICENSE", "highlight.js, BSD-3-Clause"],
  ];
  const parts = works.map(([name, file, title]) => {
    const { version } = JSON.parse(read(`node_modules/${name}/package.json`));
    return `${title}, version ${version}\n\n${read(`node_modules/${name}/${file}`).trim()}\n`;
  });
  return `The page is under the Apache License 2.0. It contains the following works.\n\n${parts.join(`\n${"-".repeat(72)}\n\n`)}`;
}

/** The hash of all that dist/ is made from; a test compares it with the sources. */
function fingerprint() {
  const names = readdirSync(join(root, "src"), { recursive: true, withFileTypes: true })
    .filter((entry) => entry.isFile())
    .map((entry) => join(entry.parentPath ?? entry.path, entry.name).slice(root.length));
  const sources = [...names, "build.mjs", "package-lock.json"].sort();
  const sum = createHash("sha256");
  for (const name of sources) sum.update(`${name}\n`).update(readFileSync(join(root, name)));
  return sum.digest("hex");
}

const highlighter = await bundle("src/highlighter.js", "iife");
const css = await style();
const script = inElement(await bundle("src/main.js", "esm", {
  HIGHLIGHTER_URL: JSON.stringify("highlight.js"),
  HIGHLIGHTER_INTEGRITY: JSON.stringify(hash(`${highlighter}\n`, "sha384")),
}));

const files = {
  "index.html": page(css, script),
  "highlight.js": `${highlighter}\n`,
  "licenses.txt": licences(),
  "policy.txt": `${policy(css, script)}\n`,
  "sources.sha256": `${fingerprint()}\n`,
};
mkdirSync(join(root, "dist"), { recursive: true });
for (const [name, text] of Object.entries(files)) {
  writeFileSync(join(root, "dist", name), text);
  console.log(`${name}: ${Buffer.byteLength(text)} bytes, ${gzipSync(text, { level: 9 }).length} compressed`);
}
