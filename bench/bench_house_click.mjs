// The House view measured in the lab (scripts/bench-house): four devices,
// headless Chromium with the pages of dev1..dev4 open on the House view.
//
// 1. Idle cost: dev4's page alone is open (its event stream connected) and
//    dev1..dev3 have none; every host's CPU (utime + stime of
//    /proc/PID/stat over the interval) and RSS (VmRSS) over --idle-s seconds,
//    all four at once, so that they share the machine's load.
// 2. Add rooms: from dev4's page, "Add rooms" on dev1's group, dev2 ticked,
//    confirmed; from the click (the page's own clock) to
//    - dev2's host reporting its own /grouping/members row following dev1
//      (dev2's event stream, read by this process),
//    - dev4's host reporting dev2's /system/house row following dev1 (dev4's
//      event stream: dev2's announcement arrived there),
//    - each page's DOM showing dev2 under dev1 (a MutationObserver in the
//      page takes the time of the change), and the last of the four.
//    The page's own requests (GET of dev2's /ui/grouping rows and the invoke,
//    both through dev4's host) are taken from its Resource Timing entries.
//    dev2 then leaves through its own API (not measured) and every page
//    shows everyone alone again before the next round.
// All pages run in one browser and this process on the same machine, so
// their Date.now() share one clock.
//
//   node bench/bench_house_click.mjs [--rounds N] [--idle-s N] [--discovery-ms N]
import { execFileSync } from "node:child_process";
import os from "node:os";
import fs from "node:fs";
import { Browser } from "../tests/browser/Browser.mjs";
import { DeviceApi, Lab } from "../tests/browser/Lab.mjs";
import { click, groupsShownAt } from "../tests/browser/PageHelpers.mjs";

const options = { rounds: 50, idleS: 60, discoveryMs: 1000 };
{
  const names = { "--rounds": "rounds", "--idle-s": "idleS", "--discovery-ms": "discoveryMs" };
  const args = process.argv.slice(2);
  for (let i = 0; i < args.length; i += 2) {
    const key = names[args[i]];
    if (!key) {
      console.error("bench_house_click: unknown option " + args[i]
                    + " (options: --rounds N, --idle-s N, --discovery-ms N)");
      process.exit(2);
    }
    if (!/^[0-9]+$/.test(args[i + 1] || "")) {
      console.error("bench_house_click: " + args[i] + " needs a whole number");
      process.exit(2);
    }
    options[key] = Number(args[i + 1]);
  }
  if (options.rounds < 1 || options.discoveryMs < 100) {
    console.error("bench_house_click: need --rounds >= 1 and --discovery-ms >= 100");
    process.exit(2);
  }
}

const why = await Lab.unavailableReason();
if (why) {
  console.error("bench_house_click: " + why);
  process.exit(1);
}

const membersPath = "/grouping/members";
const housePath = "/system/house";
const leavePath = "/ui/grouping/leave";
const all = [1, 2, 3, 4];
const lab = new Lab("b");
const browser = new Browser();
const api = {};
const pages = {};

function log(line) { console.error("bench_house_click: " + line); }

function sleep(ms) { return new Promise(resolve => setTimeout(resolve, ms)); }

// Nearest-rank percentiles, as the C++ benchmarks take them.
function stats(values) {
  const sorted = [...values].sort((a, b) => a - b);
  const rank = p => sorted[Math.min(sorted.length, Math.max(1, Math.ceil(p / 100 * sorted.length))) - 1];
  return { n: sorted.length, p50: rank(50), p95: rank(95), p99: rank(99), min: sorted[0], max: sorted[sorted.length - 1] };
}

function printHeader() {
  console.log("| " + "measure".padEnd(52) + " |     n |      p50 |      p95 |      p99 |      min |      max |    |");
  console.log("|" + "-".repeat(54) + "|-------|----------|----------|----------|----------|----------|----|");
}

function printRow(what, values, unit = "ms") {
  const s = stats(values);
  const f = v => (v === undefined ? "-" : v.toFixed(1)).padStart(8);
  console.log("| " + what.padEnd(52) + " | " + String(s.n).padStart(5) + " | " + [s.p50, s.p95, s.p99, s.min, s.max]
    .map(f).join(" | ") + " | " + unit.padEnd(2) + " |");
}

// A device's control-API event stream, read as it comes; every event keeps
// the time (Date.now()) it arrived here.
class EventReader {
  constructor(base) {
    this.url = base + "/api/v1/events";
    this.events = [];
    this.waiters = new Set();
    this.controller = new AbortController();
  }

  async open() {
    const response = await fetch(this.url, { signal: this.controller.signal, headers: { Accept: "text/event-stream" } });
    if (!response.ok)
      throw new Error(this.url + ": HTTP " + response.status);
    this.done = this.read(response.body.getReader()).catch(() => {});
  }

  async read(reader) {
    const decoder = new TextDecoder();
    let buffer = "";
    for (;;) {
      const { value, done } = await reader.read();
      if (done)
        return;
      const at = Date.now();
      buffer += decoder.decode(value, { stream: true });
      let end;
      while ((end = buffer.indexOf("\n\n")) >= 0) {
        const block = buffer.slice(0, end);
        buffer = buffer.slice(end + 2);
        let name = "message";
        const data = [];
        for (const line of block.split("\n")) {
          if (line.startsWith("event:"))
            name = line.slice(6).trim();
          else if (line.startsWith("data:"))
            data.push(line.slice(5).trimStart());
        }
        if (!data.length)
          continue;
        let parsed;
        try {
          parsed = JSON.parse(data.join("\n"));
        } catch {
          continue;
        }
        this.events.push({ name, data: parsed, at });
        for (const waiter of this.waiters)
          waiter();
      }
    }
  }

  // The arrival time of the first event from index `from` on that `match`
  // accepts; rejects after `timeoutMs`.
  waitFor(from, timeoutMs, what, match) {
    return new Promise((resolve, reject) => {
      const check = () => {
        for (let i = from; i < this.events.length; ++i) {
          if (match(this.events[i])) {
            clearTimeout(timer);
            this.waiters.delete(check);
            resolve(this.events[i].at);
            return;
          }
        }
        from = this.events.length;
      };
      const timer = setTimeout(() => { this.waiters.delete(check); reject(new Error(what + " within " + timeoutMs + " ms")); },
                               timeoutMs);
      this.waiters.add(check);
      check();
    });
  }

  close() { this.controller.abort(); }
}

// A rows event of `path` whose new row `id` follows `master`; `follows`
// reads the master from the row's value.
function rowFollows(path, id, master, follows) {
  return event => event.name === "rows" && event.data.path === path && event.data.new
    && event.data.new.id === id && follows(event.data.new.value) === master;
}
const memberMaster = value => value && value.groupingMember && value.groupingMember.master
  && value.groupingMember.master.id;
const houseMaster = value => value && value.houseMember && value.houseMember.master;

function card(n) { return "#house-groups article.group[data-id=\"" + lab.id(n) + "\"]"; }

function everyoneAlone() { return all.map(n => [lab.id(n), []]); }

// utime + stime in clock ticks and VmRSS in KiB of a process.
function processUse(pid) {
  const stat = fs.readFileSync("/proc/" + pid + "/stat", "utf8");
  const fields = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
  const status = fs.readFileSync("/proc/" + pid + "/status", "utf8");
  const kb = key => Number((status.match(new RegExp("^" + key + ":\\s+(\\d+) kB", "m")) || [])[1]);
  return { ticks: Number(fields[11]) + Number(fields[12]), rssKb: kb("VmRSS"), hwmKb: kb("VmHWM") };
}

// The kernel's clock ticks per second, in which /proc/PID/stat counts.
function clockTicks() {
  return Number(execFileSync("getconf", ["CLK_TCK"], { encoding: "utf8" }).trim());
}

function machine() {
  const cpus = os.cpus();
  return (cpus.length ? cpus[0].model : "unknown CPU") + ", " + cpus.length + " cores";
}

function loadAverage() { return os.loadavg().map(v => v.toFixed(2)).join(" "); }

async function idleCost(ticksPerSecond) {
  log("idle: only dev4's page open, watching every host for " + options.idleS + " s");
  const pids = Object.fromEntries(all.map(n => [n, lab.device(n).pid]));
  // Let the page's first reads and the hosts' start settle.
  await sleep(3000);
  const before = Object.fromEntries(all.map(n => [n, processUse(pids[n])]));
  const start = process.hrtime.bigint();
  await sleep(options.idleS * 1000);
  const wallS = Number(process.hrtime.bigint() - start) / 1e9;
  const after = Object.fromEntries(all.map(n => [n, processUse(pids[n])]));
  return all.map(n => ({
    n,
    page: n === 4,
    cpuPercent: 100 * (after[n].ticks - before[n].ticks) / ticksPerSecond / wallS,
    rssKb: after[n].rssKb,
    hwmKb: after[n].hwmKb,
    wallS,
  }));
}

async function clickRound(readers) {
  const page = pages[4];
  const grouped = [[lab.id(1), [lab.id(2)]], [lab.id(3), []], [lab.id(4), []]];
  await click(page, card(1) + " button[data-action=\"add\"]");
  await click(page, "form.add-rooms input[value=\"" + lab.id(2) + "\"]");
  const shown = all.map(n => groupsShownAt(pages[n], grouped, 10000));
  const from2 = readers[2].events.length;
  const from4 = readers[4].events.length;
  const followed = readers[2].waitFor(from2, 10000, "dev2's own row following dev1",
                                      rowFollows(membersPath, lab.id(2), lab.id(1), memberMaster));
  const housed = readers[4].waitFor(from4, 10000, "dev2's house row on dev4 following dev1",
                                    rowFollows(housePath, lab.id(2), lab.id(1), houseMaster));
  const seq = await page.evaluate(() => {
    performance.clearResourceTimings();
    window.benchClickAt = null;
    return Number(document.getElementById("house-report").dataset.seq || 0);
  });
  await click(page, "form.add-rooms button[type=\"submit\"]");
  const [shownTimes, followedAt, housedAt] = await Promise.all([Promise.all(shown), followed, housed]);
  // The action's own end: the page's result for dev2 written.
  const finishedAt = await page.waitForFunction(seq => {
    const report = document.getElementById("house-report");
    return Number(report.dataset.seq || 0) > seq && document.getElementById("house-summary").dataset.state !== "running"
      && Number(report.dataset.finishedAt);
  }, { polling: "mutation", timeout: 10000 }, seq).then(h => h.jsonValue());
  const page4 = await page.evaluate(id => {
    const entries = performance.getEntriesByType("resource").map(e => ({
      name: e.name, start: performance.timeOrigin + e.startTime, end: performance.timeOrigin + e.responseEnd }));
    const one = part => entries.find(e => e.name.includes("/api/v1/devices/" + id + "/" + part));
    return { clickAt: window.benchClickAt, rows: one("rows"), invoke: one("invoke"),
             summary: document.getElementById("house-summary").textContent };
  }, lab.id(2));
  if (page4.summary !== "Done")
    throw new Error("dev4's page did not say Done: " + page4.summary);
  if (!page4.clickAt || !page4.rows || !page4.invoke)
    throw new Error("dev4's page did not record its click or its requests: " + JSON.stringify(page4));
  const t0 = page4.clickAt;
  const result = {
    rowsStart: page4.rows.start - t0,
    rowsEnd: page4.rows.end - t0,
    invokeStart: page4.invoke.start - t0,
    invokeEnd: page4.invoke.end - t0,
    followed: followedAt - t0,
    housed: housedAt - t0,
    pages: shownTimes.map(at => at - t0),
    finished: finishedAt - t0,
  };
  // Back to everyone alone, not measured.
  await api[2].invoke(leavePath);
  await Promise.all(all.map(n => groupsShownAt(pages[n], everyoneAlone(), 10000)));
  return result;
}

async function main() {
  const ticksPerSecond = clockTicks();
  log("bringing up 4 devices (" + lab.name + "), load average " + loadAverage());
  await lab.up(4, ["--resend-ms", "1000", "--timeout-ms", "5000", "--discovery-ms", String(options.discoveryMs)]);
  for (const n of all)
    api[n] = new DeviceApi(lab.api(n));
  await browser.launch();

  pages[4] = await browser.open(lab.api(4) + "/", { width: 1366, height: 800 });
  await groupsShownAt(pages[4], everyoneAlone(), 10000);
  const loadBeforeIdle = loadAverage();
  const idle = options.idleS > 0 ? await idleCost(ticksPerSecond) : [];
  const loadAfterIdle = loadAverage();

  for (const n of [1, 2, 3])
    pages[n] = await browser.open(lab.api(n) + "/", { width: 1366, height: 800 });
  for (const n of all)
    await groupsShownAt(pages[n], everyoneAlone(), 10000);
  await pages[4].evaluate(() => {
    document.addEventListener("click", event => {
      if (event.target.closest("form.add-rooms button[type=\"submit\"]"))
        window.benchClickAt = Date.now();
    }, true);
  });
  const readers = { 2: new EventReader(lab.api(2)), 4: new EventReader(lab.api(4)) };
  await readers[2].open();
  await readers[4].open();

  const loadBeforeClicks = loadAverage();
  log(options.rounds + " Add rooms rounds from dev4's page, load average " + loadBeforeClicks);
  const rounds = [];
  for (let round = 0; round < options.rounds; ++round) {
    rounds.push(await clickRound(readers));
    if ((round + 1) % 10 === 0)
      log("  " + (round + 1) + " rounds");
  }
  const loadAfterClicks = loadAverage();
  readers[2].close();
  readers[4].close();
  for (const page of Object.values(pages))
    if (page.exceptions.length)
      throw new Error(page.url() + " threw: " + page.exceptions.join("; "));

  console.log("\nHouse view benchmark: 4 devices; resend 1000 ms, time-out 5000 ms, discovery " + options.discoveryMs
              + " ms; " + machine() + "; " + new Date().toISOString() + "\n");
  console.log("Add rooms on dev1's group from dev4's page, dev2 ticked, " + options.rounds
              + " rounds; from the click (load average " + loadBeforeClicks + " before, " + loadAfterClicks
              + " after):\n");
  printHeader();
  const column = key => rounds.map(r => r[key]);
  printRow("dev4's page: GET dev2's /ui/grouping rows answered", column("rowsEnd"));
  printRow("dev4's page: invoke of dev2's join node sent", column("invokeStart"));
  printRow("dev4's page: invoke answered", column("invokeEnd"));
  printRow("(a) dev2's own /grouping/members row follows dev1", column("followed"));
  printRow("(a') dev2's /system/house row on dev4 follows dev1", column("housed"));
  for (const n of all)
    printRow("(b) dev" + n + "'s page shows dev2 under dev1", rounds.map(r => r.pages[n - 1]));
  printRow("(b) every page shows dev2 under dev1 (the last)", rounds.map(r => Math.max(...r.pages)));
  printRow("dev4's page: action done (result written)", column("finished"));
  if (idle.length) {
    console.log("\nIdle, " + idle[0].wallS.toFixed(0) + " s, only dev4's House view page open (load average "
                + loadBeforeIdle + " before, " + loadAfterIdle + " after):\n");
    for (const host of idle)
      console.log("dev" + host.n + (host.page ? " (page open)   " : " (no page open)") + ": CPU "
                  + host.cpuPercent.toFixed(3) + " % of one core, RSS " + (host.rssKb / 1024).toFixed(1)
                  + " MiB (peak " + (host.hwmKb / 1024).toFixed(1) + " MiB)");
  }
}

let failed = false;
try {
  await main();
} catch (e) {
  failed = true;
  console.error("bench_house_click: " + (e && e.stack || e));
  for (const n of all)
    if (lab.status)
      console.error("--- dev" + n + " log, last lines ---\n" + lab.logTail(n, 15));
} finally {
  await browser.close().catch(() => {});
  await lab.down().catch(e => console.error("bench_house_click: " + e.message));
}
process.exit(failed ? 1 : 0);
