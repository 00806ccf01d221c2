// SPDX-License-Identifier: Apache-2.0
// A browser with the page, and what a test does with it.
import { existsSync } from "node:fs";
import { join } from "node:path";
import puppeteer from "puppeteer-core";

const kPlaces = [process.env.CHROMIUM, "/usr/bin/chromium", "/usr/bin/chromium-browser", "/usr/bin/google-chrome"];
export const chromium = kPlaces.find((place) => place && existsSync(place));

export async function launch() {
  return puppeteer.launch({
    executablePath: chromium,
    args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"],
    protocolTimeout: 60_000,
  });
}

/** The page in a profile of its own. `problems`: what the console and the policy reported. */
export async function openPage(browser, address, { width = 1280, height = 860 } = {}) {
  const tab = await newTab(browser);
  await tab.setViewport({ width, height });
  const page = new TestPage(tab, address);
  await page.load();
  return page;
}

/** While the one before is still closing, the browser may refuse a new profile. */
async function newTab(browser, tries = 3) {
  try {
    const context = await browser.createBrowserContext();
    return await context.newPage();
  } catch (error) {
    if (tries === 1) throw error;
    await new Promise((resolve) => setTimeout(resolve, 500));
    return newTab(browser, tries - 1);
  }
}

export class TestPage {
  problems = [];
  strangers = [];

  constructor(tab, address) {
    this.tab = tab;
    this.address = address;
    tab.on("console", (message) => {
      if (message.type() === "error" || message.type() === "warn") this.problems.push(message.text());
    });
    tab.on("pageerror", (error) => this.problems.push(String(error)));
    tab.on("request", (request) => {
      const url = request.url();
      if (!url.startsWith(address) && !/^(?:data|blob):/.test(url)) this.strangers.push(url);
    });
  }

  /** The page as it is opened first, without a chat in its address. */
  async load() {
    if (this.tab.url() !== "about:blank") await this.tab.goto("about:blank");
    await this.tab.goto(this.address);
    await this.ready();
  }

  async reload() {
    await this.tab.reload();
    await this.ready();
  }

  /** Waits until the page has asked for the models, which is the last thing that it does. */
  ready(tab = this.tab) {
    return tab.waitForFunction(() => document.querySelector("#model").options.length > 0);
  }

  close() {
    return this.tab.browserContext().close();
  }

  async send(text, { wait = true } = {}) {
    await this.tab.focus("#prompt");
    await this.tab.$eval("#prompt", (field, value) => {
      field.value = value;
      field.dispatchEvent(new Event("input"));
    }, text);
    await this.tab.keyboard.press("Enter");
    await this.tab.waitForSelector("article.turn");
    if (wait) await this.idle();
  }

  /** Waits for the end of the reply. */
  async idle() {
    await this.tab.waitForFunction(() => document.querySelector("#stop").hidden &&
      document.querySelector("article.reply")?.getAttribute("aria-busy") === "false");
  }

  async see(text) {
    await this.tab.waitForFunction((wanted) => document.body.innerText.includes(wanted), {}, text);
  }

  texts(selector) {
    return this.tab.$$eval(selector, (elements) => elements.map((element) => element.innerText));
  }

  async press(label, within = "body") {
    const clicked = await this.tab.evaluate((name, scope) => {
      const buttons = [...document.querySelectorAll(`${scope} button`)].filter((button) => button.checkVisibility());
      const button = buttons.findLast((one) => (one.getAttribute("aria-label") ?? one.textContent).trim() === name);
      button?.click();
      return Boolean(button);
    }, label, within);
    if (!clicked) throw new Error(`there is no button “${label}” in ${within}`);
  }

  hacked() {
    return this.tab.evaluate(() => window.hacked ?? null);
  }

  async control(...keys) {
    await this.tab.keyboard.down("Control");
    for (const key of keys.slice(0, -1)) await this.tab.keyboard.down(key);
    await this.tab.keyboard.press(keys.at(-1));
    for (const key of keys.slice(0, -1)) await this.tab.keyboard.up(key);
    await this.tab.keyboard.up("Control");
  }

  async shot(name) {
    if (process.env.SHOTS) await this.tab.screenshot({ path: join(process.env.SHOTS, `${name}.png`) });
  }
}
