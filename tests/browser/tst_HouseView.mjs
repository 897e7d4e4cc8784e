// The House view of the device's web page in a real browser: headless
// Chromium on the pages of all four devices of a lab at once, driven as a
// user would from dev4's page (buttons, checkboxes, forms), checked against
// the devices' control APIs and against what every other page shows.
// Screenshots of the pages go to BUILD_DIR/browser/.
import { after, before, test } from "node:test";
import assert from "node:assert/strict";
import path from "node:path";
import { Browser } from "./Browser.mjs";
import { DeviceApi, Lab } from "./Lab.mjs";
import { click, groupsShownAt, normalisedGroups, screenshot, until, whenShown } from "./PageHelpers.mjs";

// Exit code ctest reads as "skipped" (SKIP_RETURN_CODE).
const skipCode = 77;
const why = await Lab.unavailableReason();
if (why) {
  console.log("SKIP: " + why);
  process.exit(skipCode);
}

const leavePath = "/ui/grouping/leave";
const savedPath = "/settings/grouping/persistentGroup";
const namePath = "/settings/device/name";
const followersNotice = "Can't join playback while having followers!";
// What the pages promise: a change shows within a second, without reload.
const redrawMs = 1000;
// Discovery announces every second here; a device silent for 8 periods and
// a half is removed (the host's goneAfter).
const discoveryMs = 1000;
const goneAfterMs = 8 * discoveryMs + discoveryMs / 2;
const all = [1, 2, 3, 4];

const lab = new Lab("h");
const browser = new Browser();
const api = {};
const pages = {};
const shots = path.join(lab.buildDir, "browser");

// The groups a page shows: [[transcoder id, [follower ids]]], sorted.
function shownGroups(page) {
  return page.evaluate(() => Array.from(document.querySelectorAll("#house-groups article.group[data-id]"), card =>
    [card.dataset.id, Array.from(card.querySelectorAll("li.device[data-role=\"follower\"]"), li => li.dataset.id).sort()])
    .sort((a, b) => (a[0] < b[0] ? -1 : 1)));
}

// Resolves with the time `page` first shows exactly `groups` (by id) and no
// device of an unknown group.
function housePromise(page, groups, timeoutMs) {
  return groupsShownAt(page, groups, timeoutMs).catch(async e => {
    assert.fail(page.url() + " does not show " + JSON.stringify(normalisedGroups(groups)) + ": "
                + JSON.stringify(await shownGroups(page)) + " (" + e.message + ")");
  });
}

function everyoneAlone() { return all.map(n => [lab.id(n), []]); }

// A result line of the last action on `page` for device n, once shown.
async function resultLine(page, n, timeoutMs = 8000) {
  await whenShown(page, timeoutMs, id => Boolean(document.querySelector("#house-results li[data-id=\"" + id + "\"]"))
    && Date.now(), lab.id(n));
  return page.$eval("#house-results li[data-id=\"" + lab.id(n) + "\"]",
                    li => ({ outcome: li.dataset.outcome, text: li.textContent }));
}

// The time the next action on `page` finished (every device answered),
// as the page took it when it wrote the summary; call it before the action.
async function summaryShown(page, timeoutMs = 10000) {
  const before = await page.evaluate(() => Number(document.getElementById("house-report").dataset.seq || 0));
  return () => whenShown(page, timeoutMs, before => {
    const report = document.getElementById("house-report");
    const summary = document.getElementById("house-summary");
    return Number(report.dataset.seq || 0) > before && summary.dataset.state !== "running"
      && summary.textContent !== "" && report.dataset.finishedAt !== undefined && Number(report.dataset.finishedAt);
  }, before);
}

async function typeInto(page, selector, text) {
  await page.bringToFront();
  await page.click(selector, { clickCount: 3 });
  await page.keyboard.press("Backspace");
  if (text)
    await page.type(selector, text);
}

function card(n) { return "#house-groups article.group[data-id=\"" + lab.id(n) + "\"]"; }
function item(n) { return "#house-groups li.device[data-id=\"" + lab.id(n) + "\"]"; }

function masterOf(n) { return api[n].masterOf(lab.id(n)); }

// Every device on its own again (through the APIs, not the page), and every
// page showing it.
async function ungroupAll() {
  for (const n of all)
    await until("dev" + n + " accepts the leave", 3000, async () => { await api[n].invoke(leavePath); return true; });
  for (const n of all)
    await until("dev" + n + " on its own", 5000, async () => (await masterOf(n)) === lab.id(n));
  await Promise.all(all.map(n => housePromise(pages[n], everyoneAlone(), 5000)));
}

function browserTest(name, body) {
  test(name, async () => {
    try {
      await body();
    } catch (e) {
      for (const n of all)
        console.log("--- dev" + n + " log, last lines ---\n" + lab.logTail(n, 15));
      throw e;
    } finally {
      const base = "house-" + name.replace(/[^a-z0-9]+/gi, "-").toLowerCase().slice(0, 60);
      await screenshot(shots, base + "-dev4", pages[4]).catch(() => {});
      await screenshot(shots, base + "-dev1", pages[1]).catch(() => {});
    }
  });
}

before(async () => {
  await lab.up(4, ["--resend-ms", "300", "--timeout-ms", "2000", "--discovery-ms", String(discoveryMs)]);
  for (const n of all)
    api[n] = new DeviceApi(lab.api(n));
  await browser.launch();
  for (const n of all)
    pages[n] = await browser.open(lab.api(n) + "/", { width: 1366, height: 800 });
  for (const page of Object.values(pages))
    await page.evaluate(() => { window.notReloaded = true; });
});

after(async () => {
  await browser.close();
  await lab.down();
});

browserTest("the House is shown first, lists every device and marks this page's own", async () => {
  await Promise.all(all.map(n => housePromise(pages[n], everyoneAlone(), 5000)));
  for (const n of all) {
    const page = pages[n];
    const shown = await page.evaluate(() => ({
      house: !document.getElementById("house").hidden,
      device: !document.getElementById("device-view").hidden,
      current: document.querySelector("nav a[aria-current=\"page\"]").textContent,
      own: Array.from(document.querySelectorAll("#house-groups li.device"))
        .filter(li => li.querySelector(".tag.own")).map(li => li.dataset.id),
      names: Array.from(document.querySelectorAll("#house-groups li.device .name"), e => e.textContent).sort(),
      unreachable: document.querySelectorAll("#house-groups .tag.unreachable").length,
    }));
    assert.deepEqual(shown, { house: true, device: false, current: "House", own: [lab.id(n)],
                              names: ["dev1", "dev2", "dev3", "dev4"], unreachable: 0 });
  }
  // "This device" is one click away, and back.
  await click(pages[2], "#nav-device");
  await whenShown(pages[2], redrawMs, () => !document.getElementById("grouping").hidden
    && document.getElementById("house").hidden && location.hash === "#/device" && Date.now());
  await click(pages[2], "#nav-house");
  await whenShown(pages[2], redrawMs, () => !document.getElementById("house").hidden && Date.now());
  for (const page of Object.values(pages)) {
    const foreign = page.requested.filter(url => !url.startsWith(new URL(page.url()).origin + "/"));
    assert.deepEqual(foreign, []);
  }
});

browserTest("Add rooms on dev4's page puts dev2 and dev3 in dev1's group, every page shows it within 1 s",
            async () => {
  const page = pages[4];
  const grouped = [[lab.id(1), [lab.id(2), lab.id(3)]], [lab.id(4), []]];
  const shownOn = all.map(n => housePromise(pages[n], grouped, 15000));
  await click(page, card(1) + " button[data-action=\"add\"]");
  const labels = await page.$$eval("form.add-rooms label", ls => ls.map(l => l.textContent.trim()));
  assert.deepEqual(labels, ["dev2 (on its own)", "dev3 (on its own)", "dev4 (on its own)"]);
  await click(page, "form.add-rooms input[value=\"" + lab.id(2) + "\"]");
  await click(page, "form.add-rooms input[value=\"" + lab.id(3) + "\"]");
  const done = await summaryShown(page);
  await click(page, "form.add-rooms button[type=\"submit\"]");
  const completed = await done();
  assert.deepEqual(await resultLine(page, 2), { outcome: "joined", text: "dev2 joined the group of dev1" });
  assert.deepEqual(await resultLine(page, 3), { outcome: "joined", text: "dev3 joined the group of dev1" });
  assert.equal(await page.$eval("#house-summary", e => e.textContent), "Done on all 2 devices");
  const times = await Promise.all(shownOn);
  const late = times.map(at => at - completed);
  console.log("action completed -> pages of dev1..dev4 show the group: " + late.join(", ") + " ms");
  for (const ms of late)
    assert.ok(ms <= redrawMs, "a page showed the group " + ms + " ms after the action completed");
  assert.equal(await masterOf(2), lab.id(1));
  assert.equal(await masterOf(3), lab.id(1));
  for (const p of Object.values(pages))
    assert.ok(await p.evaluate(() => window.notReloaded === true), "a page was reloaded");
});

browserTest("adding a device that has followers names it and its module's reason", async () => {
  const page = pages[4];
  await housePromise(page, [[lab.id(1), [lab.id(2), lab.id(3)]], [lab.id(4), []]], 5000);
  await click(page, card(4) + " button[data-action=\"add\"]");
  await click(page, "form.add-rooms input[value=\"" + lab.id(1) + "\"]");
  const done = await summaryShown(page);
  await click(page, "form.add-rooms button[type=\"submit\"]");
  await done();
  assert.deepEqual(await resultLine(page, 1), { outcome: "refused", text: "dev1 refused: " + followersNotice });
  assert.equal(await page.$eval("#house-summary", e => e.textContent), "0 of 1 done; not done on dev1");
  assert.equal(await page.$eval("#house-summary", e => e.dataset.state), "failed");
  assert.equal(await masterOf(1), lab.id(1));
});

browserTest("Ungroup on dev4's page brings every device back on its own on every page within 1 s", async () => {
  const page = pages[4];
  await housePromise(page, [[lab.id(1), [lab.id(2), lab.id(3)]], [lab.id(4), []]], 5000);
  const shownOn = all.map(n => housePromise(pages[n], everyoneAlone(), 15000));
  const done = await summaryShown(page);
  await click(page, card(1) + " button[data-action=\"ungroup\"]");
  const completed = await done();
  assert.deepEqual(await resultLine(page, 2), { outcome: "left", text: "dev2 left the group of dev1" });
  assert.deepEqual(await resultLine(page, 3), { outcome: "left", text: "dev3 left the group of dev1" });
  const late = (await Promise.all(shownOn)).map(at => at - completed);
  console.log("ungroup completed -> pages show everyone alone: " + late.join(", ") + " ms");
  for (const ms of late)
    assert.ok(ms <= redrawMs, "a page showed the ungrouping " + ms + " ms after the action completed");
  for (const n of all)
    assert.equal(await masterOf(n), lab.id(n));
});

browserTest("Move to takes a follower from one group straight into another", async () => {
  await ungroupAll();
  await api[2].invoke("/ui/grouping/joinTranscoder/" + lab.id(1));
  const page = pages[4];
  await housePromise(page, [[lab.id(1), [lab.id(2)]], [lab.id(3), []], [lab.id(4), []]], 5000);
  await page.select(item(2) + " select", lab.id(3));
  const done = await summaryShown(page);
  await click(page, item(2) + " button[data-action=\"move\"]");
  await done();
  assert.deepEqual(await resultLine(page, 2), { outcome: "joined", text: "dev2 joined the group of dev3" });
  await housePromise(page, [[lab.id(1), []], [lab.id(3), [lab.id(2)]], [lab.id(4), []]], redrawMs);
  assert.equal(await masterOf(2), lab.id(3));
});

browserTest("unticking a follower in Add rooms makes it leave while the ticked one stays", async () => {
  await ungroupAll();
  await Promise.all([api[2].invoke("/ui/grouping/joinTranscoder/" + lab.id(1)),
                     api[3].invoke("/ui/grouping/joinTranscoder/" + lab.id(1))]);
  const page = pages[4];
  await housePromise(page, [[lab.id(1), [lab.id(2), lab.id(3)]], [lab.id(4), []]], 5000);
  await click(page, card(1) + " button[data-action=\"add\"]");
  const ticked = await page.$$eval("form.add-rooms input:checked", boxes => boxes.map(b => b.value).sort());
  assert.deepEqual(ticked, [lab.id(2), lab.id(3)].sort());
  await click(page, "form.add-rooms input[value=\"" + lab.id(3) + "\"]");
  const done = await summaryShown(page);
  await click(page, "form.add-rooms button[type=\"submit\"]");
  await done();
  assert.deepEqual(await resultLine(page, 3), { outcome: "left", text: "dev3 left the group of dev1" });
  assert.equal(await page.$eval("#house-summary", e => e.textContent), "Done");
  await housePromise(page, [[lab.id(1), [lab.id(2)]], [lab.id(3), []], [lab.id(4), []]], redrawMs);
  assert.equal(await masterOf(2), lab.id(1));
  assert.equal(await masterOf(3), lab.id(3));
});

browserTest("a device that does not answer times out and a cut one is unreachable, each named", async () => {
  await ungroupAll();
  const page = pages[4];
  await lab.script(["stop", "dev3"]);
  await lab.script(["cut", "dev2"]);
  try {
    await click(page, card(1) + " button[data-action=\"add\"]");
    for (const n of [2, 3, 4])
      await click(page, "form.add-rooms input[value=\"" + lab.id(n) + "\"]");
    const done = await summaryShown(page, 15000);
    await click(page, "form.add-rooms button[type=\"submit\"]");
    await done();
    const dev2 = await resultLine(page, 2);
    assert.equal(dev2.outcome, "unreachable", dev2.text);
    assert.match(dev2.text, /^dev2: unreachable \(Device 'dev2' at [0-9.]+:8080 is unreachable: .+\)$/);
    const dev3 = await resultLine(page, 3);
    assert.equal(dev3.outcome, "timeout", dev3.text);
    assert.match(dev3.text, /^dev3: timed out \(Device 'dev3' did not answer within [0-9]+ ms\)$/);
    assert.deepEqual(await resultLine(page, 4), { outcome: "joined", text: "dev4 joined the group of dev1" });
    const summary = await page.$eval("#house-summary", e => e.textContent);
    assert.match(summary, /^1 of 3 done; not done on (dev2, dev3|dev3, dev2)$/);
  } finally {
    await lab.script(["cont", "dev3"]);
    await lab.script(["heal", "dev2"]);
  }
  assert.equal(await masterOf(4), lab.id(1));
});

browserTest("a killed device leaves every page within the removal time and its restart brings it back", async () => {
  await ungroupAll();
  const others = [1, 2, 4];
  const without3 = everyoneAlone().filter(([id]) => id !== lab.id(3));
  const goneOn = others.map(n => housePromise(pages[n], without3, goneAfterMs + 3000));
  const killedAt = Date.now();
  await lab.kill(3);
  const gone = (await Promise.all(goneOn)).map(at => at - killedAt);
  console.log("SIGKILL of dev3 -> gone from the pages of dev1, dev2, dev4: " + gone.join(", ") + " ms (goneAfter "
              + goneAfterMs + " ms)");
  for (const ms of gone)
    assert.ok(ms <= goneAfterMs + redrawMs, "dev3 left a page " + ms + " ms after it was killed");
  await lab.restart(3);
  const restartedAt = Date.now();
  const back = (await Promise.all(all.map(n => housePromise(pages[n], everyoneAlone(), 3 * discoveryMs + 5000))))
    .map(at => at - restartedAt);
  console.log("dev3 ready again -> every page shows it: " + back.join(", ") + " ms");
  assert.ok(await pages[3].evaluate(() => window.notReloaded === true), "dev3's page was reloaded");
});

browserTest("a group saved from dev4's page for dev1 is written and forms again after a power cut of all four",
            async () => {
  await ungroupAll();
  await api[2].invoke("/ui/grouping/joinTranscoder/" + lab.id(1));
  const page = pages[4];
  const grouped = [[lab.id(1), [lab.id(2)]], [lab.id(3), []], [lab.id(4), []]];
  await housePromise(page, grouped, 5000);
  await click(page, card(1) + " button[data-action=\"save\"]");
  assert.equal(await page.$eval("form.save label", l => l.textContent), "Save dev1, dev2 as");
  await typeInto(page, "form.save input", "Living room");
  const sentAt = Date.now();
  const done = await summaryShown(page);
  await click(page, "form.save button[type=\"submit\"]");
  await done();
  assert.deepEqual(await resultLine(page, 1), { outcome: "saved", text: "dev1 saved \"Living room\" (dev1, dev2)" });
  const saved = (await api[1].value(savedPath)).groupingPersistentGroup;
  assert.equal(saved.name, "Living room");
  assert.deepEqual([...saved.members].sort(), [lab.id(1), lab.id(2)].sort());
  assert.ok(saved.timestamp >= sentAt - 1000 && saved.timestamp <= Date.now() + 1000, "timestamp " + saved.timestamp);
  for (const n of all)
    await whenShown(pages[n], redrawMs, selector => {
      const name = document.querySelector(selector + " .saved-name");
      return name !== null && name.textContent === "Living room" && Date.now();
    }, item(1));

  // Power cut: every host killed at once, then all started again.
  for (const n of all)
    await lab.kill(n);
  await lab.script(["restart", "dev1", "dev2", "dev3", "dev4"]);
  await lab.refresh();
  const restartedAt = Date.now();
  const back = (await Promise.all(all.map(n => housePromise(pages[n], grouped, 3 * discoveryMs + 8000))))
    .map(at => at - restartedAt);
  console.log("all four ready again -> every page shows dev1's group again: " + back.join(", ") + " ms");
  assert.equal(await masterOf(2), lab.id(1));
  for (const n of all) {
    await whenShown(pages[n], 5000, selector => {
      const name = document.querySelector(selector + " .saved-name");
      return name !== null && name.textContent === "Living room" && Date.now();
    }, item(1));
  }
  for (const p of Object.values(pages))
    assert.ok(await p.evaluate(() => window.notReloaded === true), "a page was reloaded");
  // Saving the device alone clears the group, so that dev2 stays where the
  // next tests put it.
  await api[1].invoke("/grouping/persistentGroup/save", { groupingPersistentGroup: { name: "", members: [lab.id(1)] } });
});

browserTest("a rename from dev4's page shows on every page within 1 s, and a refused name says why", async () => {
  const page = pages[4];
  await ungroupAll();
  const named = (n, name, timeoutMs) => whenShown(pages[n], timeoutMs, (selector, name) => {
    const e = document.querySelector(selector + " .name");
    return e !== null && e.textContent === name && Date.now();
  }, item(2), name);
  const shownOn = all.map(n => named(n, "Kitchen", 10000));
  await click(page, item(2) + " button[data-action=\"rename\"]");
  await typeInto(page, "form.rename input", "Kitchen");
  const done = await summaryShown(page);
  await click(page, "form.rename button[type=\"submit\"]");
  const completed = await done();
  assert.deepEqual(await resultLine(page, 2), { outcome: "renamed", text: "dev2 renamed to Kitchen" });
  const late = (await Promise.all(shownOn)).map(at => at - completed);
  console.log("rename completed -> every page shows the name: " + late.join(", ") + " ms");
  for (const ms of late)
    assert.ok(ms <= redrawMs, "a page showed the new name " + ms + " ms after the rename completed");
  assert.deepEqual(await api[2].value(namePath), { string_: "Kitchen" });

  // The host's own check, shown as it gives it, naming the device.
  await click(page, item(2) + " button[data-action=\"rename\"]");
  await typeInto(page, "form.rename input", "");
  const refused = await summaryShown(page);
  await click(page, "form.rename button[type=\"submit\"]");
  await refused();
  const line = await resultLine(page, 2);
  assert.equal(line.outcome, "refused");
  assert.ok(line.text.startsWith("Kitchen refused: /settings/device/name: a device name must not be empty"), line.text);
  assert.deepEqual(await api[2].value(namePath), { string_: "Kitchen" });

  // A name is text on every page, never markup.
  const markup = "<img src=x onerror=\"window.ran=1\">";
  const markupOn = all.map(n => whenShown(pages[n], 10000, (selector, name) => {
    const e = document.querySelector(selector + " .name");
    return e !== null && e.textContent === name && Date.now();
  }, item(3), markup));
  await click(page, item(3) + " button[data-action=\"rename\"]");
  await typeInto(page, "form.rename input", markup);
  await click(page, "form.rename button[type=\"submit\"]");
  await Promise.all(markupOn);
  for (const p of Object.values(pages))
    assert.deepEqual(await p.evaluate(() => [document.querySelectorAll("#house img").length, window.ran === undefined]),
                     [0, true]);
  await api[2].call("PUT", "value", namePath, { string_: "dev2" });
  await api[3].call("PUT", "value", namePath, { string_: "dev3" });
});

browserTest("a phone-sized screen gets one column, big enough buttons and no sideways scrolling", async () => {
  const phone = await browser.open(lab.api(4) + "/", { width: 375, height: 812, isMobile: true, hasTouch: true,
                                                       deviceScaleFactor: 2 });
  try {
    await api[2].invoke("/ui/grouping/joinTranscoder/" + lab.id(1));
    await housePromise(phone, [[lab.id(1), [lab.id(2)]], [lab.id(3), []], [lab.id(4), []]], 5000);
    const layout = await phone.evaluate(() => {
      const cards = Array.from(document.querySelectorAll("#house-groups article.group"), c => c.getBoundingClientRect());
      const controls = Array.from(document.querySelectorAll("#house button, #house select, nav a"),
                                  b => b.getBoundingClientRect()).filter(r => r.width > 0);
      return {
        scrollWidth: document.documentElement.scrollWidth,
        innerWidth: window.innerWidth,
        lefts: [...new Set(cards.map(c => Math.round(c.left)))],
        smallest: Math.min(...controls.map(r => r.height)),
      };
    });
    assert.ok(layout.scrollWidth <= layout.innerWidth, "the page scrolls sideways: " + JSON.stringify(layout));
    assert.equal(layout.lefts.length, 1, "cards side by side on a phone: " + JSON.stringify(layout));
    assert.ok(layout.smallest >= 44, "a control is smaller than a finger: " + layout.smallest);
    // Every control is labelled: buttons by their text, inputs and selects by a label.
    const unlabelled = await phone.evaluate(() => [
      ...Array.from(document.querySelectorAll("button"), b => b.textContent.trim() ? null : b.outerHTML),
      ...Array.from(document.querySelectorAll("input, select"), i => i.labels.length ? null : i.outerHTML),
    ].filter(Boolean));
    assert.deepEqual(unlabelled, []);
    await screenshot(shots, "house-phone", phone);
  } finally {
    await phone.close();
  }
  for (const p of Object.values(pages))
    assert.deepEqual(p.exceptions, []);
});
