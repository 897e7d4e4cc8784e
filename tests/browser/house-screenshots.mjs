// Makes the README's pictures of the House view: a lab of four devices in
// two groups (dev1 with dev2, saved as "Living room"; dev3 with dev4), dev4's
// page at a phone's 375x812 and a laptop's 1366x800, written to
// docs/house-phone.png and docs/house-laptop.png. Run as root from a build:
//   BUILD_DIR=build node tests/browser/house-screenshots.mjs
import path from "node:path";
import { Browser } from "./Browser.mjs";
import { DeviceApi, Lab, sourceDir } from "./Lab.mjs";
import { until } from "./PageHelpers.mjs";

const why = await Lab.unavailableReason();
if (why) {
  console.error("cannot make the screenshots: " + why);
  process.exit(1);
}

const lab = new Lab("s");
const browser = new Browser();

try {
  await lab.up(4, ["--discovery-ms", "1000"]);
  const api = [1, 2, 3, 4].map(n => new DeviceApi(lab.api(n)));
  await api[1].invoke("/ui/grouping/joinTranscoder/" + lab.id(1));
  await api[3].invoke("/ui/grouping/joinTranscoder/" + lab.id(3));
  await until("dev2 follows dev1", 5000, async () => (await api[1].masterOf(lab.id(2))) === lab.id(1));
  await until("dev4 follows dev3", 5000, async () => (await api[3].masterOf(lab.id(4))) === lab.id(3));
  await api[0].invoke("/grouping/persistentGroup/save",
                      { groupingPersistentGroup: { name: "Living room", members: [lab.id(1), lab.id(2)] } });
  await browser.launch();
  for (const [name, viewport] of [
    ["house-phone", { width: 375, height: 812, isMobile: true, hasTouch: true }],
    ["house-laptop", { width: 1366, height: 800 }],
  ]) {
    const page = await browser.open(lab.api(4) + "/", viewport);
    // Every page of the lab agrees once both groups and the saved name show.
    await page.waitForFunction(() => document.querySelectorAll("#house-groups li.device[data-role=\"follower\"]").length === 2
      && document.querySelector("#house-groups .saved-name") !== null, { polling: "mutation", timeout: 10000 });
    const file = path.join(sourceDir, "docs", name + ".png");
    await page.screenshot({ path: file });
    console.log("wrote " + file);
    await page.close();
  }
} finally {
  await browser.close();
  await lab.down();
}
