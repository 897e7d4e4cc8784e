// Headless Chromium (Debian's package) driven by puppeteer-core. This
// machine's network is closed and a test must fetch nothing from outside,
// so every background service of the browser is off and each run gets a
// profile of its own that is removed afterwards.
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

export const chromiumPath = process.env.CHROMIUM || "/usr/bin/chromium";

export class Browser {
  async launch() {
    if (!fs.existsSync(chromiumPath))
      throw new Error(chromiumPath + " is missing: scripts/install-deps installs Debian's chromium");
    let puppeteer;
    try {
      puppeteer = (await import("puppeteer-core")).default;
    } catch (e) {
      throw new Error("puppeteer-core is not installed in tests/browser/node_modules (scripts/install-deps runs "
                      + "npm ci there): " + e.message);
    }
    this.profile = fs.mkdtempSync(path.join(os.tmpdir(), "tarv-browser-"));
    this.browser = await puppeteer.launch({
      executablePath: chromiumPath,
      headless: true,
      // TARV_DUMPIO=1 passes on what the browser itself prints.
      dumpio: Boolean(process.env.TARV_DUMPIO),
      args: [
        "--no-sandbox",
        "--disable-gpu",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--no-first-run",
        "--user-data-dir=" + this.profile,
        // Several tabs are open at once and each must stay live: a tab in
        // the background is otherwise throttled and gets input late.
        "--disable-background-timer-throttling",
        "--disable-renderer-backgrounding",
        "--disable-backgrounding-occluded-windows",
      ],
    });
  }

  async close() {
    if (this.browser)
      await this.browser.close();
    this.browser = null;
    if (this.profile)
      fs.rmSync(this.profile, { recursive: true, force: true });
  }

  // A tab on `url`, once its page has connected to the device's event
  // stream. It keeps every URL it requested and every exception its script
  // threw.
  async open(url, viewport = { width: 1024, height: 768 }) {
    const page = await this.browser.newPage();
    await page.setViewport(viewport);
    page.requested = [];
    page.exceptions = [];
    page.on("request", request => page.requested.push(request.url()));
    page.on("pageerror", error => page.exceptions.push(error.message));
    await page.goto(url, { waitUntil: "load" });
    await page.waitForSelector("#connection[data-state=\"online\"]", { timeout: 10000 });
    return page;
  }
}
