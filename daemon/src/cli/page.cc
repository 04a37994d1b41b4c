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
  html, body { height: 100%; }
  body { font: 13px/1.4 system-ui, sans-serif; margin: 0; color: #1d1d1d; background: #f7f7f5;
         display: flex; flex-direction: column; }
  header { display: flex; flex-wrap: wrap; gap: 6px 18px; align-items: center; padding: 8px 12px;
           border-bottom: 1px solid #d8d8d4; }
  h1 { font-size: 18px; margin: 0; }
  header button { font: inherit; padding: 1px 8px; border: 1px solid #b8b8b4; border-radius: 4px;
                  background: #fff; color: inherit; cursor: pointer; }
  header button[aria-pressed="true"] { background: #1d1d1d; border-color: #1d1d1d; color: #fff; }
  header label { cursor: pointer; }
  .count { font-weight: 600; font-variant-numeric: tabular-nums; }
  #error { color: #b00020; font-weight: 600; }
  /* The pane takes its width from the grid's area instead of covering it. */
  main { flex: 1; min-height: 0; display: flex; }
  #grid-area { flex: 1; min-width: 0; overflow: auto; }
  #detail { flex: 0 0 min(40vw, 640px); overflow: auto; padding: 10px 14px; background: #fff;
            border-left: 1px solid #c8c8c4; }
  @media (max-width: 700px) {
    main { flex-direction: column; }
    #detail { flex-basis: 45vh; border-left: 0; border-top: 1px solid #c8c8c4; }
  }
  /* Rows of their own, not a table: a row out of sight is neither styled nor
     laid out (content-visibility), which is what keeps 40,000 tiles quick.
     The columns' widths come from the script, which measures them. */
  #grid { width: max-content; margin: 0 12px 12px 0; }
  .row { display: grid; grid-template-columns: var(--columns); }
  #grid-body .row { content-visibility: auto; contain-intrinsic-size: auto 27px; }
  .row > * { border: solid #d8d8d4; border-width: 0 1px 1px 0; padding: 2px 3px;
             text-align: center; white-space: nowrap; }
  .row > :first-child { position: sticky; left: 0; text-align: left; background: #f0f0ec; }
  #grid-head { position: sticky; top: 0; z-index: 1; background: #ecece8; font-weight: 600; }
  #grid-head > :first-child { background: #ecece8; }
  .r { display: inline-block; min-width: 14px; padding: 0 3px; margin: 1px; border: 2px solid transparent;
       border-radius: 3px; line-height: 16px; color: #fff; text-decoration: none;
       font-variant-numeric: tabular-nums; cursor: pointer; scroll-margin: 4px; }
  .legend .r { cursor: default; }
  .r.ok { background: #2e7d32; }
  .r.fail { background: #c62828; }
  /* Old is a grey frame around a faded fill, so the number stays on a plain
     colour (stripes made it hard to read). */
  .r.stale { border-color: #5f5f5f; }
  .r.ok.stale { background: #c4c4c0; color: #1d1d1d; }
  .r.fail.stale { background: #e8a9a9; color: #6d0000; }
  .r.selected { outline: 2px solid #1d1d1d; outline-offset: 1px; }
  /* A daemon's health beside its host's name: grey when fine, red when in
     trouble, framed and faded when its newest health row is stale. */
  .health { display: inline-block; margin-left: 6px; padding: 0 4px; border: 2px solid transparent;
            border-radius: 3px; background: #e0e0dc; font-size: 12px; line-height: 16px;
            font-variant-numeric: tabular-nums; }
  .health.trouble { background: #c62828; color: #fff; }
  .health.stale { border-color: #5f5f5f; background: #c4c4c0; }
  .health.trouble.stale { background: #e8a9a9; color: #6d0000; }
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
  <span><span class="count" id="count-hosts">0</span> hosts,
    <span class="count" id="count-providers">0</span> providers,
    <span class="count" id="count-keys">0</span> latest results (host x provider x option set)
    of <span class="count" id="count-stored">0</span> stored</span>
  <span>
    <button type="button" id="filter-failing" aria-pressed="false"
            title="only the hosts with a failing latest result"><span class="count" id="count-failing">0</span> failing</button>
    <button type="button" id="filter-stale" aria-pressed="false"
            title="only the hosts with a latest result older than the limit"><span class="count" id="count-stale">0</span> stale</button>
    <button type="button" id="show-all" aria-pressed="true">all hosts</button>
  </span>
  <label><input type="checkbox" id="failing-only"> failing only</label>
  <label><input type="checkbox" id="failing-first"> failing hosts first</label>
  <span id="shown"></span>
  <span class="legend"><span class="r ok">0</span> exit 0 <span class="r fail">1</span> failing
    <span class="r fail timed-out">0 T</span> timed out <span class="r ok stale">0</span> <span class="r fail stale">1</span> older than
    <span id="stale-after"></span> (health rows: three of their intervals);
    health by the host's name: <span class="health">5 queued, oldest 2m</span>
    <span class="health trouble">in trouble</span> <span class="health stale">silent</span></span>
  <span id="updated"></span>
  <span id="timing"></span>
  <span id="error" role="alert"></span>
</header>
<main>
<div id="grid-area">
<div id="grid" role="table" aria-label="latest results, a row per host and a column per provider">
  <div id="grid-head" class="row" role="row"><div role="columnheader">host</div></div>
  <div id="grid-body" role="rowgroup"></div>
</div>
</div>
<section id="detail" hidden>
  <a id="close" href="#">close</a>
  <h2 id="detail-title"></h2>
  <dl id="detail-meta"></dl>
  <h3>Standard output</h3>
  <pre id="stdout"></pre>
  <h3>Standard error</h3>
  <pre id="stderr"></pre>
</section>
</main>
<script>
"use strict";
const staleAfter = Number(document.querySelector('meta[name="vorn-stale-after"]').content);
const refreshMs = 10000;
const byName = new Intl.Collator(undefined, {numeric: true}).compare;
const $ = id => document.getElementById(id);

// What the address says to show: the selected result, which hosts, in which
// order; a link to it opens the same view.
const view = {rowid: null, show: "", order: ""};
let latest = null;        // the last answer of api/latest, redrawn when the view changes
let health = [];          // and of api/health
let healthByKey = new Map();  // provider + "\n" + host -> its newest health row
let drawnHealth = [];     // the health rows drawn, which badges name by index
let byRowid = new Map();  // rowid -> result, for the tiles' titles
let scrollPending = false;

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

// Rows are laid out one at a time (and not at all out of sight), so the
// columns cannot take their widest cell's width by themselves: it is
// measured here, from the names and the tiles each column holds.
const measure = document.createElement("canvas").getContext("2d");
const fontOf = e => {
  const style = getComputedStyle(e);
  return style.fontStyle + " " + style.fontWeight + " " + style.fontSize + " " + style.fontFamily;
};
const fonts = {head: fontOf($("grid-head")), body: fontOf($("grid-body")),
               tile: fontOf(document.querySelector(".legend .r")),
               health: fontOf(document.querySelector(".legend .health"))};
const cellExtra = 7 + 3;  // padding and border, and room for rounding
const tileExtra = 12;     // padding, border and margin
const healthExtra = 8 + 4 + 6;  // padding, border and margin
const tileWidths = new Map();

function textWidth(text, font) {
  measure.font = font;
  return measure.measureText(text).width;
}

function tileWidth(label) {
  let w = tileWidths.get(label);
  if (w === undefined) {
    w = Math.max(14, textWidth(label, fonts.tile)) + tileExtra;
    tileWidths.set(label, w);
  }
  return w;
}

// What a daemon's health row says in its host's row header. Values that
// are not numbers show as "?": a malformed row must not stop the page.
function healthText(h) {
  const f = h.fields;
  const n = key => {
    const v = f[key] === undefined || f[key] === "" ? NaN : Number(f[key]);
    return Number.isFinite(v) ? v : null;
  };
  const count = key => n(key) === null ? "?" : n(key).toLocaleString();
  const parts = [];
  if (h.stale) parts.push("silent " + age(h.age_seconds));
  if (h.provider === "vorn-noded") {
    parts.push(count("files_waiting") + " queued" +
               (n("files_waiting") ? ", oldest " + (n("oldest_waiting_s") === null ? "?" : age(n("oldest_waiting_s"))) : ""));
    if (n("sleep_mode") === 1) parts.push("asleep");
  } else {
    parts.push("server: " + count("writer_queue") + " to write");
    if (n("peers") !== null && n("peers") >= 0) parts.push(count("peers") + " peers");
  }
  if (h.failing) parts.push("in trouble");
  return parts.join(", ");
}

function healthTitle(h) {
  const lines = [h.provider + " on " + h.host + ", " + age(h.age_seconds) + " ago (stale after " +
                 age(h.stale_after_seconds) + (h.interval_seconds === null ? "" : ", a row every " + age(h.interval_seconds)) +
                 "), exit status " + h.exit_status];
  if (h.reason) lines.push(h.reason);
  for (const [k, v] of Object.entries(h.fields)) lines.push(k + "=" + v);
  return lines.join("\n");
}

function readHash() {
  const p = new URLSearchParams(location.hash.slice(1));
  const rowid = p.get("rowid");
  return {rowid: rowid !== null && /^\d+$/.test(rowid) ? rowid : null,
          show: ["failing", "stale"].includes(p.get("show")) ? p.get("show") : "",
          order: p.get("order") === "failing" ? "failing" : ""};
}

function viewHash(v) {
  const parts = [];
  if (v.rowid !== null) parts.push("rowid=" + v.rowid);
  if (v.show) parts.push("show=" + v.show);
  if (v.order) parts.push("order=" + v.order);
  return "#" + parts.join("&");
}

function setView(changes) {
  location.hash = viewHash(Object.assign({}, view, changes));
}

function syncControls() {
  $("filter-failing").setAttribute("aria-pressed", view.show === "failing");
  $("filter-stale").setAttribute("aria-pressed", view.show === "stale");
  $("show-all").setAttribute("aria-pressed", view.show === "");
  $("failing-only").checked = view.show === "failing";
  $("failing-first").checked = view.order === "failing";
  $("close").href = viewHash(Object.assign({}, view, {rowid: null}));
}

function draw(results, healthRows) {
  const hosts = new Map();
  const providerSet = new Set();
  let failing = 0, stale = 0, stored = 0;
  byRowid = new Map();
  healthByKey = new Map();
  drawnHealth = healthRows;
  for (const [i, h] of healthRows.entries()) {
    h.index = i;
    h.stale = h.age_seconds > h.stale_after_seconds;
    h.failing = h.exit_status !== 0 || h.timed_out === true;
    h.text = healthText(h);
    healthByKey.set(h.provider + "\n" + h.host, h);
  }
  for (const r of results) {
    let host = hosts.get(r.host);
    if (!host) {
      host = {name: r.host, cells: new Map(), failing: 0, stale: 0, health: []};
      hosts.set(r.host, host);
    }
    let cell = host.cells.get(r.provider);
    if (!cell) {
      cell = [];
      host.cells.set(r.provider, cell);
      providerSet.add(r.provider);
    }
    cell.push(r);
    // A daemon's health row is stale by its own interval, not by the page's limit.
    const h = healthByKey.get(r.provider + "\n" + r.host);
    if (h && !host.health.includes(h)) host.health.push(h);
    r.stale = r.age_seconds > (h ? h.stale_after_seconds : staleAfter);
    // Killed at its time-out, a run may still exit with 0: failing all the same.
    r.failing = r.exit_status !== 0 || r.timed_out === true;
    r.label = r.timed_out ? r.exit_status + " T" : String(r.exit_status);
    host.failing += r.failing;
    host.stale += r.stale;
    byRowid.set(String(r.rowid), r);
    // Rowids are given in order and never taken back, so the newest result
    // is always some key's latest: its rowid is how many are stored.
    stored = Math.max(stored, r.rowid);
  }
  const providers = [...providerSet].sort(byName);
  let rows = [...hosts.values()].sort((a, b) => byName(a.name, b.name));
  for (const h of rows) {
    failing += h.failing;
    stale += h.stale;
  }
  if (view.order === "failing") {
    rows = rows.filter(h => h.failing).concat(rows.filter(h => !h.failing));
  }
  const shown = view.show === "failing" ? rows.filter(h => h.failing)
              : view.show === "stale" ? rows.filter(h => h.stale) : rows;

  let hostWidth = textWidth("host", fonts.head);
  const widths = new Map(providers.map(p => [p, textWidth(p, fonts.head)]));
  for (const h of hosts.values()) {
    let w = textWidth(h.name, fonts.body);
    for (const x of h.health) w += textWidth(x.text, fonts.health) + healthExtra;
    hostWidth = Math.max(hostWidth, w);
    for (const [p, cell] of h.cells) {
      let w = 0;
      for (const r of cell) w += tileWidth(r.label);
      if (w > widths.get(p)) widths.set(p, w);
    }
  }
  const columns = [hostWidth, ...providers.map(p => widths.get(p))];

  const head = document.createDocumentFragment();
  head.appendChild(element("div", {role: "columnheader"}, "host"));
  for (const p of providers) head.appendChild(element("div", {role: "columnheader"}, p));
  const hrefEnd = viewHash(Object.assign({}, view, {rowid: null})).slice(1);
  const hrefTail = hrefEnd ? "&" + hrefEnd : "";
  const body = document.createDocumentFragment();
  for (const h of shown) {
    const row = element("div", {className: "row", role: "row"});
    const header = element("div", {role: "rowheader"});
    header.appendChild(element("span", {className: "host"}, h.name));
    // The node's health first, then the server's.
    if (h.health.length > 1) h.health.sort((a, b) => byName(a.provider, b.provider));
    for (const x of h.health) {
      const badge = element("span", {className: "health" + (x.failing ? " trouble" : "") +
                                                (x.stale ? " stale" : "")}, x.text);
      badge.dataset.health = x.index;
      header.appendChild(badge);
    }
    row.appendChild(header);
    for (const p of providers) {
      const td = document.createElement("div");
      td.setAttribute("role", "cell");
      const cell = h.cells.get(p);
      if (cell) {
        if (cell.length > 1) cell.sort((a, b) => byName(a.option_set, b.option_set));
        for (const r of cell) {
          const a = document.createElement("a");
          a.className = "r " + (r.failing ? "fail" : "ok") + (r.timed_out ? " timed-out" : "") +
                        (r.stale ? " stale" : "") +
                        (String(r.rowid) === view.rowid ? " selected" : "");
          a.setAttribute("href", "#rowid=" + r.rowid + hrefTail);
          a.setAttribute("data-rowid", r.rowid);
          a.textContent = r.label;
          td.appendChild(a);
        }
      }
      row.appendChild(td);
    }
    body.appendChild(row);
  }
  const grid = $("grid");
  grid.style.setProperty("--columns", columns.map(w => Math.ceil(w + cellExtra) + "px").join(" "));
  $("grid-head").replaceChildren(head);
  $("grid-body").replaceChildren(body);

  $("count-hosts").textContent = hosts.size.toLocaleString();
  $("count-providers").textContent = providers.length.toLocaleString();
  $("count-keys").textContent = results.length.toLocaleString();
  $("count-stored").textContent = stored.toLocaleString();
  $("count-failing").textContent = failing.toLocaleString();
  $("count-stale").textContent = stale.toLocaleString();
  $("shown").textContent = view.show ? "showing " + shown.length.toLocaleString() + " of " +
                                       hosts.size.toLocaleString() + " hosts" : "";
  // The sticky header row and host column must not hide a tile scrolled to.
  const area = $("grid-area");
  area.style.scrollPaddingTop = $("grid-head").offsetHeight + "px";
  area.style.scrollPaddingLeft = $("grid-head").firstChild.offsetWidth + "px";
  if (scrollPending) {
    scrollPending = false;
    scrollToSelected();
  }
}

function scrollToSelected() {
  const tile = view.rowid === null ? null
             : document.querySelector('#grid .r[data-rowid="' + view.rowid + '"]');
  if (tile) tile.scrollIntoView({block: "nearest", inline: "nearest"});
  return tile !== null;
}

async function refresh() {
  const start = performance.now();
  try {
    const lines = async path => {
      const response = await fetch(path, {cache: "no-store"});
      if (!response.ok) throw new Error((await response.text()).trim() || response.statusText);
      return (await response.text()).split("\n").filter(line => line !== "").map(line => JSON.parse(line));
    };
    const [results, healthRows] = await Promise.all([lines("api/latest"), lines("api/health")]);
    const fetched = performance.now();
    draw(results, healthRows);
    latest = results;
    health = healthRows;
    const drawn = performance.now();
    $("error").textContent = "";
    $("updated").textContent = "updated " + new Date().toLocaleTimeString();
    $("timing").textContent = "refreshed in " + Math.round(drawn - start) + " ms (fetch " +
                              Math.round(fetched - start) + " ms, drawing " +
                              Math.round(drawn - fetched) + " ms)";
  } catch (e) {
    $("error").textContent = "cannot read the results: " + e.message;
  }
  setTimeout(refresh, refreshMs);
}

async function showDetail() {
  const detail = $("detail");
  for (const a of document.querySelectorAll("#grid .r.selected")) a.classList.remove("selected");
  const rowid = view.rowid;
  if (rowid === null) {
    detail.hidden = true;
    return;
  }
  for (const a of document.querySelectorAll('#grid .r[data-rowid="' + rowid + '"]')) {
    a.classList.add("selected");
  }
  // Open first: the grid's area narrows, and then the tile is brought into it.
  detail.hidden = false;
  // A link opened before the first answer scrolls once the grid is drawn.
  scrollPending = !scrollToSelected();
  try {
    const response = await fetch("api/result?rowid=" + rowid, {cache: "no-store"});
    if (!response.ok) throw new Error((await response.text()).trim() || response.statusText);
    const r = await response.json();
    if (view.rowid !== rowid) return;
    $("detail-title").textContent = r.provider + " on " + r.host;
    const meta = [["rowid", r.rowid], ["option set", r.option_set], ["exit status", r.exit_status + (r.timed_out ? ", killed after the time-out" : "")],
                  ["ended", new Date(r.timestamp * 1000).toLocaleString()],
                  ["duration", r.duration_seconds === null ? "-" : r.duration_seconds.toFixed(3) + " s"],
                  ["nodes", r.node_names || "-"]];
    const dl = document.createDocumentFragment();
    for (const [k, v] of meta) {
      dl.appendChild(element("dt", {}, k));
      dl.appendChild(element("dd", {}, String(v)));
    }
    $("detail-meta").replaceChildren(dl);
    $("stdout").textContent = r.stdout;
    $("stderr").textContent = r.stderr;
  } catch (e) {
    if (view.rowid !== rowid) return;
    $("detail-title").textContent = "result " + rowid + ": " + e.message;
    $("detail-meta").replaceChildren();
    $("stdout").textContent = "";
    $("stderr").textContent = "";
  }
}

function onHashChange() {
  const next = readHash();
  const redraw = next.show !== view.show || next.order !== view.order;
  const reselect = next.rowid !== view.rowid;
  Object.assign(view, next);
  syncControls();
  if (redraw && latest) draw(latest, health);
  if (reselect) showDetail();
}

// One listener for all tiles: a title is made when a tile is first pointed at.
function describeTile(event) {
  const badge = event.target.closest && event.target.closest("#grid .health");
  if (badge && !badge.title) {
    const h = drawnHealth[badge.dataset.health];
    if (h) badge.title = healthTitle(h);
    return;
  }
  const a = event.target.closest && event.target.closest("#grid .r");
  if (!a || a.title) return;
  const r = byRowid.get(a.dataset.rowid);
  if (!r) return;
  a.title = r.provider + " on " + r.host + ", option set " + r.option_set + ": exit status " +
            r.exit_status + (r.timed_out ? ", timed out" : "") + ", " + age(r.age_seconds) +
            " ago\n" + r.stdout_first_line;
  const h = healthByKey.get(r.provider + "\n" + r.host);
  if (h) a.title += "\n" + h.text;
}

$("grid").addEventListener("mouseover", describeTile);
$("grid").addEventListener("focusin", describeTile);
$("filter-failing").addEventListener("click", () => setView({show: view.show === "failing" ? "" : "failing"}));
$("filter-stale").addEventListener("click", () => setView({show: view.show === "stale" ? "" : "stale"}));
$("show-all").addEventListener("click", () => setView({show: ""}));
$("failing-only").addEventListener("change", e => setView({show: e.target.checked ? "failing" : ""}));
$("failing-first").addEventListener("change", e => setView({order: e.target.checked ? "failing" : ""}));
$("stale-after").textContent = age(staleAfter);
window.addEventListener("hashchange", onHashChange);
Object.assign(view, readHash());
syncControls();
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
