// SPDX-License-Identifier: Apache-2.0
// The page in a real browser, from the real server with a small model of random weights. What it
// says has no meaning; that it comes, stops, stays and goes on has.
import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import { existsSync, mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, afterEach, before, beforeEach, test } from "node:test";
import { fileURLToPath } from "node:url";
import { chromium, launch, openPage } from "./browser.mjs";

const kBuild = process.env.ZEM_BUILD ?? fileURLToPath(new URL("../../build/release", import.meta.url));
const kZem = join(kBuild, "bin/zem");
const kKey = "secret";

if (!chromium) {
  test("the page of the server", { skip: "no Chromium here; install the package chromium or set CHROMIUM" });
} else if (!existsSync(kZem)) {
  test("the page of the server", { skip: `there is no ${kZem}: build it, or set ZEM_BUILD` });
} else {
  const folder = mkdtempSync(join(tmpdir(), "zem-page-"));
  const model = join(folder, "demo.zem");
  let browser;
  let page;
  let servers = [];

  before(async () => {
    execFileSync(kZem, ["make-demo", model]);
    browser = await launch();
  });
  after(async () => {
    await browser.close();
    rmSync(folder, { recursive: true });
  });
  beforeEach(async () => (page = await openPage(browser, await serve())));
  afterEach(async () => {
    await page.close();
    for (const server of servers) await end(server);
    servers = [];
  });

  const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

  /** Starts a server and gives its address. */
  async function serve({ port = "0", options = [] } = {}) {
    const server = spawn(kZem, ["serve", "-m", model, "--port", port, "--threads", "1", "--alias", "demo", "--metrics", ...options],
      { stdio: ["ignore", "pipe", "ignore"] });
    servers.push(server);
    let out = "";
    for await (const piece of server.stdout) {
      out += piece;
      const address = /^listening on (\S+)$/m.exec(out)?.[1];
      if (address) return address;
    }
    throw new Error("the server does not start");
  }

  async function end(server) {
    if (server.exitCode !== null || server.signalCode !== null) return;
    const ended = new Promise((resolve) => server.once("exit", resolve));
    server.kill("SIGTERM");
    await sleep(50);
    server.kill("SIGTERM"); // ends replies that run
    await ended;
  }

  async function running() {
    const text = await (await fetch(`${page.address}/metrics`, { headers: { authorization: `Bearer ${kKey}` } })).text();
    return Number(/^zem_requests_processing (\d+)$/m.exec(text)[1]);
  }

  /** Replies without thinking, which are so long. */
  async function settle(tokens) {
    await page.tab.select("#thinking", "off");
    await page.control("Comma");
    for (const [name, value] of [["maxTokens", tokens], ["seed", 7]]) {
      await page.tab.$eval(`#set-${name}`, (field, text) => {
        field.value = text;
        field.dispatchEvent(new Event("input"));
        field.dispatchEvent(new Event("change"));
      }, String(value));
    }
    await page.press("Close", "#settings");
  }

  const replyText = async () => (await page.texts("article.reply .markdown")).at(-1).trim();

  test("the server's policy lets the page work, and it sends nothing to others", async () => {
    await settle(20);
    await page.send("Hello");
    assert.notEqual(await replyText(), "");
    assert.match((await page.texts(".figures"))[0], /^20 tokens · .* tokens\/s/);
    assert.deepEqual(page.problems, []);
    assert.deepEqual(page.strangers, []);
  });

  test("the second turn goes on from the first, and both outlive a reload", async () => {
    await settle(20);
    await page.send("Hello, and a question that is long enough to be kept");
    await page.send("And another");
    assert.match((await page.texts(".figures")).at(-1), /reused/);
    assert.equal((await page.texts("article.reply")).length, 2);
    const texts = await page.texts("article.reply .markdown");
    await page.reload();
    await page.tab.waitForSelector("article.reply");
    assert.deepEqual(await page.texts("article.reply .markdown"), texts);
  });

  test("the same seed gives the same reply again", async () => {
    await settle(20);
    await page.send("Hello");
    const first = await replyText();
    await page.press("Regenerate");
    await page.see("2/2");
    await page.idle();
    assert.equal(await replyText(), first);
  });

  test("a stopped reply frees the server, and keeps what came", async () => {
    await settle(4000);
    await page.send("Hello", { wait: false });
    await page.tab.waitForFunction(() =>
      [...document.querySelectorAll("article.reply .markdown")].at(-1)?.innerText.length > 20);
    assert.equal(await running(), 1);
    await page.press("Stop the reply");
    await page.see("You stopped this reply.");
    for (let tries = 0; (await running()) > 0; ++tries) {
      assert.ok(tries < 100, "the server goes on");
      await sleep(20);
    }
    assert.ok((await replyText()).length > 10);
  });

  test("a key is asked for, and the message goes again", async () => {
    page.address = await serve({ options: ["--api-key", kKey] });
    await page.load();
    await settle(10);
    await page.send("Hello", { wait: false });
    await page.tab.waitForSelector("#key-dialog[open]");
    await page.tab.type("#asked-key", kKey);
    await page.tab.keyboard.press("Enter");
    await page.idle();
    assert.notEqual(await replyText(), "");
  });

  test("a server that comes back is found", async () => {
    await settle(10);
    await page.send("Hello");
    const port = new URL(page.address).port;
    await end(servers[0]);
    await page.send("Anybody there?", { wait: false });
    await page.see("No answer from the server.");
    await serve({ port });
    await page.see("The server is back.");
    await page.press("Try again");
    await page.idle();
    assert.notEqual(await replyText(), "");
  });
}
