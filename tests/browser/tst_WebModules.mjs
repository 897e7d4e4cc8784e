// The web page's modules that need no browser, under node: the pool that
// keeps a multi-device action to at most 4 device requests at once.
import { test } from "node:test";
import assert from "node:assert/strict";
import { inPool, maxDeviceRequests } from "../../src/host/web/api.js";

function tick(ms) { return new Promise(resolve => setTimeout(resolve, ms)); }

test("a pool runs at most its limit at once and keeps the items' order", async () => {
  let running = 0;
  let most = 0;
  const items = Array.from({ length: 11 }, (_, i) => i);
  const results = await inPool(items, maxDeviceRequests, async item => {
    most = Math.max(most, ++running);
    // Later items finish sooner, so results come back out of order.
    await tick(5 + (items.length - item) * 2);
    --running;
    return "r" + item;
  });
  assert.equal(maxDeviceRequests, 4);
  assert.equal(most, 4);
  assert.deepEqual(results, items.map(i => "r" + i));
});

test("a pool with fewer items than its limit runs them all at once", async () => {
  let running = 0;
  let most = 0;
  await inPool([1, 2], 4, async () => { most = Math.max(most, ++running); await tick(10); --running; });
  assert.equal(most, 2);
});

test("a pool with nothing to do resolves to nothing", async () => {
  assert.deepEqual(await inPool([], 4, async () => assert.fail("called")), []);
});
