// What the browser tests and the House benchmark do with a page: wait for
// something to show, click, take a screenshot, read the House view's groups.
import assert from "node:assert/strict";
import fs from "node:fs";
import path from "node:path";

// Polls `check` (async, returns a truthy value when done) every 50 ms, at
// most `timeoutMs`; returns that value, or fails with `what` and the last
// value (or error) seen.
export async function until(what, timeoutMs, check) {
  const deadline = Date.now() + timeoutMs;
  let last;
  for (;;) {
    try {
      last = await check();
      if (last)
        return last;
    } catch (e) {
      last = e.message;
    }
    if (Date.now() > deadline)
      assert.fail(what + " within " + timeoutMs + " ms; last seen: " + JSON.stringify(last));
    await new Promise(resolve => setTimeout(resolve, 50));
  }
}

// Waits until `predicate` (run in the page at every DOM change; it returns
// the page's Date.now() once what it waits for is shown, else false) holds,
// and returns that time. All pages run in one browser, on this machine's
// clock, so times from different pages compare. The page's own policy
// forbids eval, so each predicate is a plain function that puppeteer runs
// as it is.
export async function whenShown(page, timeoutMs, predicate, ...args) {
  const handle = await page.waitForFunction(predicate, { polling: "mutation", timeout: timeoutMs }, ...args);
  return handle.jsonValue();
}

// Input and screenshots go to the tab in front: headless Chromium ends
// itself when a tab in the background gets them.
export async function click(page, selector, options) {
  await page.bringToFront();
  // The page redraws as events arrive: an element replaced between being
  // found and being clicked is found again (a few times at most).
  for (let attempt = 1; ; ++attempt) {
    try {
      await page.click(selector, options);
      return;
    } catch (error) {
      if (attempt >= 5 || !/detached|not clickable|No node/i.test(String(error && error.message)))
        throw error;
      await new Promise(resolve => setTimeout(resolve, 50));
    }
  }
}

// The whole page as dir/name.png.
export async function screenshot(dir, name, page) {
  fs.mkdirSync(dir, { recursive: true });
  await page.bringToFront();
  await page.screenshot({ path: path.join(dir, name + ".png"), fullPage: true });
}

// House groups as [[transcoder id, [follower ids]]], each list sorted, so
// that two of them compare.
export function normalisedGroups(groups) {
  return groups.map(([t, f]) => [t, [...f].sort()]).sort((a, b) => (a[0] < b[0] ? -1 : 1));
}

// The page's Date.now() when its House view first shows exactly `groups`
// (by id) and no device of an unknown group.
export function groupsShownAt(page, groups, timeoutMs) {
  return whenShown(page, timeoutMs, expected => {
    const shown = Array.from(document.querySelectorAll("#house-groups article.group[data-id]"), card =>
      [card.dataset.id, Array.from(card.querySelectorAll("li.device[data-role=\"follower\"]"), li => li.dataset.id)
        .sort()]).sort((a, b) => (a[0] < b[0] ? -1 : 1));
    return JSON.stringify(shown) === expected && !document.querySelector("#house-groups article.unknown")
      && Date.now();
  }, JSON.stringify(normalisedGroups(groups)));
}
