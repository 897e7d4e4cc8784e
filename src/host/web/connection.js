// The page's line to its device: the event stream and the loaders that read
// what the views show. While the stream is open the page is current; when it
// fails the page says so and opens a new one.
import { $ } from "./dom.js";
import { NetworkError } from "./api.js";

// After a lost connection the page tries again this often; a device that
// restarts is back within a second of answering.
const reconnectMs = 1000;

// What failed in the last read of each thing shown, by loader name.
export const problems = new Map();

const loaders = [];
const onRows = new Map();
const onValue = new Map();

// One loader per thing shown: a request while it runs makes it run once
// more afterwards, so a burst of events costs at most two reads and the
// last read always sees the last change. `rowsPaths` and `valuePaths` are
// the list and value paths whose events make it read again.
export function loader(name, load, { rowsPaths = [], valuePaths = [] } = {}) {
  let running = false;
  let again = false;
  const run = async () => {
    running = true;
    try {
      await load();
      problems.delete(name);
    } catch (e) {
      problems.set(name, e);
      if (e instanceof NetworkError)
        connection.lost();
    } finally {
      running = false;
      showConnection();
    }
    if (again) {
      again = false;
      run();
    }
  };
  const handle = { request() { if (running) again = true; else run(); } };
  loaders.push(handle);
  for (const path of rowsPaths)
    onRows.set(path, [...(onRows.get(path) || []), handle]);
  for (const path of valuePaths)
    onValue.set(path, [...(onValue.get(path) || []), handle]);
  return handle;
}

// Reads again what shows the list at `path` (an action's reply names the
// lists it changed, which need not wait for their events).
export function listChanged(path) {
  for (const handle of onRows.get(path) || [])
    handle.request();
}

function dispatch(table, event) {
  let path;
  try {
    path = JSON.parse(event.data).path;
  } catch (e) {
    return;
  }
  for (const handle of table.get(path) || [])
    handle.request();
}

export const connection = {
  source: null,
  timer: 0,
  state: "connecting",
  open() {
    clearTimeout(this.timer);
    const source = new EventSource("/api/v1/events");
    this.source = source;
    source.addEventListener("open", () => {
      if (this.source !== source)
        return;
      this.state = "online";
      problems.clear();
      showConnection();
      // Read everything after the stream is open, so no change falls
      // between the read and the first event.
      for (const handle of loaders)
        handle.request();
    });
    source.addEventListener("error", () => {
      if (this.source === source)
        this.lost();
    });
    source.addEventListener("rows", e => dispatch(onRows, e));
    source.addEventListener("value", e => dispatch(onValue, e));
  },
  lost() {
    if (this.source) {
      this.source.close();
      this.source = null;
    }
    this.state = "offline";
    showConnection();
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.open(), reconnectMs);
  },
};

export function showConnection() {
  const line = $("connection");
  document.body.classList.toggle("offline", connection.state === "offline");
  if (connection.state === "offline") {
    line.dataset.state = "offline";
    line.textContent = "Cannot reach the device; trying again…";
    return;
  }
  if (connection.state === "connecting") {
    line.dataset.state = "connecting";
    line.textContent = "Connecting to the device…";
    return;
  }
  const problem = problems.values().next().value;
  line.dataset.state = problem ? "problem" : "online";
  line.textContent = problem ? problem.message : "Connected, live";
}
