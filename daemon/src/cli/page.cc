#include "daemon/src/cli/page.h"

namespace vorn::cli {

namespace {

// Everything the page shows from the database goes in through textContent
// or attribute values set by the script, never as markup: provider and host
// names come from the wire.
constexpr const char* kPage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="vorn-stale-after" content="@STALE_AFTER@">
<title>vorn status</title>
<style>
  body { font: 13px/1.4 system-ui, sans-serif; margin: 12px; color: #1d1d1d; background: #f7f7f5; }
  header { display: flex; flex-wrap: wrap; gap: 18px; align-items: baseline; }
  h1 { font-size: 18px; margin: 0; }
  .count { font-weight: 600; }
  #error { color: #b00020; font-weight: 600; }
  .legend .r { cursor: default; }
  #grid { border-collapse: collapse; margin-top: 10px; }
  #grid th, #grid td { border: 1px solid #d8d8d4; padding: 2px 3px; text-align: center; white-space: nowrap; }
  #grid thead th { position: sticky; top: 0; background: #ecece8; font-weight: 600; }
  #grid tbody th { text-align: left; font-weight: normal; background: #f0f0ec; }
  .r { display: inline-block; min-width: 18px; padding: 0 3px; margin: 1px; border-radius: 3px;
       color: #fff; text-decoration: none; font-variant-numeric: tabular-nums; cursor: pointer; }
  .r.ok { background: #2e7d32; }
  .r.fail { background: #c62828; }
  .r.stale { background: #9e9e9e; }
  .r.fail.stale { background: repeating-linear-gradient(45deg, #c62828 0 4px, #9e9e9e 4px 8px); }
  .r.selected { outline: 2px solid #1d1d1d; }
  #detail { position: fixed; top: 0; right: 0; bottom: 0; width: min(48vw, 720px); overflow: auto;
            padding: 10px 14px; background: #fff; border-left: 1px solid #c8c8c4;
            box-shadow: -4px 0 12px rgba(0, 0, 0, 0.12); }
  #detail pre { background: #f3f3f0; padding: 6px; max-height: 40vh; overflow: auto;
                white-space: pre-wrap; word-break: break-all; }
  #detail dl { display: grid; grid-template-columns: max-content auto; gap: 2px 12px; margin: 6px 0; }
  #detail dt { color: #666; }
  #detail dd { margin: 0; }
</style>
</head>
<body>
<header>
  <h1>vorn status</h1>
  <span><span class="count" id="count-keys">0</span> results,
    <span class="count" id="count-failing">0</span> failing,
    <span class="count" id="count-stale">0</span> stale</span>
  <span class="legend"><span class="r ok">0</span> exit 0 <span class="r fail">1</span> failing
    <span class="r stale">0</span> older than <span id="stale-after"></span></span>
  <span id="updated"></span>
  <span id="error" role="alert"></span>
</header>
<table id="grid"><thead><tr><th>host</th></tr></thead><tbody></tbody></table>
<section id="detail" hidden>
  <a href="#">close</a>
  <h2 id="detail-title"></h2>
  <dl id="detail-meta"></dl>
  <h3>Standard output</h3>
  <pre id="stdout"></pre>
  <h3>Standard error</h3>
  <pre id="stderr"></pre>
</section>
<script>
"use strict";
const staleAfter = Number(document.querySelector('meta[name="vorn-stale-after"]').content);
const refreshMs = 10000;
const byName = (a, b) => a.localeCompare(b, undefined, {numeric: true});

function age(seconds) {
  if (seconds < 60) return Math.max(0, seconds) + "s";
  if (seconds < 3600) return Math.floor(seconds / 60) + "m";
  if (seconds < 86400) return Math.floor(seconds / 3600) + "h";
  return Math.floor(seconds / 86400) + "d";
}

function element(tag, props, text) {
  const e = document.createElement(tag);
  Object.assign(e, props || {});
  if (text !== undefined) e.textContent = text;
  return e;
}

function selectedRowid() {
  const m = /^#rowid=(\d+)$/.exec(location.hash);
  return m ? m[1] : null;
}

function draw(results) {
  const providers = [...new Set(results.map(r => r.provider))].sort(byName);
  const hosts = [...new Set(results.map(r => r.host))].sort(byName);
  const cells = new Map();
  for (const r of results) {
    const key = r.host + "\u0000" + r.provider;
    if (!cells.has(key)) cells.set(key, []);
    cells.get(key).push(r);
  }
  const grid = document.getElementById("grid");
  const head = element("tr");
  head.appendChild(element("th", {}, "host"));
  for (const p of providers) head.appendChild(element("th", {scope: "col"}, p));
  const body = document.createDocumentFragment();
  let failing = 0, stale = 0;
  const selected = selectedRowid();
  for (const h of hosts) {
    const row = element("tr");
    row.appendChild(element("th", {scope: "row"}, h));
    for (const p of providers) {
      const td = element("td");
      td.dataset.provider = p;
      td.dataset.host = h;
      for (const r of (cells.get(h + "\u0000" + p) || []).sort((a, b) => byName(a.option_set, b.option_set))) {
        const isStale = r.age_seconds > staleAfter;
        failing += r.exit_status !== 0;
        stale += isStale;
        const a = element("a", {href: "#rowid=" + r.rowid}, String(r.exit_status));
        a.className = "r " + (r.exit_status === 0 ? "ok" : "fail") + (isStale ? " stale" : "") +
                      (String(r.rowid) === selected ? " selected" : "");
        a.dataset.rowid = r.rowid;
        a.title = p + " on " + h + ", option set " + r.option_set + ": exit status " +
                  r.exit_status + ", " + age(r.age_seconds) + " ago\n" + r.stdout_first_line;
        td.appendChild(a);
      }
      row.appendChild(td);
    }
    body.appendChild(row);
  }
  grid.tHead.replaceChildren(head);
  grid.tBodies[0].replaceChildren(body);
  document.getElementById("count-keys").textContent = results.length;
  document.getElementById("count-failing").textContent = failing;
  document.getElementById("count-stale").textContent = stale;
}

async function refresh() {
  try {
    const response = await fetch("api/latest", {cache: "no-store"});
    if (!response.ok) throw new Error((await response.text()).trim() || response.statusText);
    const text = await response.text();
    draw(text.split("\n").filter(line => line !== "").map(line => JSON.parse(line)));
    document.getElementById("error").textContent = "";
    document.getElementById("updated").textContent = "updated " + new Date().toLocaleTimeString();
  } catch (e) {
    document.getElementById("error").textContent = "cannot read the results: " + e.message;
  }
  setTimeout(refresh, refreshMs);
}

async function showDetail() {
  const detail = document.getElementById("detail");
  const rowid = selectedRowid();
  for (const a of document.querySelectorAll(".r.selected")) a.classList.remove("selected");
  if (rowid === null) {
    detail.hidden = true;
    return;
  }
  for (const a of document.querySelectorAll('.r[data-rowid="' + rowid + '"]')) a.classList.add("selected");
  try {
    const response = await fetch("api/result?rowid=" + rowid, {cache: "no-store"});
    if (!response.ok) throw new Error((await response.text()).trim() || response.statusText);
    const r = await response.json();
    document.getElementById("detail-title").textContent = r.provider + " on " + r.host;
    const meta = [["rowid", r.rowid], ["option set", r.option_set], ["exit status", r.exit_status],
                  ["ended", new Date(r.timestamp * 1000).toLocaleString()],
                  ["duration", r.duration_seconds === null ? "-" : r.duration_seconds.toFixed(3) + " s"], ["nodes", r.node_names || "-"]];
    const dl = document.createDocumentFragment();
    for (const [k, v] of meta) {
      dl.appendChild(element("dt", {}, k));
      dl.appendChild(element("dd", {}, String(v)));
    }
    document.getElementById("detail-meta").replaceChildren(dl);
    document.getElementById("stdout").textContent = r.stdout;
    document.getElementById("stderr").textContent = r.stderr;
  } catch (e) {
    document.getElementById("detail-title").textContent = "result " + rowid + ": " + e.message;
    document.getElementById("detail-meta").replaceChildren();
    document.getElementById("stdout").textContent = "";
    document.getElementById("stderr").textContent = "";
  }
  detail.hidden = false;
}

document.getElementById("stale-after").textContent = age(staleAfter);
window.addEventListener("hashchange", showDetail);
refresh();
showDetail();
</script>
</body>
</html>
)html";

}  // namespace

std::string status_page(int64_t stale_after) {
  std::string page = kPage;
  const std::string placeholder = "@STALE_AFTER@";
  page.replace(page.find(placeholder), placeholder.size(), std::to_string(stale_after));
  return page;
}

}  // namespace vorn::cli
