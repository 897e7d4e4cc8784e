// Drives scripts/lab for a lab of this test process's own (named from a
// prefix and the pid, so parallel runs never meet), and talks to its
// devices' control APIs. The lab watches this process (LAB_OWNER_PID) and
// takes itself down when it ends, even after a crash.
import { execFile } from "node:child_process";
import { promisify } from "node:util";
import fs from "node:fs";
import path from "node:path";

const run = promisify(execFile);

export const sourceDir = path.resolve(path.dirname(new URL(import.meta.url).pathname), "../..");

export class Lab {
  constructor(prefix) {
    this.name = prefix + String(process.pid % 10000000);
    this.buildDir = process.env.BUILD_DIR || path.join(sourceDir, "build");
    this.status = null;
  }

  // Why no lab can run here, or null.
  static async unavailableReason() {
    if (process.getuid() !== 0)
      return "the lab needs root (network namespaces, veth links, iptables); run the browser tests as root";
    // A namespace that cannot be made here means a container or kernel
    // without them; the probe name is unique to this process.
    const probe = "tarv-probe-" + process.pid;
    try {
      await run("ip", ["netns", "add", probe], { timeout: 10000 });
    } catch (e) {
      return "network namespaces are not available here: ip netns add: " + (e.stderr || e.message).trim();
    }
    await run("ip", ["netns", "del", probe], { timeout: 10000 }).catch(() => {});
    return null;
  }

  async script(args, timeoutMs = 90000) {
    const env = { ...process.env, LAB_NAME: this.name, BUILD_DIR: this.buildDir, LAB_OWNER_PID: String(process.pid) };
    for (const name of ["LAB_HOST_BIN", "LAB_MODULE", "LAB_LOG_CONFIG"])
      delete env[name];
    try {
      const { stdout, stderr } = await run("bash", [path.join(sourceDir, "scripts/lab"), ...args],
                                           { env, timeout: timeoutMs, maxBuffer: 16 << 20 });
      return stdout + stderr;
    } catch (e) {
      throw new Error("scripts/lab " + args.join(" ") + " failed: " + (e.stdout || "") + (e.stderr || e.message));
    }
  }

  async up(devices, options) {
    // A lab of this name left over by a killed run goes first.
    await this.script(["down"]).catch(() => {});
    await this.script(["up", String(devices), ...options]);
    await this.refresh();
  }

  async down() {
    await this.script(["down"]);
  }

  async refresh() {
    this.status = JSON.parse(await this.script(["status", "--json"]));
  }

  device(n) { return this.status.devices[n - 1]; }
  api(n) { return this.device(n).api; }
  id(n) { return this.device(n).id; }
  name(n) { return this.device(n).name; }
  logPath(n) { return path.join(this.status.runDir, "dev" + n, "log"); }

  async kill(n) { await this.script(["kill", "dev" + n]); }
  async restart(n) { await this.script(["restart", "dev" + n]); await this.refresh(); }

  logTail(n, lines) {
    try {
      return fs.readFileSync(this.logPath(n), "utf8").split("\n").slice(-lines - 1).join("\n");
    } catch (e) {
      return "(no log: " + e.message + ")";
    }
  }
}

// The control API of one device, as any client outside a browser uses it.
export class DeviceApi {
  constructor(base) { this.base = base; }

  async call(method, endpoint, path, body) {
    const url = this.base + "/api/v1/" + endpoint + (path ? "?path=" + encodeURIComponent(path) : "");
    const response = await fetch(url, {
      method,
      body: body === undefined ? undefined : JSON.stringify(body),
      headers: body === undefined ? {} : { "Content-Type": "application/json" },
      signal: AbortSignal.timeout(10000),
    });
    const data = await response.json();
    if (!response.ok)
      throw new Error(method + " " + url + ": HTTP " + response.status + " " + JSON.stringify(data));
    return data;
  }

  rows(path) { return this.call("GET", "rows", path); }
  async value(path) { return (await this.call("GET", "value", path)).value; }
  invoke(path, body = {}) { return this.call("POST", "invoke", path, body); }

  // The transcoder device `id` follows (its own id when alone) as this
  // device's /grouping/members lists it; null when it is not listed.
  async masterOf(id) {
    const own = (await this.rows("/grouping/members")).rows.find(row => row.id === id);
    return own ? own.value.groupingMember.master.id : null;
  }
}
