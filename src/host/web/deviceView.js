// "This device": a client of the module's node tree. It draws what the
// module publishes (the list at /ui/grouping, the saved group) and activates
// the nodes the module links to; who may join whom is decided by the module,
// never here, so a second activation while one is pending is sent too and
// the module's refusal is shown.
import { $, el, setBusy } from "./dom.js";
import { api, NetworkError } from "./api.js";
import { connection, listChanged, loader } from "./connection.js";

export const paths = {
  list: "/ui/grouping",
  leave: "/ui/grouping/leave",
  members: "/system/members",
  saved: "/settings/grouping/persistentGroup",
  save: "/grouping/persistentGroup/save",
  deviceName: "/settings/device/name",
  ownRecord: "/system/member",
};

const model = { host: null, list: null, members: [], saved: null };
// Devices ticked in the save form, kept across redraws of the device list.
const chosen = new Set();
let chosenInitialised = false;

// Starts the view's loaders; `onHost(host)` hears every new read of this
// device's own record (the house view marks this device by its id).
export function startDeviceView(onHost) {
  loader("host", async () => {
    model.host = await api("GET", "host");
    renderHost();
    renderSaveForm();
    renderSaved();
    onHost(model.host);
  }, { valuePaths: [paths.deviceName, paths.ownRecord] });
  loader("list", async () => {
    model.list = await api("GET", "rows", paths.list);
    renderList();
  }, { rowsPaths: [paths.list] });
  loader("members", async () => {
    model.members = (await api("GET", "rows", paths.members)).rows || [];
    renderSaveForm();
    renderSaved();
  }, { rowsPaths: [paths.members] });
  loader("saved", async () => {
    const answer = await api("GET", "value", paths.saved);
    model.saved = (answer.value && answer.value.groupingPersistentGroup) || {};
    renderSaved();
  }, { valuePaths: [paths.saved] });

  $("leave").addEventListener("click", () => activate($("leave").dataset.path, $("leave").textContent, $("leave")));
  $("save-form").addEventListener("submit", save);
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
    for (const event of (answer.result && answer.result.events) || [])
      listChanged(event.path);
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
