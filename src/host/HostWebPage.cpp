#include "HostWebPage.h"

namespace {

// Everything that came from the network is inserted as text, never as HTML:
// device names are chosen by whoever announces them.
const char page[] = R"HTML(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>tarv-host</title>
<style>
body { font-family: sans-serif; margin: 1.5em; color: #222; }
h1 { font-size: 1.3em; } h2 { font-size: 1.1em; margin-top: 1.5em; }
table { border-collapse: collapse; } td, th { border: 1px solid #ccc; padding: 0.3em 0.6em; text-align: left; }
#status { color: #666; } #error { color: #b00; } pre { background: #f4f4f4; padding: 0.5em; max-height: 12em; overflow: auto; }
</style>
</head>
<body>
<h1>tarv-host <span id="hostName"></span></h1>
<div id="host"></div>
<p><button id="leave">Leave group</button> <span id="status"></span> <span id="error"></span></p>
<h2>Members (/system/members)</h2>
<table id="members"><thead><tr><th>name</th><th>id</th><th>host</th><th>address</th><th>transcoder</th><th></th></tr></thead><tbody></tbody></table>
<h2>Grouping members (/grouping/members)</h2>
<table id="grouping"><thead><tr><th>id</th><th>follower</th><th>master</th></tr></thead><tbody></tbody></table>
<h2>Events</h2>
<pre id="events"></pre>
<script>
"use strict";
function el(tag, text) { const e = document.createElement(tag); if (text !== undefined) e.textContent = String(text); return e; }
function showError(text) { document.getElementById("error").textContent = text || ""; }
async function api(method, url, body) {
  const options = { method: method, headers: {} };
  if (body !== undefined) { options.body = JSON.stringify(body); options.headers["Content-Type"] = "application/json"; }
  const response = await fetch(url, options);
  const data = await response.json();
  if (!response.ok) throw new Error(data.error ? data.error.message : ("HTTP " + response.status));
  return data;
}
async function loadHost() {
  const host = await api("GET", "/api/v1/host");
  document.getElementById("hostName").textContent = host.name;
  document.getElementById("host").textContent =
    "id " + host.id + " · host " + host.host + " · address " + host.address + " · request port " + host.requestPort + " · version " + host.version;
}
async function invokeGrouping(request) {
  showError("");
  try {
    await api("POST", "/api/v1/invoke?path=" + encodeURIComponent("/grouping/request"), { groupingRequest: request });
    document.getElementById("status").textContent = request.command === 1 ? "join sent" : "leave sent";
  } catch (e) { showError(e.message); }
}
async function loadMembers() {
  const data = await api("GET", "/api/v1/rows?path=" + encodeURIComponent("/system/members"));
  const body = document.querySelector("#members tbody");
  body.replaceChildren();
  for (const row of data.rows) {
    const m = (row.value && row.value.systemMember) || {};
    const tr = el("tr");
    for (const cell of [m.name, m.id, m.host, m.ipAddress, m.transcoder ? "yes" : "no"]) tr.appendChild(el("td", cell === undefined ? "" : cell));
    const td = el("td");
    if (m.transcoder) {
      const join = el("button", "Join");
      join.addEventListener("click", () => invokeGrouping({ command: 1, master: { id: m.id, name: m.name, host: m.host } }));
      td.appendChild(join);
    }
    tr.appendChild(td);
    body.appendChild(tr);
  }
  document.getElementById("status").textContent = data.loading ? "members loading…" : "";
}
async function loadGrouping() {
  const body = document.querySelector("#grouping tbody");
  body.replaceChildren();
  let data;
  try { data = await api("GET", "/api/v1/rows?path=" + encodeURIComponent("/grouping/members")); }
  catch (e) { body.appendChild(el("tr")).appendChild(el("td", "no grouping module: " + e.message)); return; }
  for (const row of data.rows) {
    const g = (row.value && row.value.groupingMember) || {};
    const tr = el("tr");
    tr.appendChild(el("td", row.id));
    tr.appendChild(el("td", g.follower ? (g.follower.name || g.follower.id) : ""));
    tr.appendChild(el("td", g.master ? (g.master.name || g.master.id) : ""));
    body.appendChild(tr);
  }
}
function refresh() {
  loadHost().catch(e => showError(e.message));
  loadMembers().catch(e => showError(e.message));
  loadGrouping();
}
document.getElementById("leave").addEventListener("click", () => invokeGrouping({ command: -1 }));
const log = document.getElementById("events");
function note(kind, data) {
  log.textContent = (new Date().toLocaleTimeString() + " " + kind + " " + data + "\n" + log.textContent).slice(0, 20000);
}
const events = new EventSource("/api/v1/events");
events.addEventListener("value", e => { note("value", e.data); const d = JSON.parse(e.data); if (d.path.startsWith("/system/member") || d.path === "/settings/device/name") loadHost().catch(() => {}); });
events.addEventListener("rows", e => {
  note("rows", e.data);
  const d = JSON.parse(e.data);
  if (d.path === "/system/members") loadMembers().catch(() => {});
  if (d.path === "/grouping/members") loadGrouping();
});
refresh();
</script>
</body>
</html>
)HTML";

} // namespace

std::string HostWebPage::html()
{
    return std::string(page, sizeof(page) - 1);
}
