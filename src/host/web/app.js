"use strict";
// The device's page: a client of the module's node tree. It draws what the
// module publishes (the list at /ui/grouping, the saved group) and activates
// the nodes the module links to; who may join whom is decided by the module,
// never here, so a second activation while one is pending is sent too and
// the module's refusal is shown. Everything that came from the network is
// inserted as text, never as HTML: device names are chosen by whoever
// announces them.

const paths = {
  list: "/ui/grouping",
  members: "/system/members",
  saved: "/settings/grouping/persistentGroup",
  save: "/grouping/persistentGroup/save",
  deviceName: "/settings/device/name",
  ownRecord: "/system/member",
};

// After a lost connection the page tries again this often; a device that
// restarts is back within a second of answering.
const reconnectMs = 1000;

const model = { host: null, list: null, members: [], saved: null };
// Devices ticked in the save form, kept across redraws of the device list.
const chosen = new Set();
let chosenInitialised = false;

function $(id) { return document.getElementById(id); }

function el(tag, text) {
  const e = document.createElement(tag);
  if (text !== undefined) e.textContent = String(text);
  return e;
}

class ApiError extends Error {
  constructor(status, error) {
    super((error && (error.message || error.title)) || ("The device answered HTTP " + status));
    this.status = status;
  }
}

class NetworkError extends Error {}

async function api(method, endpoint, path, body) {
  const url = "/api/v1/" + endpoint + (path ? "?path=" + encodeURIComponent(path) : "");
  const options = { method: method, headers: {}, cache: "no-store" };
  if (body !== undefined) {
    options.body = JSON.stringify(body);
    options.headers["Content-Type"] = "application/json";
  }
  let response;
  let data = null;
  try {
    response = await fetch(url, options);
    data = await response.json();
  } catch (e) {
    if (!response || response.ok)
      throw new NetworkError("Cannot reach the device (" + e.message + ")");
  }
  if (!response.ok)
    throw new ApiError(response.status, data && data.error);
  return data;
}

// One loader per thing shown: a request while it runs makes it run once
// more afterwards, so a burst of events costs at most two reads and the
// last read always sees the last change.
function refresher(name, load) {
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
  return { request() { if (running) again = true; else run(); } };
}

const problems = new Map();

const refreshers = {
  host: refresher("host", async () => {
    model.host = await api("GET", "host");
    renderHost();
    renderSaveForm();
    renderSaved();
  }),
  list: refresher("list", async () => {
    model.list = await api("GET", "rows", paths.list);
    renderList();
  }),
  members: refresher("members", async () => {
    model.members = (await api("GET", "rows", paths.members)).rows || [];
    renderSaveForm();
    renderSaved();
  }),
  saved: refresher("saved", async () => {
    const answer = await api("GET", "value", paths.saved);
    model.saved = (answer.value && answer.value.groupingPersistentGroup) || {};
    renderSaved();
  }),
};

// Which loader answers for a list or value path that changed.
const rowsPaths = { [paths.list]: "list", [paths.members]: "members" };
const valuePaths = { [paths.saved]: "saved", [paths.deviceName]: "host", [paths.ownRecord]: "host" };

function refreshAll() {
  for (const r of Object.values(refreshers))
    r.request();
}

// The event stream is the page's line to the device: while it is open the
// page is current; when it fails the page says so and opens a new one.
const connection = {
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
      refreshAll();
    });
    source.addEventListener("error", () => {
      if (this.source === source)
        this.lost();
    });
    source.addEventListener("rows", e => {
      const name = rowsPaths[JSON.parse(e.data).path];
      if (name)
        refreshers[name].request();
    });
    source.addEventListener("value", e => {
      const name = valuePaths[JSON.parse(e.data).path];
      if (name)
        refreshers[name].request();
    });
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

function showConnection() {
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

function renderHost() {
  const host = model.host;
  $("device-name").textContent = host.name || host.id;
  document.title = (host.name || host.id) + " · tarv-host";
  $("device-info").textContent = host.address + " · id " + host.id + " · version " + host.version;
}

// Redraws the module's list as it is: a row with a path is a button that
// activates that node, a row without one is text. A row that did not change
// keeps its element, so a redraw neither moves the keyboard focus nor takes
// away the button a user is about to press.
function renderList() {
  const list = model.list;
  $("grouping-title").textContent = list.title;
  const rows = $("grouping-rows");
  const focused = document.activeElement && rows.contains(document.activeElement)
    ? document.activeElement.closest("li").dataset.id
    : null;
  const kept = new Map(Array.from(rows.children, item => [item.dataset.id, item]));
  const wanted = list.rows || [];
  wanted.forEach((row, index) => {
    let item = kept.get(row.id);
    if (item && item.dataset.shown === rowSignature(row))
      kept.delete(row.id);
    else
      item = rowItem(row);
    if (rows.children[index] !== item)
      rows.insertBefore(item, rows.children[index] || null);
  });
  for (const gone of kept.values())
    gone.remove();
  if (focused !== null && !rows.contains(document.activeElement)) {
    const again = rows.querySelector("li[data-id=\"" + CSS.escape(focused) + "\"] button");
    if (again)
      again.focus();
  }
}

function rowSignature(row) {
  return JSON.stringify([row.type, row.title, row.path || ""]);
}

function rowItem(row) {
  const item = el("li");
  item.dataset.id = row.id;
  item.dataset.type = row.type;
  item.dataset.shown = rowSignature(row);
  if (!row.path) {
    item.classList.add("note");
    item.textContent = row.title;
    return item;
  }
  const button = el("button", row.title);
  button.type = "button";
  button.dataset.path = row.path;
  // The module links the transcoder this device follows to its leave
  // action; that row is the current one.
  if (row.path === $("leave").dataset.path) {
    item.classList.add("followed");
    button.setAttribute("aria-current", "true");
  }
  button.addEventListener("click", () => activate(row.path, row.title.trim(), button));
  item.append(button);
  return item;
}

let pendingActivations = 0;

function setBusy(section, busy) {
  if (busy)
    section.setAttribute("aria-busy", "true");
  else
    section.removeAttribute("aria-busy");
}

async function activate(path, label, button) {
  const section = $("grouping");
  $("grouping-error").textContent = "";
  ++pendingActivations;
  setBusy(section, true);
  button.setAttribute("aria-busy", "true");
  $("grouping-status").textContent = label + ": waiting for the device…";
  try {
    const answer = await api("POST", "invoke", path, {});
    // The reply names the lists the action changed; read them now rather
    // than wait for their events.
    const events = (answer.result && answer.result.events) || [];
    for (const event of events) {
      const name = rowsPaths[event.path];
      if (name)
        refreshers[name].request();
    }
  } catch (e) {
    $("grouping-error").textContent = e.message;
    if (e instanceof NetworkError)
      connection.lost();
  } finally {
    button.removeAttribute("aria-busy");
    if (--pendingActivations === 0) {
      setBusy(section, false);
      $("grouping-status").textContent = "";
    }
  }
}

function memberRecords() {
  return model.members
    .map(row => (row.value && row.value.systemMember) || null)
    .filter(member => member && member.id);
}

function renderSaveForm() {
  const list = $("save-members");
  const ownId = model.host ? model.host.id : null;
  const members = memberRecords();
  if (!chosenInitialised && ownId !== null) {
    chosen.add(ownId);
    chosenInitialised = true;
  }
  const focused = document.activeElement && list.contains(document.activeElement)
    ? document.activeElement.value
    : null;
  list.replaceChildren();
  for (const member of members) {
    const item = el("li");
    const label = el("label");
    const box = el("input");
    box.type = "checkbox";
    box.name = "members";
    box.value = member.id;
    box.checked = chosen.has(member.id);
    box.addEventListener("change", () => {
      if (box.checked)
        chosen.add(member.id);
      else
        chosen.delete(member.id);
    });
    label.append(box, " " + (member.name || member.id) + (member.id === ownId ? " (this device)" : ""));
    item.append(label);
    list.append(item);
    if (member.id === focused)
      box.focus();
  }
}

function renderSaved() {
  const group = model.saved;
  if (!group)
    return;
  const members = group.members || [];
  const empty = !group.name && members.length === 0;
  $("saved-group").hidden = empty;
  $("saved-none").hidden = !empty;
  const when = group.timestamp ? new Date(group.timestamp) : null;
  // A cleared group keeps the time it was cleared.
  $("saved-none").textContent = empty && when ? "No saved group (cleared " + when.toLocaleString() + ")" : "No saved group";
  if (empty)
    return;
  const names = new Map(memberRecords().map(member => [member.id, member.name || member.id]));
  $("saved-name").textContent = group.name;
  const list = $("saved-members");
  list.replaceChildren();
  for (const id of members) {
    const item = el("li", names.has(id) ? names.get(id) : id + " (not on the network)");
    item.dataset.id = id;
    list.append(item);
  }
  const time = $("saved-time");
  time.textContent = when ? when.toLocaleString() : "";
  time.dateTime = when ? when.toISOString() : "";
}

async function save(event) {
  event.preventDefault();
  const button = $("save");
  const form = $("save-form");
  $("save-error").textContent = "";
  $("save-status").textContent = "Saving…";
  setBusy(form, true);
  button.setAttribute("aria-busy", "true");
  const ticked = Array.from(document.querySelectorAll("#save-members input:checked"), box => box.value);
  try {
    await api("POST", "invoke", paths.save, {
      groupingPersistentGroup: { name: $("save-name").value, members: ticked },
    });
    $("save-status").textContent = "Saved";
  } catch (e) {
    $("save-status").textContent = "";
    $("save-error").textContent = e.message;
    if (e instanceof NetworkError)
      connection.lost();
  } finally {
    setBusy(form, false);
    button.removeAttribute("aria-busy");
  }
}

$("leave").addEventListener("click", () => activate($("leave").dataset.path, $("leave").textContent, $("leave")));
$("save-form").addEventListener("submit", save);
connection.open();
