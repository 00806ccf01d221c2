// SPDX-License-Identifier: Apache-2.0
// The page in a real browser, against a small server that speaks the same stream.
import assert from "node:assert/strict";
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, afterEach, before, beforeEach, describe, test } from "node:test";
import { chromium, launch, openPage } from "./browser.mjs";
import { MockServer } from "./mock_server.mjs";
import { kAttack } from "./replies.mjs";

if (!chromium) {
  test("the page in a browser", { skip: "no Chromium here; install the package chromium or set CHROMIUM" });
} else {
  let browser;
  let server;
  let address;
  let page;

  before(async () => (browser = await launch()));
  after(() => browser.close());
  beforeEach(async () => {
    server = new MockServer();
    address = await server.listen();
    page = await openPage(browser, address);
  });
  afterEach(async () => {
    await server.close();
    await page.close();
  });

  const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
  const waitFor = async (holds, what) => {
    for (let tries = 0; tries < 100; ++tries) {
      if (await holds()) return;
      await sleep(50);
    }
    assert.fail(`waited in vain: ${what}`);
  };
  const replyText = async () => (await page.texts("article.reply .markdown")).at(-1);
  const importText = async (text) => {
    const folder = mkdtempSync(join(tmpdir(), "zem-page-"));
    const file = join(folder, "chats.json");
    await page.tab.evaluate(() => document.querySelector(".notice[data-name=import]")?.remove());
    writeFileSync(file, text);
    await (await page.tab.$("#import-file")).uploadFile(file);
    await page.tab.waitForSelector(".notice[data-name=import]");
    rmSync(folder, { recursive: true });
  };

  describe("messages", () => {
    test("a reply streams, and its figures are shown", async () => {
      await page.send("Hello");
      assert.equal(await replyText(), "A short reply.");
      assert.deepEqual(await page.texts(".figures"), ["212 tokens · 38.2 tokens/s · 980 reused"]);
      assert.deepEqual(await page.texts("#context"), ["1,236 / 32,768"]);
      const [body] = server.requests;
      assert.deepEqual(body.messages, [{ role: "user", content: "Hello" }]);
      assert.equal(body.model, "demo-4b");
      assert.equal(body.stream, true);
      assert.deepEqual(page.problems, []);
      await page.shot("send");
    });

    test("nothing is asked of another server", async () => {
      await page.send("attack");
      await page.send("markdown");
      await sleep(300);
      assert.deepEqual(page.strangers, []);
    });

    test("Markdown becomes elements, and code gets colours from the second file", async () => {
      assert.ok(!server.paths.includes("/highlight.js"), "not loaded before code comes");
      await page.send("markdown");
      await page.tab.waitForSelector("code .hljs-keyword");
      assert.deepEqual(await page.texts(".code-head span"), ["python"]);
      assert.equal(await page.tab.$eval("td:nth-child(2)", (cell) => getComputedStyle(cell).textAlign), "right");
      assert.equal(await page.tab.$eval(".markdown a", (link) => `${link.target} ${link.rel}`), "_blank noopener noreferrer");
      assert.deepEqual(page.problems, []);
      await page.tab.$eval("#scroll", (scroll) => (scroll.scrollTop = 0));
      await page.shot("markdown");
    });

    test("a stopped reply keeps what came, and goes on", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word");
      await page.press("Stop the reply");
      await page.see("You stopped this reply.");
      await waitFor(() => server.aborted === 1, "the server to see that the page left");
      const kept = (await replyText()).trim();
      await page.shot("stopped");
      await page.press("Continue");
      await page.see("and goes on to the end.");
      assert.ok((await replyText()).startsWith(kept));
      assert.equal(server.requests.at(-1).messages.at(-2).content.trim(), kept);
      assert.equal((await page.texts("article.reply")).length, 1);
    });

    test("Escape stops", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word");
      await page.tab.keyboard.press("Escape");
      await page.see("You stopped this reply.");
    });

    test("a second message cannot be sent while a reply comes", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word");
      await page.tab.type("#prompt", "more");
      await page.tab.keyboard.press("Enter");
      await sleep(100);
      assert.equal(server.requests.length, 1);
      assert.equal(await page.tab.$eval("#prompt", (field) => field.value), "more");
    });

    test("regenerating keeps both replies", async () => {
      await page.send("again");
      const first = await replyText();
      await page.press("Regenerate");
      await waitFor(async () => (await replyText()) !== first, "another reply");
      await page.idle();
      const second = await replyText();
      await page.see("2/2");
      await page.press("Previous version");
      assert.equal(await replyText(), first);
      await page.reload();
      assert.equal(await replyText(), first, "the choice outlives a reload");
      await page.press("Next version");
      assert.equal(await replyText(), second);
      assert.deepEqual(server.requests[0].messages, server.requests[1].messages);
    });

    test("an edited turn begins another branch", async () => {
      await page.send("again one");
      await page.send("again two");
      await page.press("Edit", "article.turn:first-child");
      await page.tab.keyboard.type(" and more");
      await page.shot("edit");
      await page.tab.keyboard.press("Enter");
      await waitFor(() => server.requests.length === 3, "a request");
      await page.idle();
      assert.deepEqual(server.requests[2].messages, [{ role: "user", content: "again one and more" }]);
      assert.deepEqual(await page.texts(".bubble"), ["again one and more"]);
      await page.press("Previous version");
      assert.deepEqual(await page.texts(".bubble"), ["again one", "again two"]);
    });

    test("Escape leaves the editor and stops nothing", async () => {
      await page.send("again");
      await page.tab.focus("#prompt");
      await page.tab.keyboard.press("ArrowUp");
      await page.tab.keyboard.type(" changed");
      await page.tab.keyboard.press("Escape");
      assert.deepEqual(await page.texts(".bubble"), ["again"]);
    });

    test("Enter within a composed character does not send", async () => {
      await page.tab.type("#prompt", "に");
      await page.tab.$eval("#prompt", (field) =>
        field.dispatchEvent(new KeyboardEvent("keydown", { key: "Enter", isComposing: true, cancelable: true, bubbles: true })));
      await page.tab.type("#prompt", "ほ");
      assert.equal(server.requests.length, 0);
    });

    test("copying gives the reply's own Markdown", async () => {
      await page.tab.browserContext().overridePermissions(address, ["clipboard-read", "clipboard-sanitized-write"]);
      await page.send("markdown");
      await page.press("Copy the reply");
      await waitFor(async () => (await page.tab.evaluate(() => navigator.clipboard.readText())).startsWith("Here is"), "a copy");
      assert.match(await page.tab.evaluate(() => navigator.clipboard.readText()), /```python\ndef total/);
    });

    test("text that nests beyond reason is shown as it is", async () => {
      await page.send("deep");
      assert.ok((await replyText()).endsWith("deep"));
      await page.send("Hello");
      assert.equal(await replyText(), "A short reply.");
    });
  });

  describe("thinking and tools", () => {
    test("thinking is folded, with its first line beside it", async () => {
      await page.send("think");
      assert.match((await page.texts(".thinking summary"))[0], /^Thought for .*The user wants a list\.$/s);
      assert.equal(await page.tab.$eval(".thinking", (details) => details.open), false);
      await page.tab.click(".thinking summary");
      await page.see("I should keep it short.");
      assert.equal(await replyText(), "Apples, pears, plums.");
      await page.shot("thinking");
    });

    test("while it thinks, the latest line is shown", async () => {
      await page.send("ponder", { wait: false });
      await page.see("Then I weigh what is known of it.");
      assert.match((await page.texts(".thinking summary"))[0], /^Thinking/);
      await page.shot("ponder");
      await page.idle();
    });

    test("the switch asks for thinking, or against it", async () => {
      await page.send("Hello");
      await page.tab.select("#thinking", "on");
      await page.send("Hello");
      await page.tab.select("#thinking", "off");
      await page.load();
      await page.send("Hello");
      assert.deepEqual(server.requests.map((body) => body.chat_template_kwargs?.enable_thinking), [undefined, true, false]);
    });

    test("a tool call is shown, and its result goes back", async () => {
      await page.control("Comma");
      await page.tab.$eval("#tools", (field) => {
        field.closest("details").open = true;
        field.value = '[{"name":"get_weather","parameters":{"type":"object"}}]';
        field.dispatchEvent(new Event("input"));
      });
      await page.press("Close", "#settings");
      await page.send("weather");
      assert.deepEqual(server.requests[0].tools, [
        { type: "function", function: { name: "get_weather", parameters: { type: "object" } } }]);
      assert.match((await page.texts(".call"))[0], /get_weather[^]*"city": "<img src=x onerror=window\.hacked=20>"/);
      await page.shot("tool");
      await page.tab.type(".call textarea", "12 degrees");
      await page.press("Send the result");
      await page.see("The tool said: 12 degrees");
      const { messages } = server.requests[1];
      assert.equal(messages[1].tool_calls[0].id, "call_1");
      assert.deepEqual(messages[2], { role: "tool", tool_call_id: "call_1", name: "get_weather", content: "12 degrees" });
      assert.equal(await page.hacked(), null);
    });

    test("the reading of a long prompt is shown", async () => {
      await page.send("progress", { wait: false });
      await page.see("Reading the prompt: 4,096 of 8,192 tokens");
      await page.shot("progress");
      await page.idle();
    });
  });

  describe("what goes wrong", () => {
    test("a refused key is asked for, and the message goes again", async () => {
      server.key = "secret";
      await page.send("Hello", { wait: false });
      await page.tab.waitForSelector("#key-dialog[open]");
      await page.shot("key");
      await page.tab.type("#asked-key", "wrong");
      await page.tab.keyboard.press("Enter");
      await waitFor(() => server.requests.length === 2, "a second try");
      await page.tab.waitForSelector("#key-dialog[open]");
      await page.tab.type("#asked-key", "secret");
      await page.tab.keyboard.press("Enter");
      await page.see("A short reply.");
      assert.equal(server.requests.length, 3);
      assert.deepEqual(await page.texts(".bubble"), ["Hello"]);
      assert.equal(await page.tab.evaluate(() => localStorage.getItem("zem.key")), null, "not kept unless asked");
    });

    test("without a key, the failure says how to go on", async () => {
      server.key = "secret";
      await page.send("Hello", { wait: false });
      await page.tab.waitForSelector("#key-dialog[open]");
      await page.press("Cancel", "#key-dialog");
      await page.see("The API key is missing or wrong.");
      await page.press("Enter the key");
      await page.tab.waitForSelector("#key-dialog[open]");
    });

    test("an error of the server is shown with a way on", async () => {
      await page.send("broken");
      await page.see("Something in the server failed.");
      await page.shot("broken");
      await page.press("Try again");
      await waitFor(() => server.requests.length === 2, "a second try");
      assert.equal((await page.texts("article.reply")).length, 1);
    });

    test("a full context offers a new chat", async () => {
      await page.send("context");
      await page.see("The prompt has 40000 tokens; the context has 32768.");
      await page.shot("context");
      await page.press("New chat", ".failure");
      assert.deepEqual(await page.texts("article"), []);
    });

    test("a full queue is tried again when the server says", async () => {
      server.busyTimes = 2;
      await page.send("Hello", { wait: false });
      await page.see("The queue is full. Trying again in 1 s.");
      await page.idle();
      assert.equal(await replyText(), "A short reply.");
      assert.equal(server.requests.length, 3);
    });

    test("waiting for a full queue can be stopped", async () => {
      server.busyTimes = 100;
      await page.send("Hello", { wait: false });
      await page.see("The queue is full.");
      await page.press("Stop the reply");
      await page.see("You stopped this reply.");
    });

    test("a line that breaks keeps what came", async () => {
      await page.send("cut");
      await page.see("This reply was cut off. What came is kept.");
      assert.equal(await replyText(), "This much came before the line broke");
      await page.press("Continue");
      await page.see("brokeit, and goes on to the end.");
    });

    test("an error within the stream is told", async () => {
      await page.send("midway");
      await page.see("The device was lost. What came is kept.");
    });

    test("a stream that is no JSON is told", async () => {
      await page.send("garbage");
      await page.see("The server sent something that is no part of a reply.");
    });

    test("a reply at its limit can go on", async () => {
      await page.send("long");
      await page.see("The reply reached its limit of tokens.");
      await page.press("Continue");
      await page.see("and goes on to the end.");
    });

    test("a server that is gone is told, and found again", async () => {
      const { port } = server;
      await server.close();
      await page.send("Hello");
      await page.see("The server does not answer.");
      await page.see("Looking for it every few seconds.");
      await page.shot("gone");
      server = new MockServer();
      await server.listen(port);
      await page.see("The server is back.");
      await page.press("Try again");
      await page.see("A short reply.");
    });
  });

  describe("the history", () => {
    test("a reload in the middle keeps the reply and offers to go on", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word word word");
      await page.reload();
      await page.see("This reply was cut off. What came is kept.");
      assert.ok((await replyText()).startsWith("word word word word"));
      await page.shot("reloaded");
      await page.press("Continue");
      await page.see("and goes on to the end.");
      await page.idle();
      await page.reload();
      await page.see("and goes on to the end.");
    });

    test("a crash loses no more than the last second", async () => {
      await page.send("slow", { wait: false });
      await sleep(1500);
      const { tab } = page;
      const other = await tab.browserContext().newPage();
      const address2 = tab.url();
      await tab.goto("chrome://crash").catch(() => {});
      await other.goto(address2);
      await other.waitForFunction(() => document.body.innerText.includes("word word"));
    });

    test("chats can be found, renamed, deleted and brought back", async () => {
      await page.send("again about apples");
      await page.press("New chat", "#sidebar");
      await page.send("again about pears");
      assert.deepEqual(await page.texts(".chat-title"), ["again about pears", "again about apples"]);
      await page.tab.type("#search", "APPLES");
      await waitFor(async () => (await page.texts(".chat-title")).length === 1, "the search");
      await page.shot("search");
      await page.tab.click("#chats .open");
      await waitFor(async () => (await page.texts(".bubble"))[0] === "again about apples", "the chat");
      await page.tab.$eval("#search", (field) => ((field.value = ""), field.dispatchEvent(new Event("input"))));
      await waitFor(async () => (await page.texts(".chat-title")).length === 2, "all chats");

      await page.press("Rename “again about apples”");
      await page.tab.keyboard.type("Fruit");
      await page.tab.keyboard.press("Enter");
      await page.see("Fruit");
      await page.press("Delete “Fruit”");
      await waitFor(async () => (await page.texts(".chat-title")).length === 1, "the deletion");
      await page.shot("deleted");
      await page.press("Undo");
      await waitFor(async () => (await page.texts(".bubble"))[0] === "again about apples", "the chat");
      await page.load();
      assert.equal((await page.texts(".chat-title")).length, 2);
    });

    test("words of a reply are found", async () => {
      await page.send("Hello");
      await page.tab.type("#search", "short rep");
      await waitFor(async () => (await page.texts(".chat-words"))[0] === "A short reply.", "the words");
    });

    test("an export comes back as it was", async () => {
      const folder = mkdtempSync(join(tmpdir(), "zem-page-"));
      const session = await page.tab.createCDPSession();
      await session.send("Page.setDownloadBehavior", { behavior: "allow", downloadPath: folder });
      await page.send("think");
      await page.press("Regenerate");
      await page.see("2/2");
      await page.idle();
      await page.control("Comma");
      await page.tab.click("#export-all");
      await waitFor(() => readdirSync(folder).includes("chats.json"), "the file");
      await sleep(100);
      const text = readFileSync(join(folder, "chats.json"), "utf8");
      rmSync(folder, { recursive: true });
      await page.tab.click("#remove-all");
      await page.shot("confirm");
      await page.press("Delete all chats", "#confirm");
      await waitFor(async () => (await page.texts(".chat-title")).length === 0, "an empty history");
      await importText(text);
      await page.see("One chat was added.");
      await page.tab.click("#chats .open");
      await page.see("Apples, pears, plums.");
      await page.see("2/2");
    });

    test("a file that is none of ours is refused with a reason", async () => {
      for (const text of ["", "{}", "[1]", '{"format":"zem-chats","version":9,"chats":[]}', "null"]) {
        await importText(text);
        const [notice] = await page.texts(".notice[data-name=import]");
        assert.match(notice, /This file (is not JSON|holds no chats|has version 9)/, text);
      }
      assert.deepEqual(await page.texts(".chat-title"), []);
    });

    test("another tab sees a new chat", async () => {
      const other = await page.tab.browserContext().newPage();
      await other.goto(address);
      await page.tab.bringToFront();
      await page.send("Hello");
      await other.waitForFunction(() => document.querySelector(".chat-title")?.innerText === "Hello");
    });

    test("a reply that another tab receives can be read and stopped from here", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word");
      const other = await page.tab.browserContext().newPage();
      await other.goto(page.tab.url());
      await other.waitForFunction(() => document.body.innerText.includes("word word word"));
      await other.bringToFront();
      await other.click("#stop");
      await other.waitForFunction(() => document.body.innerText.includes("You stopped this reply."));
    });

    test("back leads to the chat before", async () => {
      await page.send("again one");
      await page.press("New chat", "#sidebar");
      await page.send("again two");
      await page.tab.click("#chats li:last-child .open");
      await page.tab.goBack();
      await waitFor(async () => (await page.texts(".bubble"))[0] === "again two", "the chat before");
    });

    test("a deleted chat stays deleted though its reply was still coming", async () => {
      await page.send("slow", { wait: false });
      await page.see("word word");
      await page.press("Delete “slow”");
      await sleep(700);
      await page.load();
      assert.deepEqual(await page.texts(".chat-title"), []);
      await waitFor(() => server.aborted === 1, "the stop");
    });
  });

  describe("strangers' text", () => {
    const harmless = async () => {
      await sleep(200);
      assert.equal(await page.hacked(), null);
      const bad = await page.tab.$$eval("#messages *", (elements) => elements.filter((element) =>
        /^(?:script|style|img|iframe|object|embed|form|link|meta|base|math|video|audio)$/.test(element.localName) ||
        [...element.attributes].some(({ name, value }) => name.startsWith("on") || name === "style" && element.localName !== "textarea" ||
          /^\s*(?:javascript|data|vbscript):/i.test(value))).map((element) => element.outerHTML.slice(0, 200)));
      assert.deepEqual(bad, []);
      assert.deepEqual(page.strangers, []);
    };

    test("in a reply and in its thinking does nothing", async () => {
      await page.send("attack");
      await page.tab.click(".thinking summary");
      await page.see("The end of the attack.");
      await page.tab.waitForSelector("code .hljs-tag");
      await harmless();
      assert.ok((await replyText()).includes('<img src=x onerror="window.hacked=1">'), "tags are shown as text");
      const links = await page.tab.$$eval(".markdown a[href]", (all) => all.map((link) => link.getAttribute("href")));
      assert.ok(links.every((link) => link.startsWith("https://example.invalid/")), links.join());
      await page.shot("attack");
    });

    test("in a message of the user does nothing", async () => {
      await page.send(kAttack);
      await harmless();
      assert.equal((await page.texts(".bubble"))[0].trim(), kAttack.trim());
      assert.ok((await page.texts(".chat-title"))[0].startsWith("<img"));
    });

    test("in an imported history does nothing", async () => {
      const evil = { toString: kAttack };
      await importText(JSON.stringify({ format: "zem-chats", version: 1, chats: [
        { id: "x\"><img src=x onerror=window.hacked=30>", title: kAttack, leaf: "b", system: evil, messages: [
          { id: "a", role: "user", text: kAttack, parent: "b" },
          { id: "b", role: "assistant", text: kAttack, reasoning: kAttack, parent: "a", model: kAttack, state: kAttack,
            finish: kAttack, figures: { tokens: kAttack, context: 5, perSecond: {} }, thinkingMs: kAttack,
            calls: [{ id: kAttack, name: kAttack, arguments: kAttack }, null, 7], error: { kind: "__proto__", message: kAttack } },
          { id: "b", role: "assistant", text: [1], parent: "b" },
          { id: "c", role: "tool", name: kAttack, text: kAttack, parent: "b", call: {} },
          { role: "system", text: "no such role" }, null, "text", 5,
        ] },
        { title: "no messages" }, null, 5, { messages: "text" }, { messages: [{}] },
      ] }));
      await page.see("One chat was added.");
      await page.tab.click("#chats .open");
      // The circle of parents is open before its leaf, which has the attack in every member.
      await page.tab.waitForSelector("article.reply");
      await harmless();
    });

    test("as the server's names and errors does nothing", async () => {
      server.models = [{ id: kAttack }, { id: "<b>two</b>" }, {}, null, { id: 5 }];
      await page.load();
      await harmless();
      assert.equal((await page.tab.$$("#model option")).length, 2);
    });

    test("the policy refuses script that gets in all the same", async () => {
      const ran = await page.tab.evaluate(() => {
        const script = document.createElement("div");
        try {
          script.innerHTML = "<img src=x onerror=window.hacked=40>";
          document.body.append(script);
        } catch {
          return "refused as markup";
        }
        return "taken";
      });
      assert.equal(ran, "refused as markup");
      await page.tab.evaluate(() => {
        const image = document.createElement("img");
        image.setAttribute("src", "x");
        try {
          image.setAttribute("onerror", "window.hacked=41");
        } catch {
          // Refused already here.
        }
        document.body.append(image);
      });
      await sleep(200);
      assert.equal(await page.hacked(), null);
      assert.ok(page.problems.some((problem) => /Content Security Policy|TrustedHTML/i.test(problem)));
    });
  });

  describe("settings", () => {
    const set = (name, value) => page.tab.$eval(`#set-${name}`, (field, text) => {
      field.value = text;
      field.dispatchEvent(new Event("input"));
    }, value);

    test("hold for the next request, and outlive a reload", async () => {
      await page.control("Comma");
      await page.shot("settings");
      await page.tab.type("#system", "Be brief.");
      await set("temperature", "0.3");
      await set("topK", "7");
      await set("seed", "nonsense");
      await page.tab.type("#stop-texts", "END");
      await page.see("Enter a whole number from 0 to 4294967295.");
      await page.press("Close", "#settings");
      await page.send("Hello");
      const { messages, temperature, top_k: topK, seed, stop } = server.requests[0];
      assert.deepEqual(messages[0], { role: "system", content: "Be brief." });
      assert.deepEqual({ temperature, topK, seed, stop }, { temperature: 0.3, topK: 7, seed: undefined, stop: ["END"] });
      await page.reload();
      await page.send("Hello");
      assert.equal(server.requests[1].temperature, 0.3);
      assert.equal(server.requests[1].messages[0].content, "Be brief.");
    });

    test("tools that are no JSON are told before and at sending", async () => {
      await page.control("Comma");
      await page.tab.$eval("#tools", (field) => {
        field.closest("details").open = true;
        field.value = "[{";
        field.dispatchEvent(new Event("input"));
      });
      await page.see("The tools are not JSON");
      await page.press("Close", "#settings");
      await page.send("Hello");
      await page.see("The tools are not JSON");
      assert.equal(server.requests.length, 0);
    });

    test("damaged settings are no obstacle", async () => {
      await page.tab.evaluate(() => localStorage.setItem("zem.settings", '{"theme":5,"thinking'));
      await page.load();
      await page.send("Hello");
      assert.equal(await replyText(), "A short reply.");
    });

    test("a damaged kept reply is no obstacle", async () => {
      await page.send("Hello");
      await page.tab.evaluate(() => localStorage.setItem("zem.cut.x", "{"));
      await page.reload();
      assert.deepEqual(await page.texts(".chat-title"), ["Hello"]);
    });

    test("without a database the page works until it is closed", async () => {
      await page.tab.evaluateOnNewDocument(() => Object.defineProperty(window, "indexedDB", { get: () => undefined }));
      await page.load();
      await page.see("This browser keeps no data here");
      await page.send("Hello");
      await page.send("Hello");
      assert.equal(await replyText(), "A short reply.");
    });

    test("with several models one is chosen", async () => {
      server.models = [{ id: "one" }, { id: "two" }];
      await page.load();
      await page.tab.select("#model", "two");
      await page.send("Hello");
      assert.equal(server.requests[0].model, "two");
    });
  });

  describe("the look", () => {
    const contrast = () => page.tab.evaluate(() => {
      const channels = (text) => text.match(/[\d.]+/g).map(Number);
      const luminance = (rgb) => {
        const [r, g, b] = rgb.slice(0, 3).map((value) => {
          const share = value / 255;
          return share <= 0.04045 ? share / 12.92 : ((share + 0.055) / 1.055) ** 2.4;
        });
        return 0.2126 * r + 0.7152 * g + 0.0722 * b;
      };
      const ground = (element) => {
        for (let at = element; at; at = at.parentElement) {
          const colour = getComputedStyle(at).backgroundColor;
          if (!/^rgba\(.*, 0\)$|transparent/.test(colour)) return channels(colour);
        }
        return [255, 255, 255];
      };
      const low = [];
      for (const element of document.querySelectorAll("body *")) {
        const hasText = [...element.childNodes].some((node) => node.nodeType === 3 && node.data.trim());
        if (!hasText || !element.checkVisibility({ opacityProperty: true }) || element.matches("script, style, option, .off-screen")) continue;
        const [a, b] = [luminance(channels(getComputedStyle(element).color)), luminance(ground(element))];
        const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
        if (ratio < 4.5) low.push(`${element.className || element.localName} ${ratio.toFixed(2)} ${element.textContent.slice(0, 20)}`);
      }
      return low;
    });

    for (const scheme of ["light", "dark"]) {
      test(`${scheme}: every text has a contrast of 4.5`, async () => {
        await page.tab.emulateMediaFeatures([{ name: "prefers-color-scheme", value: scheme }]);
        await page.send("markdown");
        await page.send("think");
        await page.send("broken");
        await page.tab.waitForSelector("code .hljs-keyword");
        assert.deepEqual(await contrast(), []);
        await page.tab.$eval("#scroll", (scroll) => (scroll.scrollTop = 120));
        await page.shot(scheme);
        await page.control("Comma");
        await sleep(100);
        await page.shot(`${scheme}-settings`);
        assert.deepEqual(await contrast(), []);
      });
    }

    test("the chosen colours win over those of the system", async () => {
      await page.tab.emulateMediaFeatures([{ name: "prefers-color-scheme", value: "light" }]);
      await page.tab.select("#theme", "dark");
      await page.load();
      assert.equal(await page.tab.evaluate(() => getComputedStyle(document.body).colorScheme), "dark");
    });

    test("a narrow screen shows everything without scrolling sideways", async () => {
      await page.tab.setViewport({ width: 360, height: 700, hasTouch: true, isMobile: true });
      await page.load();
      await page.shot("narrow-welcome");
      await page.send("markdown");
      await page.shot("narrow");
      const wide = await page.tab.evaluate(() => document.documentElement.scrollWidth - innerWidth);
      assert.equal(wide, 0);
      await page.tab.click("#menu");
      await page.see("New chat");
      await page.shot("narrow-chats");
      assert.equal(await page.tab.$eval("#main", (main) => main.inert), true);
      await page.tab.click("#chats .open");
      assert.equal(await page.tab.$eval("#main", (main) => main.inert), false);
      await page.tab.click("#tune");
      await page.shot("narrow-settings");
      const spill = await page.tab.$$eval("#settings *", (all) =>
        all.filter((element) => element.getBoundingClientRect().right > innerWidth + 1).map((element) => element.outerHTML.slice(0, 80)));
      assert.deepEqual(spill, []);
    });

    test("text from right to left stands on the right, code does not", async () => {
      await page.send("rtl مرحبا");
      const directions = await page.tab.$$eval(".block", (blocks) => blocks.map((block) => getComputedStyle(block).direction));
      assert.deepEqual(directions, ["rtl", "rtl", "rtl", "ltr", "rtl", "ltr"]);
      await page.send("مرحبا بالعالم");
      await page.shot("rtl");
      const edges = await page.tab.$eval(".markdown ul", (list) => {
        const item = list.querySelector("li");
        const range = document.createRange();
        range.selectNodeContents(item);
        const [text, frame] = [range.getBoundingClientRect(), list.getBoundingClientRect()];
        return { left: text.left - frame.left, right: frame.right - text.right };
      });
      assert.ok(edges.right < edges.left, JSON.stringify(edges));
    });

    test("the page stays where the reader has scrolled to", async () => {
      await page.send("markdown");
      await page.send("slow", { wait: false });
      await page.see("word word");
      await page.tab.$eval("#scroll", (scroll) => (scroll.scrollTop -= 300));
      const top = await page.tab.$eval("#scroll", (scroll) => scroll.scrollTop);
      await sleep(600);
      assert.equal(await page.tab.$eval("#scroll", (scroll) => scroll.scrollTop), top);
      await page.press("To the newest text");
      assert.ok((await page.tab.$eval("#scroll", (scroll) => scroll.scrollHeight - scroll.scrollTop - scroll.clientHeight)) < 5);
    });
  });

  describe("keys and screen readers", () => {
    test("the shortcuts do what their list says", async () => {
      await page.control("Slash");
      await page.tab.waitForSelector("#shortcuts[open]");
      await page.shot("shortcuts");
      await page.tab.keyboard.press("Escape");
      await page.send("again");
      await page.control("Shift", "Enter");
      await page.see("2/2");
      await page.idle();
      await page.control("Shift", "KeyO");
      assert.deepEqual(await page.texts("article"), []);
      await page.control("KeyK");
      assert.equal(await page.tab.evaluate(() => document.activeElement.id), "search");
      await page.control("KeyB");
      assert.equal(await page.tab.$eval("#sidebar", (sidebar) => sidebar.checkVisibility()), false);
      await page.control("Comma");
      await page.tab.waitForSelector("#settings[open]");
    });

    test("every control has a name, and the reply is announced", async () => {
      await page.send("weather");
      const nameless = await page.tab.evaluate(() =>
        [...document.querySelectorAll("button, input, select, textarea, [tabindex='0']:not(pre, .table)")].filter((element) =>
          !element.getAttribute("aria-label") && !element.textContent.trim() && !element.labels?.length).map((element) => element.outerHTML));
      assert.deepEqual(nameless, []);
      assert.equal(await page.tab.$eval("#live", (live) => live.textContent), "The reply is complete");
      const headings = await page.texts("article h2");
      assert.equal(headings.length, 2);
    });

    test("a message can be sent with the keyboard alone", async () => {
      assert.equal(await page.tab.evaluate(() => document.activeElement.id), "prompt");
      await page.tab.keyboard.type("Hello");
      await page.tab.keyboard.down("Shift");
      await page.tab.keyboard.press("Enter");
      await page.tab.keyboard.up("Shift");
      await page.tab.keyboard.type("there");
      await page.tab.keyboard.press("Enter");
      await page.see("A short reply.");
      assert.equal(server.requests[0].messages[0].content, "Hello\nthere");
      assert.equal(await page.tab.evaluate(() => document.activeElement.id), "prompt");
    });
  });
}
