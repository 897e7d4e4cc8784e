// "House": every device on the LAN, arranged by group, as this device's host
// knows them (/system/house, kept live by the event stream). Whatever the
// page does to a device goes through that device's own module nodes, so
// every refusal of its module reaches the user with the device's name.
import { $, el, setBusy } from "./dom.js";
import { ApiError, NetworkError, TimeoutError, deviceApi, inPool, maxDeviceRequests } from "./api.js";
import { loader } from "./connection.js";

const paths = {
  house: "/system/house",
  list: "/ui/grouping",
  leave: "/ui/grouping/leave",
  save: "/grouping/persistentGroup/save",
  deviceName: "/settings/device/name",
};

const followersTitle = "List of followers";
// How long a change may take to show in this host's house list before the
// page calls it timed out (another device's change arrives with its next
// announcement).
const settleMs = 3000;

const model = { ownId: null, house: new Map(), loaded: false };
// At most one editor is open at a time: { kind: "add" | "save" | "rename",
// id, ticked (add), text (save, rename) }. It is state, not DOM, so a redraw
// while the user is choosing keeps the choice.
let editor = null;
// The group chosen in each device's "Move to" select, kept across redraws.
const moveChoice = new Map();
// What the last action did, device by device; `seq` counts the actions.
let report = null;
let reportSeq = 0;
let runningActions = 0;
// Checks waiting for the house list to show something (see settled()).
const waiters = new Set();

export function startHouseView() {
  loader("house", async () => {
    const answer = await deviceApi(null).rows(paths.house);
    const house = new Map();
    for (const row of answer.rows || []) {
      const member = row.value && row.value.houseMember;
      if (member && member.id)
        house.set(member.id, member);
    }
    model.house = house;
    model.loaded = true;
    render();
    for (const waiter of Array.from(waiters))
      waiter.check();
  }, { rowsPaths: [paths.house] });
}

export function setOwnDevice(host) {
  if (model.ownId === host.id)
    return;
  model.ownId = host.id;
  render();
}

function nameOf(id) {
  const member = model.house.get(id);
  return member ? member.name || member.id : id;
}

function api(id) { return deviceApi(id, model.ownId); }

// Another device's host is reached only when its control API listens on an
// address other devices reach; this device is always reached directly.
function reachable(member) {
  return member.id === model.ownId || Boolean(member.api);
}

// The house arranged by group: each transcoder with its followers, and the
// devices whose group this host cannot tell (no master yet, or one that is
// not on the LAN any more).
function groups() {
  const members = Array.from(model.house.values());
  const byName = (a, b) => (a.name || a.id).localeCompare(b.name || b.id) || a.id.localeCompare(b.id);
  const transcoders = members.filter(m => m.transcoder).sort(byName);
  const list = transcoders.map(t => ({
    transcoder: t,
    followers: members.filter(m => !m.transcoder && m.master === t.id).sort(byName),
  }));
  const placed = new Set(list.flatMap(g => [g.transcoder.id, ...g.followers.map(f => f.id)]));
  const unknown = members.filter(m => !placed.has(m.id)).sort(byName);
  // Groups first, then the devices on their own, each by name: a stable
  // order, so a card does not jump while the user reaches for it.
  list.sort((a, b) => (b.followers.length > 0) - (a.followers.length > 0) || byName(a.transcoder, b.transcoder));
  return { list, unknown };
}

// ---- Drawing -------------------------------------------------------------

function render() {
  const container = $("house-groups");
  if (!container)
    return;
  const active = document.activeElement;
  const focusKey = active && container.contains(active) ? active.dataset.key : null;
  const selection = focusKey && active.type === "text" ? [active.selectionStart, active.selectionEnd] : null;

  $("house-empty").hidden = !model.loaded || model.house.size > 0;
  const { list, unknown } = groups();
  // What every card shows besides its own devices: names (of masters and
  // saved members) and the groups a device can move to.
  const shared = JSON.stringify([model.ownId, Array.from(model.house.values(), m => [m.id, m.name, m.transcoder])]);
  const wanted = list.map(group => ({
    key: "card:" + group.transcoder.id,
    shown: JSON.stringify([shared, group, editorOf([group.transcoder, ...group.followers], group.transcoder.id)]),
    build: () => groupCard(group),
  }));
  if (unknown.length)
    wanted.push({ key: "card:?", shown: JSON.stringify([shared, unknown, editorOf(unknown, null)]),
                  build: () => unknownCard(unknown) });
  // A card whose content did not change keeps its element, so a redraw
  // for another group neither moves the focus nor takes away the button
  // a user is pressing.
  const kept = new Map(Array.from(container.children, card => [card.dataset.card, card]));
  wanted.forEach((want, index) => {
    let card = kept.get(want.key);
    if (card && card.dataset.shown === want.shown) {
      kept.delete(want.key);
    } else {
      card = want.build();
      card.dataset.card = want.key;
      card.dataset.shown = want.shown;
    }
    if (container.children[index] !== card)
      container.insertBefore(card, container.children[index] || null);
  });
  for (const gone of kept.values())
    gone.remove();

  // A card that was rebuilt gives the control the user was on the focus
  // back (and a text field its caret), so typing goes on.
  if (focusKey && !container.contains(document.activeElement)) {
    const again = container.querySelector("[data-key=\"" + CSS.escape(focusKey) + "\"]");
    if (again) {
      again.focus();
      if (selection)
        again.setSelectionRange(selection[0], selection[1]);
    }
  }
  renderReport();
}

// Which editor is open in a card of `members` (transcoder: the card's
// own), as far as it changes the card's elements; what is typed or ticked
// lives in the elements and in `editor`.
function editorOf(members, transcoderId) {
  if (!editor)
    return null;
  if (editor.kind === "rename" ? !members.some(m => m.id === editor.id) : editor.id !== transcoderId)
    return null;
  // "Add rooms" says where each other device is now.
  if (editor.kind === "add")
    return [editor.kind, editor.id, Array.from(model.house.values(), m => [m.id, m.master, Boolean(m.api)])];
  return [editor.kind, editor.id];
}

let labelCounter = 0;
function uniqueId(prefix) { return prefix + "-" + ++labelCounter; }

function button(text, key, onClick, ariaLabel) {
  const b = el("button", text);
  b.type = "button";
  b.dataset.key = key;
  b.dataset.action = key.split(":")[0];
  if (ariaLabel)
    b.setAttribute("aria-label", ariaLabel);
  b.addEventListener("click", onClick);
  return b;
}

function groupCard({ transcoder, followers }) {
  const card = el("article", null, "group");
  card.dataset.id = transcoder.id;
  const titleId = uniqueId("group");
  card.setAttribute("aria-labelledby", titleId);
  const title = el("h3", followers.length ? "Group of " + nameOf(transcoder.id) : nameOf(transcoder.id));
  title.id = titleId;
  card.append(title);
  card.append(el("p", followers.length ? (followers.length + 1) + " devices" : "On its own", "group-kind"));

  const devices = el("ul", null, "devices");
  devices.append(deviceItem(transcoder, "transcoder"));
  for (const follower of followers)
    devices.append(deviceItem(follower, "follower"));
  card.append(devices);

  const tName = nameOf(transcoder.id);
  const actions = el("div", null, "actions");
  actions.append(button("Add rooms", "add:" + transcoder.id, () => openEditor("add", transcoder.id),
                        "Add rooms to " + tName));
  if (followers.length)
    actions.append(button("Ungroup", "ungroup:" + transcoder.id, () => ungroup(transcoder.id), "Ungroup " + tName));
  actions.append(button("Save group", "save:" + transcoder.id, () => openEditor("save", transcoder.id),
                        "Save the group of " + tName));
  card.append(actions);

  if (editor && editor.id === transcoder.id && editor.kind === "add")
    card.append(addRoomsEditor(transcoder, followers));
  if (editor && editor.id === transcoder.id && editor.kind === "save")
    card.append(saveEditor(transcoder, followers));
  return card;
}

function unknownCard(members) {
  const card = el("article", null, "group unknown");
  const titleId = uniqueId("group");
  card.setAttribute("aria-labelledby", titleId);
  const title = el("h3", "Group not known here");
  title.id = titleId;
  card.append(title);
  const devices = el("ul", null, "devices");
  for (const member of members)
    devices.append(deviceItem(member, "unknown"));
  card.append(devices);
  return card;
}

function deviceItem(member, role) {
  const item = el("li", null, "device");
  item.dataset.id = member.id;
  item.dataset.role = role;
  const line = el("p", null, "line");
  line.append(el("span", nameOf(member.id), "name"));
  const tags = [];
  if (member.id === model.ownId)
    tags.push(["this device", "own"]);
  if (role === "transcoder")
    tags.push(["transcoder", "role"]);
  else if (role === "follower")
    tags.push(["follows " + nameOf(member.master), "role"]);
  else if (member.master)
    tags.push(["follows " + member.master + ", not on this network", "role"]);
  else
    tags.push(["group not announced yet", "role"]);
  if (!reachable(member))
    tags.push(["unreachable from here", "unreachable"]);
  for (const [text, kind] of tags)
    line.append(el("span", text, "tag " + kind));
  item.append(line);
  item.append(savedLine(member));

  const actions = el("div", null, "device-actions");
  const dName = nameOf(member.id);
  actions.append(button("Rename", "rename:" + member.id, () => openEditor("rename", member.id), "Rename " + dName));
  actions.append(moveControl(member, role));
  item.append(actions);
  if (editor && editor.kind === "rename" && editor.id === member.id)
    item.append(renameEditor(member));
  return item;
}

function savedLine(member) {
  const group = member.savedGroup || {};
  const ids = group.members || [];
  const line = el("p", null, "saved");
  if (!group.name && ids.length === 0) {
    line.textContent = "No saved group";
    line.classList.add("none");
    return line;
  }
  line.append("Saved group ");
  line.append(el("strong", group.name || "(no name)", "saved-name"));
  if (ids.length) {
    const names = ids.map(id => model.house.has(id) ? nameOf(id) : id + " (not on this network)");
    line.append(": ", el("span", names.join(", "), "saved-members"));
  }
  if (group.timestamp) {
    const when = new Date(group.timestamp);
    const time = el("time", when.toLocaleString());
    time.dateTime = when.toISOString();
    line.append(", saved ", time);
  }
  return line;
}

// "Move to": another transcoder's group, or on its own for a follower.
function moveControl(member, role) {
  const box = el("span", null, "move");
  const select = el("select");
  select.id = uniqueId("move");
  select.dataset.key = "move-to:" + member.id;
  const label = el("label", "Move " + nameOf(member.id) + " to", "visually-hidden");
  label.htmlFor = select.id;
  select.append(new Option("Move to…", ""));
  for (const t of Array.from(model.house.values()).filter(m => m.transcoder && m.id !== member.id && m.id !== member.master)
    .sort((a, b) => nameOf(a.id).localeCompare(nameOf(b.id))))
    select.append(new Option("Group of " + nameOf(t.id), t.id));
  if (role === "follower")
    select.append(new Option("On its own", member.id));
  const chosen = moveChoice.get(member.id);
  if (chosen && Array.from(select.options).some(o => o.value === chosen))
    select.value = chosen;
  select.addEventListener("change", () => moveChoice.set(member.id, select.value));
  const go = button("Move", "move:" + member.id, () => move(member.id, select.value), "Move " + nameOf(member.id));
  box.append(label, select, go);
  return box;
}

function addRoomsEditor(transcoder, followers) {
  const form = el("form", null, "editor add-rooms");
  form.dataset.id = transcoder.id;
  const fieldset = el("fieldset");
  fieldset.append(el("legend", "Rooms in the group of " + nameOf(transcoder.id)));
  const list = el("ul");
  const others = Array.from(model.house.values()).filter(m => m.id !== transcoder.id)
    .sort((a, b) => nameOf(a.id).localeCompare(nameOf(b.id)));
  for (const member of others) {
    const item = el("li");
    const label = el("label");
    const box = el("input");
    box.type = "checkbox";
    box.value = member.id;
    box.dataset.key = "add-box:" + transcoder.id + ":" + member.id;
    box.checked = editor.ticked.has(member.id);
    box.addEventListener("change", () => {
      if (box.checked)
        editor.ticked.add(member.id);
      else
        editor.ticked.delete(member.id);
    });
    let where;
    if (!member.transcoder && member.master === transcoder.id)
      where = "in this group";
    else if (member.transcoder)
      where = followerCount(member.id) ? "has followers" : "on its own";
    else if (member.master && model.house.has(member.master))
      where = "in the group of " + nameOf(member.master);
    else
      where = "group not known here";
    if (!reachable(member))
      where += (where ? ", " : "") + "unreachable from here";
    label.append(box, " " + nameOf(member.id) + (where ? " (" + where + ")" : ""));
    item.append(label);
    list.append(item);
  }
  fieldset.append(list);
  form.append(fieldset);
  const actions = el("div", null, "actions");
  const apply = el("button", "Apply");
  apply.type = "submit";
  apply.dataset.key = "add-apply:" + transcoder.id;
  apply.dataset.action = "add-apply";
  actions.append(apply, button("Cancel", "add-cancel:" + transcoder.id, closeEditor));
  form.append(actions);
  form.addEventListener("submit", event => {
    event.preventDefault();
    applyRooms(transcoder.id, new Set(editor.ticked));
  });
  return form;
}

function followerCount(id) {
  let n = 0;
  for (const m of model.house.values())
    if (!m.transcoder && m.master === id)
      ++n;
  return n;
}

function textEditor(kind, member, labelText, submitText) {
  const form = el("form", null, "editor " + kind);
  form.dataset.id = member.id;
  const input = el("input");
  input.type = "text";
  input.id = uniqueId(kind);
  input.autocomplete = "off";
  input.dataset.key = kind + "-input:" + member.id;
  input.value = editor.text;
  input.addEventListener("input", () => { editor.text = input.value; });
  const label = el("label", labelText);
  label.htmlFor = input.id;
  const actions = el("div", null, "actions");
  const submit = el("button", submitText);
  submit.type = "submit";
  submit.dataset.key = kind + "-apply:" + member.id;
  submit.dataset.action = kind + "-apply";
  actions.append(submit, button("Cancel", kind + "-cancel:" + member.id, closeEditor));
  form.append(label, input, actions);
  return form;
}

function renameEditor(member) {
  const form = textEditor("rename", member, "New name for " + nameOf(member.id), "Rename");
  form.addEventListener("submit", event => {
    event.preventDefault();
    rename(member.id, editor.text);
  });
  return form;
}

function saveEditor(transcoder, followers) {
  const names = [transcoder, ...followers].map(m => nameOf(m.id)).join(", ");
  const form = textEditor("save", transcoder, "Save " + names + " as", "Save");
  form.addEventListener("submit", event => {
    event.preventDefault();
    saveGroup(transcoder.id, editor.text);
  });
  return form;
}

function openEditor(kind, id) {
  const member = model.house.get(id);
  if (!member)
    return;
  if (kind === "add") {
    const ticked = new Set(Array.from(model.house.values())
      .filter(m => !m.transcoder && m.master === id).map(m => m.id));
    editor = { kind, id, ticked };
  } else if (kind === "rename") {
    editor = { kind, id, text: member.name || "" };
  } else {
    editor = { kind, id, text: (member.savedGroup && member.savedGroup.name) || "" };
  }
  render();
  const first = document.querySelector("#house-groups form.editor input");
  if (first)
    first.focus();
}

function closeEditor() {
  const key = editor ? (editor.kind + ":" + editor.id) : null;
  editor = null;
  render();
  const back = key && document.querySelector("#house-groups [data-key=\"" + CSS.escape(key) + "\"]");
  if (back)
    back.focus();
}

function renderReport() {
  const box = $("house-report");
  if (!report) {
    box.hidden = true;
    return;
  }
  box.hidden = false;
  box.dataset.seq = report.seq;
  // When the action finished (every device answered or timed out), for
  // whoever measures how soon other pages show its effect.
  if (report.finishedAt)
    box.dataset.finishedAt = report.finishedAt;
  else
    delete box.dataset.finishedAt;
  $("house-report-title").textContent = report.title;
  const lines = $("house-results");
  lines.replaceChildren(...report.lines.map(line => {
    const item = el("li", line.text);
    item.dataset.id = line.id;
    item.dataset.outcome = line.outcome;
    return item;
  }));
  $("house-summary").textContent = report.summary || "";
  $("house-summary").dataset.state = report.state;
}

// ---- Actions -------------------------------------------------------------

// Resolves true once the house list shows `holds()`, false after `ms`.
function settled(holds, ms = settleMs) {
  return new Promise(resolve => {
    const waiter = {
      check() {
        if (!holds())
          return;
        clearTimeout(timer);
        waiters.delete(waiter);
        resolve(true);
      },
    };
    const timer = setTimeout(() => { waiters.delete(waiter); resolve(false); }, ms);
    waiters.add(waiter);
    waiter.check();
  });
}

const good = new Set(["joined", "left", "renamed", "saved", "unchanged"]);

// A failed request as a result line naming the device.
function failure(id, error) {
  const name = nameOf(id);
  if (error instanceof ApiError && error.name === "DeviceUnreachable")
    return { id, outcome: "unreachable", text: name + ": unreachable (" + error.message + ")" };
  if (error instanceof ApiError && error.name === "DeviceTimeout")
    return { id, outcome: "timeout", text: name + ": timed out (" + error.message + ")" };
  if (error instanceof ApiError && error.name === "UnknownDevice")
    return { id, outcome: "unreachable", text: name + ": not on this network any more (" + error.message + ")" };
  if (error instanceof TimeoutError)
    return { id, outcome: "timeout", text: name + ": timed out (" + error.message + ")" };
  if (error instanceof NetworkError)
    return { id, outcome: "unreachable", text: name + ": unreachable (" + error.message + ")" };
  if (error instanceof ApiError && error.name === "TooManyForwards")
    return { id, outcome: "refused", text: name + ": not sent (" + error.message + ")" };
  return { id, outcome: "refused", text: name + " refused: " + error.message };
}

function unreachableLine(id) {
  return { id, outcome: "unreachable",
           text: nameOf(id) + ": unreachable from here (its control API listens only on its own loopback)" };
}

// The result line of device `id` when this page cannot ask it at all,
// else null.
function unaskable(id) {
  const member = model.house.get(id);
  if (!member)
    return { id, outcome: "unreachable", text: nameOf(id) + ": not on this network any more" };
  return reachable(member) ? null : unreachableLine(id);
}

// Invokes `path` on device `id`, then waits until the house list shows
// `holds()`: `done` is the result line then, else a time-out saying
// `timedOut`.
async function invokeAndSettle(id, path, holds, done, timedOut) {
  try {
    await api(id).invoke(path);
  } catch (e) {
    return failure(id, e);
  }
  if (await settled(holds))
    return done;
  return { id, outcome: "timeout", text: timedOut };
}

async function join(id, transcoderId) {
  const name = nameOf(id);
  const tName = nameOf(transcoderId);
  const cannot = unaskable(id);
  if (cannot)
    return cannot;
  let list;
  try {
    list = await api(id).rows(paths.list);
  } catch (e) {
    return failure(id, e);
  }
  const rows = list.rows || [];
  const row = rows.find(r => r.id === transcoderId && r.path);
  if (row && row.path === paths.leave)
    return { id, outcome: "unchanged", text: name + ": already in the group of " + tName };
  if (!row) {
    // The module offers no join: in its followers view it says why in a
    // notice row; otherwise the transcoder is simply not in its list.
    const notice = rows.find(r => !r.path);
    const reason = list.title === followersTitle && notice ? notice.title
      : notice ? notice.title : tName + " is not in its list of " + (list.title || "transcoders");
    return { id, outcome: "refused", text: name + " refused: " + reason };
  }
  return invokeAndSettle(id, row.path, () => (model.house.get(id) || {}).master === transcoderId,
                         { id, outcome: "joined", text: name + " joined the group of " + tName },
                         name + " did not join " + tName + " (timed out)");
}

async function leave(id, transcoderId) {
  const name = nameOf(id);
  const tName = nameOf(transcoderId);
  const cannot = unaskable(id);
  if (cannot)
    return cannot;
  return invokeAndSettle(id, paths.leave, () => { const m = model.house.get(id); return m && m.master !== transcoderId; },
                         { id, outcome: "left", text: name + " left the group of " + tName },
                         name + " did not leave " + tName + " (timed out)");
}

// Runs one action over several devices (at most maxDeviceRequests at once)
// and reports each device's own outcome as it comes; the summary says
// "done" only when every device did what was asked.
async function act(title, jobs) {
  report = { seq: ++reportSeq, title, lines: [], state: "running", summary: jobs.length ? "Waiting for " + jobs.length
             + (jobs.length === 1 ? " device…" : " devices…") : "" };
  ++runningActions;
  setBusy($("house"), true);
  $("house-status").textContent = title + "…";
  renderReport();
  $("house-report").scrollIntoView({ block: "nearest" });
  // An editor that closed took the focus with it; it goes to the report,
  // which is what the user waits for.
  if (!document.activeElement || document.activeElement === document.body)
    $("house-report-title").focus();
  try {
    const results = await inPool(jobs, maxDeviceRequests, async job => {
      const line = await job();
      report.lines.push(line);
      renderReport();
      return line;
    });
    const failed = results.filter(line => !good.has(line.outcome));
    if (jobs.length === 0) {
      report.summary = "Nothing to change";
      report.state = "done";
    } else if (failed.length === 0) {
      report.summary = jobs.length === 1 ? "Done" : "Done on all " + jobs.length + " devices";
      report.state = "done";
    } else {
      report.summary = (jobs.length - failed.length) + " of " + jobs.length + " done; not done on "
        + failed.map(line => nameOf(line.id)).join(", ");
      report.state = "failed";
    }
  } finally {
    report.finishedAt = Date.now();
    if (--runningActions === 0) {
      setBusy($("house"), false);
      $("house-status").textContent = "";
    }
    renderReport();
  }
}

function applyRooms(transcoderId, ticked) {
  editor = null;
  const jobs = [];
  for (const member of model.house.values()) {
    if (member.id === transcoderId)
      continue;
    const follows = !member.transcoder && member.master === transcoderId;
    if (ticked.has(member.id) && !follows)
      jobs.push(() => join(member.id, transcoderId));
    else if (!ticked.has(member.id) && follows)
      jobs.push(() => leave(member.id, transcoderId));
  }
  render();
  return act("Rooms of the group of " + nameOf(transcoderId), jobs);
}

function ungroup(transcoderId) {
  const followers = Array.from(model.house.values()).filter(m => !m.transcoder && m.master === transcoderId);
  return act("Ungroup " + nameOf(transcoderId), followers.map(m => () => leave(m.id, m.master)));
}

function move(id, target) {
  const member = model.house.get(id);
  if (!member || !target)
    return undefined;
  moveChoice.delete(id);
  if (target === id)
    return act("Move " + nameOf(id) + " on its own", [() => leave(id, member.master)]);
  return act("Move " + nameOf(id) + " to the group of " + nameOf(target), [() => join(id, target)]);
}

async function rename(id, name) {
  const before = nameOf(id);
  editor = null;
  render();
  return act("Rename " + before, [async () => {
    const member = model.house.get(id);
    if (member && !reachable(member))
      return unreachableLine(id);
    try {
      // The value shape the device page and tarvctl write: the host checks
      // the name (not empty, at most 64 characters, no control characters)
      // and its refusal is shown as it is.
      await api(id).put(paths.deviceName, { string_: name });
    } catch (e) {
      return failure(id, e);
    }
    if (await settled(() => (model.house.get(id) || {}).name === name))
      return { id, outcome: "renamed", text: before + " renamed to " + name };
    return { id, outcome: "timeout", text: before + " took the name " + name + ", but this house list did not show it "
             + "(timed out)" };
  }]);
}

function saveGroup(transcoderId, name) {
  editor = null;
  const members = [transcoderId, ...Array.from(model.house.values())
    .filter(m => !m.transcoder && m.master === transcoderId).map(m => m.id)];
  render();
  return act("Save the group of " + nameOf(transcoderId), [async () => {
    const member = model.house.get(transcoderId);
    if (member && !reachable(member))
      return unreachableLine(transcoderId);
    try {
      await api(transcoderId).invoke(paths.save, { groupingPersistentGroup: { name, members } });
    } catch (e) {
      return failure(transcoderId, e);
    }
    const shown = () => {
      const saved = (model.house.get(transcoderId) || {}).savedGroup || {};
      return (saved.name || "") === name;
    };
    const names = members.map(nameOf).join(", ");
    if (await settled(shown))
      return { id: transcoderId, outcome: "saved", text: nameOf(transcoderId) + " saved \"" + name + "\" (" + names + ")" };
    return { id: transcoderId, outcome: "timeout", text: nameOf(transcoderId) + " took \"" + name
             + "\", but this house list did not show it (timed out)" };
  }]);
}
