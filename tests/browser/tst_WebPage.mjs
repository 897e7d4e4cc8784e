// The device's web page, its "This device" view (opened at /#/device), in a
// real browser: headless Chromium on the pages of a three-device lab (each host's API on its device address, port 8080),
// driven as a user would (clicks, keys, a form), checked against the
// devices' control APIs. Every test saves a screenshot of the pages it used
// under BUILD_DIR/browser/.
import { after, before, test } from "node:test";
import assert from "node:assert/strict";
import path from "node:path";
import { Browser } from "./Browser.mjs";
import { DeviceApi, Lab } from "./Lab.mjs";
import { click, screenshot, until, whenShown } from "./PageHelpers.mjs";

// Exit code ctest reads as "skipped" (SKIP_RETURN_CODE).
const skipCode = 77;
const why = await Lab.unavailableReason();
if (why) {
  console.log("SKIP: " + why);
  process.exit(skipCode);
}

const listPath = "/ui/grouping";
const leavePath = "/ui/grouping/leave";
const savedPath = "/settings/grouping/persistentGroup";
const refusal = "Previous grouping request not finished, reject request.";
// What the pages promise: a change shows within a second, without reload.
const redrawMs = 1000;

const lab = new Lab("w");
const browser = new Browser();
const api = {};
const pages = {};
const shots = path.join(lab.buildDir, "browser");

function origin(n) { return lab.api(n); }

// The list as a page shows it.
function shownList(page) {
  return page.evaluate(() => ({
    title: document.getElementById("grouping-title").textContent,
    rows: Array.from(document.querySelectorAll("#grouping-rows li"), item => {
      const button = item.querySelector("button");
      return {
        id: item.dataset.id,
        title: (button || item).textContent,
        path: button ? button.dataset.path : null,
        followed: item.classList.contains("followed"),
      };
    }),
  }));
}

function followedRowIs(id, timeoutMs = redrawMs) {
  return page => whenShown(page, timeoutMs, id => {
    const item = document.querySelector("#grouping-rows li.followed");
    return item !== null && item.dataset.id === id && Date.now();
  }, id);
}

function followersViewOf(name, timeoutMs = redrawMs) {
  return page => whenShown(page, timeoutMs, name => {
    const rows = Array.from(document.querySelectorAll("#grouping-rows li"), item => item.textContent);
    return document.getElementById("grouping-title").textContent === "List of followers"
      && rows[0] === "Can't join playback while having followers!" && rows.includes("Follower: " + name)
      && Date.now();
  }, name);
}

function transcodersViewWith(ids, timeoutMs = redrawMs) {
  return page => whenShown(page, timeoutMs, ids => {
    const rows = Array.from(document.querySelectorAll("#grouping-rows li"));
    return document.getElementById("grouping-title").textContent === "Transcoders"
      && rows.length === ids.length
      && ids.every(id => rows.some(item => item.dataset.id === id && !item.classList.contains("followed")))
      && Date.now();
  }, ids);
}

function shows(id, text) {
  return page => whenShown(page, 3000, (id, text) => document.getElementById(id).textContent === text && Date.now(),
                           id, text);
}

function startsWith(id, text) {
  return page => whenShown(page, 3000, (id, text) => document.getElementById(id).textContent.startsWith(text)
                           && Date.now(), id, text);
}

function notBusy(page) {
  return whenShown(page, 2000, () => !document.getElementById("grouping").hasAttribute("aria-busy") && Date.now());
}

// In front first, as click() does.
async function tap(page, selector) {
  await page.bringToFront();
  await page.tap(selector);
}

function rowButton(id) {
  return "#grouping-rows li[data-id=\"" + id + "\"] button";
}

function masterOf(n) { return api[n].masterOf(lab.id(n)); }

// Every device on its own again, and every open page showing it.
async function ungroupAll() {
  for (const n of [1, 2, 3]) {
    await until("dev" + n + " accepts the leave", 3000, async () => {
      await api[n].invoke(leavePath);
      return true;
    });
  }
  for (const n of [1, 2, 3]) {
    await until("dev" + n + " on its own", 5000, async () => {
      const rows = (await api[n].rows("/grouping/members")).rows;
      return rows.length === 1 && (await masterOf(n)) === lab.id(n);
    });
  }
  const others = n => [1, 2, 3].filter(m => m !== n).map(m => lab.id(m));
  for (const [n, page] of [[1, pages.dev1], [2, pages.dev2], [2, pages.dev2b], [3, pages.dev3]])
    await transcodersViewWith(others(n))(page).catch(async () => {
      assert.fail("dev" + n + "'s page after ungrouping: " + JSON.stringify(await shownList(page)));
    });
}

// Runs a test's body and saves a screenshot of each named page afterwards,
// passed or failed; a failure also prints the devices' last log lines.
function browserTest(name, shotsOf, body) {
  test(name, async () => {
    try {
      await body();
    } catch (e) {
      for (const n of [1, 2, 3])
        console.log("--- dev" + n + " log, last lines ---\n" + lab.logTail(n, 15));
      throw e;
    } finally {
      for (const [suffix, key] of Object.entries(shotsOf))
        await screenshot(shots, name.replace(/[^a-z0-9]+/gi, "-").toLowerCase() + "-" + suffix, pages[key]).catch(() => {});
    }
  });
}

before(async () => {
  // Resend 300 ms and time-out 2000 ms as in the other lab suites; discovery
  // at 1000 ms lets a restarted device be found again quickly.
  await lab.up(3, ["--resend-ms", "300", "--timeout-ms", "2000", "--discovery-ms", "1000"]);
  for (const n of [1, 2, 3])
    api[n] = new DeviceApi(origin(n));
  await browser.launch();
  pages.dev1 = await browser.open(origin(1) + "/#/device");
  pages.dev2 = await browser.open(origin(2) + "/#/device");
  pages.dev2b = await browser.open(origin(2) + "/#/device");
  pages.dev3 = await browser.open(origin(3) + "/#/device");
  // Set once; a reload would lose it.
  for (const page of Object.values(pages))
    await page.evaluate(() => { window.notReloaded = true; });
});

after(async () => {
  await browser.close();
  await lab.down();
});

browserTest("dev2's page lists the other transcoders and not itself", { dev2: "dev2" }, async () => {
  const page = pages.dev2;
  await transcodersViewWith([lab.id(1), lab.id(3)])(page);
  const list = await shownList(page);
  assert.equal(list.title, "Transcoders");
  assert.deepEqual(list.rows.map(row => row.id).sort(), [lab.id(1), lab.id(3)].sort());
  const dev1 = list.rows.find(row => row.id === lab.id(1));
  assert.equal(dev1.title, "dev1");
  assert.equal(dev1.path, listPath + "/joinTranscoder/" + lab.id(1));
  assert.ok(!list.rows.some(row => row.id === lab.id(2)), "dev2 offers itself");
  // What the page shows is the module's list, row for row.
  const module = await api[2].rows(listPath);
  assert.deepEqual(list.rows.map(row => [row.id, row.title, row.path]).sort(),
                   module.rows.map(row => [row.id, row.title, row.path]).sort());
  assert.equal(await page.$eval("#device-name", e => e.textContent), "dev2");
  assert.equal(await page.$eval("#leave", e => e.textContent), "Leave group");
  // Nothing but the device itself was asked for anything.
  for (const p of Object.values(pages)) {
    const foreign = p.requested.filter(url => !url.startsWith(new URL(p.url()).origin + "/"));
    assert.deepEqual(foreign, []);
  }
});

browserTest("clicking dev1 on dev2's page makes dev2 follow dev1 and every page redraws within 1 s",
            { dev2: "dev2", dev1: "dev1", dev2tab2: "dev2b" }, async () => {
  await pages.dev2.evaluate(() => {
    const section = document.getElementById("grouping");
    window.busySeen = [];
    new MutationObserver(() => window.busySeen.push({
      busy: section.getAttribute("aria-busy"),
      status: document.getElementById("grouping-status").textContent,
      at: Date.now(),
    })).observe(section, { attributes: true, attributeFilter: ["aria-busy"] });
  });
  const clicked = Date.now();
  const dev2Marked = followedRowIs(lab.id(1))(pages.dev2);
  const otherTabMarked = followedRowIs(lab.id(1))(pages.dev2b);
  const dev1Followers = followersViewOf("dev2")(pages.dev1);
  await click(pages.dev2, rowButton(lab.id(1)));
  // dev2 is no longer a transcoder: dev3 stops offering it.
  const dev3Drops = transcodersViewWith([lab.id(1)])(pages.dev3);
  const [marked, markedInTab, followers, dropped] =
    await Promise.all([dev2Marked, otherTabMarked, dev1Followers, dev3Drops]);
  console.log("click -> dev2 marked " + (marked - clicked) + " ms, other tab " + (markedInTab - clicked)
              + " ms, dev1's followers view " + (followers - clicked) + " ms, dev3's list " + (dropped - clicked)
              + " ms");
  assert.equal(await masterOf(2), lab.id(1));
  const dev1Members = (await api[1].rows("/grouping/members")).rows.map(row => row.id).sort();
  assert.deepEqual(dev1Members, [lab.id(1), lab.id(2)].sort());
  const list = await shownList(pages.dev2);
  const row = list.rows.find(r => r.id === lab.id(1));
  assert.deepEqual(row, { id: lab.id(1), title: "   >   dev1", path: leavePath, followed: true });
  // Busy from the click until the module's answer, which comes no sooner
  // than 200 ms after it took the activation up.
  await notBusy(pages.dev2);
  const busy = await pages.dev2.evaluate(() => window.busySeen);
  assert.equal(busy.length, 2, JSON.stringify(busy));
  assert.deepEqual([busy[0].busy, busy[0].status], ["true", "dev1: waiting for the device…"]);
  assert.equal(busy[1].busy, null);
  const busyMs = busy[1].at - busy[0].at;
  console.log("busy " + busyMs + " ms");
  assert.ok(busyMs >= 200 && busyMs < 1000, "busy for " + busyMs + " ms");
  assert.equal(await pages.dev2.$eval("#grouping-error", e => e.textContent), "");
  for (const page of Object.values(pages))
    assert.ok(await page.evaluate(() => window.notReloaded === true), "a page was reloaded");
});

browserTest("Leave group brings both pages back", { dev2: "dev2", dev1: "dev1" }, async () => {
  assert.equal(await masterOf(2), lab.id(1), "dev2 follows dev1 from the test before");
  await followersViewOf("dev2")(pages.dev1);
  await followedRowIs(lab.id(1))(pages.dev2);
  const back2 = transcodersViewWith([lab.id(1), lab.id(3)])(pages.dev2);
  const back1 = transcodersViewWith([lab.id(2), lab.id(3)])(pages.dev1);
  await click(pages.dev2, "#leave");
  await Promise.all([back2, back1]);
  await until("dev2 on its own", 2000, async () => (await masterOf(2)) === lab.id(2));
  assert.equal((await api[1].rows("/grouping/members")).rows.length, 1);
  await notBusy(pages.dev2);
  assert.equal(await pages.dev2.$eval("#grouping-error", e => e.textContent), "");
});

browserTest("a double click shows the module's refusal and one join is carried out", { dev2: "dev2" }, async () => {
  await ungroupAll();
  await click(pages.dev2, rowButton(lab.id(3)), { count: 2 });
  await shows("grouping-error", refusal)(pages.dev2);
  await followedRowIs(lab.id(3))(pages.dev2);
  await until("dev2 follows dev3", 2000, async () => (await masterOf(2)) === lab.id(3));
  // The first activation's answer does not wipe the second one's refusal.
  await notBusy(pages.dev2);
  assert.equal(await pages.dev2.$eval("#grouping-error", e => e.textContent), refusal);
  assert.equal(await pages.dev2.$eval("#grouping-error", e => e.getAttribute("role")), "alert");
  // The next activation starts without the old refusal.
  await click(pages.dev2, rowButton(lab.id(3)));
  await transcodersViewWith([lab.id(1), lab.id(3)])(pages.dev2);
  assert.equal(await pages.dev2.$eval("#grouping-error", e => e.textContent), "");
});

browserTest("the keyboard alone joins and leaves, and focus stays on the row", { dev2: "dev2" }, async () => {
  await ungroupAll();
  const page = pages.dev2;
  await page.bringToFront();
  await page.evaluate(() => document.activeElement && document.activeElement.blur());
  const target = lab.id(1);
  for (let presses = 0; ; ++presses) {
    assert.ok(presses < 20, "Tab never reached dev1's row");
    await page.keyboard.press("Tab");
    const on = await page.evaluate(() => {
      const item = document.activeElement && document.activeElement.closest("#grouping-rows li");
      return item ? item.dataset.id : null;
    });
    if (on === target)
      break;
  }
  assert.equal(await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle), "solid");
  const marked = followedRowIs(target)(page);
  await page.keyboard.press("Enter");
  await marked;
  assert.equal(await masterOf(2), target);
  const focusedRow = () => page.evaluate(() => {
    const item = document.activeElement && document.activeElement.closest("#grouping-rows li");
    return item ? item.dataset.id : null;
  });
  assert.equal(await focusedRow(), target, "focus left the row when the list was redrawn");
  // The followed row leads to the leave action; Space activates it.
  await notBusy(page);
  const back = transcodersViewWith([lab.id(1), lab.id(3)])(page);
  await page.keyboard.press("Space");
  await back;
  assert.equal(await focusedRow(), target);
  // Every control is labelled: buttons by their text, inputs by a label.
  const unlabelled = await page.evaluate(() => [
    ...Array.from(document.querySelectorAll("button"), b => b.textContent.trim() ? null : b.outerHTML),
    ...Array.from(document.querySelectorAll("input"), i => i.labels.length ? null : i.outerHTML),
  ].filter(Boolean));
  assert.deepEqual(unlabelled, []);
});

browserTest("a phone-sized screen gets one column and a tap joins", { phone: "phone" }, async () => {
  await ungroupAll();
  pages.phone = await browser.open(origin(3) + "/#/device",
                                   { width: 375, height: 740, isMobile: true, hasTouch: true, deviceScaleFactor: 2 });
  const page = pages.phone;
  await transcodersViewWith([lab.id(1), lab.id(2)])(page);
  const layout = await page.evaluate(() => {
    const box = id => {
      const r = document.getElementById(id).getBoundingClientRect();
      return { top: r.top, bottom: r.bottom, width: r.width };
    };
    // The view not shown (the House) is hidden, its buttons have no size.
    const buttons = Array.from(document.querySelectorAll("button"), b => b.getBoundingClientRect())
      .filter(r => r.width > 0);
    return {
      scrollWidth: document.documentElement.scrollWidth,
      innerWidth: window.innerWidth,
      grouping: box("grouping"),
      saved: box("saved"),
      rows: box("grouping-rows"),
      rowButtons: Array.from(document.querySelectorAll("#grouping-rows button"), b => b.getBoundingClientRect().width),
      smallestButton: Math.min(...buttons.map(b => b.height)),
    };
  });
  assert.ok(layout.scrollWidth <= layout.innerWidth, "the page scrolls sideways: " + JSON.stringify(layout));
  assert.ok(layout.saved.top >= layout.grouping.bottom, "sections side by side on a phone: " + JSON.stringify(layout));
  for (const width of layout.rowButtons)
    assert.ok(Math.abs(width - layout.rows.width) < 1, "a row button is narrower than the list");
  assert.ok(layout.smallestButton >= 44, "a button is smaller than a finger: " + layout.smallestButton);
  const marked = followedRowIs(lab.id(1))(page);
  await tap(page, rowButton(lab.id(1)));
  await marked;
  assert.equal(await masterOf(3), lab.id(1));
  await tap(page, "#leave");
  await transcodersViewWith([lab.id(1), lab.id(2)])(page);
});

browserTest("click on one device to the other device's page redrawn, 10 joins and leaves",
            { dev1: "dev1" }, async () => {
  await ungroupAll();
  const joins = [];
  const leaves = [];
  for (let round = 0; round < 10; ++round) {
    await notBusy(pages.dev2);
    let clicked = Date.now();
    const followers = followersViewOf("dev2")(pages.dev1);
    await click(pages.dev2, rowButton(lab.id(1)));
    joins.push((await followers) - clicked);
    await followedRowIs(lab.id(1))(pages.dev2);
    await notBusy(pages.dev2);
    clicked = Date.now();
    const transcoders = transcodersViewWith([lab.id(2), lab.id(3)])(pages.dev1);
    await click(pages.dev2, "#leave");
    leaves.push((await transcoders) - clicked);
    await transcodersViewWith([lab.id(1), lab.id(3)])(pages.dev2);
  }
  const summary = list => {
    const sorted = [...list].sort((a, b) => a - b);
    return "median " + sorted[Math.floor(sorted.length / 2)] + " ms, min " + sorted[0] + " ms, max "
      + sorted[sorted.length - 1] + " ms";
  };
  console.log("click on dev2 -> dev1's page in its followers view: " + summary(joins));
  console.log("Leave group on dev2 -> dev1's page back to the transcoders: " + summary(leaves));
});

browserTest("an empty name with other members shows the module's error and saves nothing", { dev1: "dev1" },
            async () => {
  await ungroupAll();
  const page = pages.dev1;
  const before = await api[1].value(savedPath);
  await page.$eval("#save-name", input => { input.value = ""; });
  const dev2Box = "#save-members input[value=\"" + lab.id(2) + "\"]";
  assert.equal(await page.$eval(dev2Box, box => box.checked), false);
  assert.equal(await page.$eval("#save-members input[value=\"" + lab.id(1) + "\"]", box => box.checked), true,
               "the device itself is ticked from the start");
  const labels = await page.$$eval("#save-members label", items => items.map(item => item.textContent.trim()).sort());
  assert.deepEqual(labels, ["dev1 (this device)", "dev2", "dev3"]);
  await click(page, dev2Box);
  await click(page, "#save");
  await shows("save-error", "Missing name in save request")(page);
  assert.equal(await page.$eval("#save-status", e => e.textContent), "");
  assert.deepEqual(await api[1].value(savedPath), before);
});

browserTest("a group saved from the page is written, shown on every tab, followed and cleared",
            { dev1: "dev1", dev2: "dev2" }, async () => {
  const page = pages.dev1;
  const second = await browser.open(origin(1) + "/#/device");
  try {
    const dev2Box = "#save-members input[value=\"" + lab.id(2) + "\"]";
    if (!(await page.$eval(dev2Box, box => box.checked)))
      await click(page, dev2Box);
    await page.bringToFront();
    await page.type("#save-name", "Living room");
    const sentAt = Date.now();
    const shownOnSecond = whenShown(second, redrawMs, () =>
      document.getElementById("saved-name").textContent === "Living room" && Date.now());
    await click(page, "#save");
    await shows("save-status", "Saved")(page);
    const saved = (await api[1].value(savedPath)).groupingPersistentGroup;
    assert.equal(saved.name, "Living room");
    assert.deepEqual([...saved.members].sort(), [lab.id(1), lab.id(2)].sort());
    assert.ok(saved.timestamp >= sentAt - 1000 && saved.timestamp <= Date.now() + 1000, "timestamp " + saved.timestamp);
    await shownOnSecond;
    for (const p of [page, second]) {
      // The tab that saved shows "Saved" from the save's answer, and the
      // group itself when the change comes through its event stream.
      await whenShown(p, redrawMs, () => !document.getElementById("saved-group").hidden
        && document.querySelectorAll("#saved-members li").length === 2 && Date.now()).catch(() => {});
      const shown = await p.evaluate(() => ({
        visible: !document.getElementById("saved-group").hidden,
        name: document.getElementById("saved-name").textContent,
        members: Array.from(document.querySelectorAll("#saved-members li"), item => item.textContent).sort(),
        time: document.getElementById("saved-time").dateTime,
      }));
      assert.deepEqual(shown, { visible: true, name: "Living room", members: ["dev1", "dev2"],
                                time: new Date(saved.timestamp).toISOString() });
    }
    assert.equal(await page.$eval("#save-error", e => e.textContent), "");
    // dev2 is in dev1's saved group, so its module joins dev1 by itself.
    // (Discovery carries the saved group, so this takes up to a period.)
    await followersViewOf("dev2", 5000)(page);
    await followedRowIs(lab.id(1))(pages.dev2);
    // Saving the device alone clears the group, and dev2 leaves again.
    await click(page, dev2Box);
    await click(page, "#save");
    await startsWith("saved-none", "No saved group (cleared ")(page);
    const cleared = (await api[1].value(savedPath)).groupingPersistentGroup;
    assert.equal(cleared.name || "", "");
    assert.deepEqual(cleared.members || [], []);
    assert.ok(cleared.timestamp >= saved.timestamp);
    assert.equal(await page.$eval("#saved-group", e => e.hidden), true);
    await transcodersViewWith([lab.id(2), lab.id(3)], 5000)(page);
    await transcodersViewWith([lab.id(1), lab.id(3)])(pages.dev2);
  } finally {
    await second.close();
  }
});

browserTest("a killed host shows the error state and its restart recovers the page", { dev1: "dev1" }, async () => {
  await ungroupAll();
  const page = pages.dev1;
  await lab.kill(1);
  await whenShown(page, 3000, () => document.getElementById("connection").dataset.state === "offline" && Date.now());
  assert.equal(await page.$eval("#connection", e => e.textContent), "Cannot reach the device; trying again…");
  assert.equal(await page.evaluate(() => document.body.classList.contains("offline")), true);
  await screenshot(shots, "a-killed-host-offline", page);
  // An activation meanwhile fails with the network error, not silently.
  await click(page, "#leave");
  await startsWith("grouping-error", "Cannot reach the device (")(page);
  await lab.restart(1);
  await whenShown(page, 5000, () => document.getElementById("connection").dataset.state === "online" && Date.now());
  assert.equal(await page.evaluate(() => document.body.classList.contains("offline")), false);
  await transcodersViewWith([lab.id(2), lab.id(3)])(page).catch(async () => {
    assert.fail("dev1's page after the restart: " + JSON.stringify(await shownList(page)));
  });
  // Live again through the new event stream, still the same page.
  const followers = followersViewOf("dev3")(page);
  await api[3].invoke(listPath + "/joinTranscoder/" + lab.id(1));
  await followers;
  assert.ok(await page.evaluate(() => window.notReloaded === true), "the page was reloaded");
  await api[3].invoke(leavePath);
  for (const p of Object.values(pages))
    assert.deepEqual(p.exceptions, []);
});
