// Processes: the server's process table, sortable by every column, with a
// row limit, a filter, auto-refresh and, for administrators, select and end.
//
// A list of tens of thousands stays responsive because the page never lays
// out more than a screenful: the table sits in a scroll box of fixed height,
// only the rows in view (plus a few either side) are in the DOM, and a
// spacer row above and below them gives the scroll bar its true size. Rows
// have one fixed height and the table a fixed layout with set column
// widths, so placing a row never means measuring the others. Sorting and
// filtering work on the data array, once per change; scrolling only redraws
// the window, at most once a frame. Selection lives in a set of PIDs, not in
// checkboxes, so it outlasts scrolling, sorting, filtering and refreshes.
// The table has a single delegated handler; no row has a listener of its own.

import { call } from "../api.js";
import { el, clear, showError, confirmDialog } from "../dom.js";
import * as format from "../format.js";

const REFRESH_MS = 5000;
const DEFAULT_LIMIT = 200;
// Rows drawn beyond each edge of the view, so a short scroll shows drawn
// rows while the next frame catches up.
const OVERSCAN = 8;
// Until a drawn row can be measured (style.css sets the real height).
const ASSUMED_ROW_HEIGHT = 26;
const ASSUMED_VIEW_ROWS = 40;

// CPU time arrives as whole seconds plus a microsecond part; the page joins
// them into one "cpuTime" value so the column sorts on the full figure.
export const COLUMNS = [
  { key: "PID", label: "PID", numeric: true },
  { key: "Command", label: "Command" },
  { key: "CPUUsage", label: "CPU", numeric: true, format: (v) => `${format.number(v, 1)}%` },
  { key: "cpuTime", label: "CPU time", numeric: true, format: cpuTime },
  { key: "Threads", label: "Threads", numeric: true, format: (v) => format.number(v) },
  { key: "ResidentSize", label: "Resident", numeric: true, format: format.bytes },
  { key: "Private", label: "Private", numeric: true, format: format.bytes },
  { key: "Shared", label: "Shared", numeric: true, format: format.bytes },
  { key: "VirtualSize", label: "Virtual", numeric: true, format: format.bytes },
  { key: "Faults", label: "Faults", numeric: true, format: (v) => format.number(v) },
  { key: "PageIns", label: "Page-ins", numeric: true, format: (v) => format.number(v) },
];
const FIELDS = ["PID", "Command", "CPUUsage", "TotalSeconds", "TotalMicroSeconds", "Threads", "ResidentSize",
  "Private", "Shared", "VirtualSize", "Faults", "PageIns"];

function cpuTime(seconds) {
  const s = Number(seconds);
  if (!Number.isFinite(s)) return "—";
  const whole = Math.floor(s);
  const h = Math.floor(whole / 3600);
  const m = Math.floor((whole % 3600) / 60);
  const rest = (s - h * 3600 - m * 60).toFixed(2).padStart(5, "0");
  return h > 0 ? `${h}:${String(m).padStart(2, "0")}:${rest}` : `${m}:${rest}`;
}

// Numeric columns become numbers here, once, so a sort compares numbers and
// never converts; a missing figure is NaN, which shows as a dash and sorts
// as zero.
export function normalise(processInfo) {
  const rows = [];
  for (const p of Array.isArray(processInfo) ? processInfo : []) {
    if (!p || typeof p !== "object") continue;
    const pid = Number(p.PID);
    if (!Number.isInteger(pid)) continue;
    const row = {};
    for (const column of COLUMNS) if (column.numeric) row[column.key] = p[column.key] == null ? NaN : Number(p[column.key]);
    row.PID = pid;
    row.Command = typeof p.Command === "string" ? p.Command : "";
    row.cpuTime = (Number(p.TotalSeconds) || 0) + (Number(p.TotalMicroSeconds) || 0) / 1e6;
    row.needle = row.Command.toLowerCase();
    rows.push(row);
  }
  return rows;
}

const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" });

// Text is ranked through its distinct values (a busy server runs many
// processes of few names), so the costly collation runs on those alone and
// the rows themselves sort by a number. Ties break on PID so equal rows keep
// a steady order across refreshes.
export function sortProcesses(rows, key, descending) {
  const column = COLUMNS.find((c) => c.key === key) || COLUMNS[0];
  const direction = descending ? -1 : 1;
  if (column.numeric) {
    return rows.slice().sort((a, b) => ((a[column.key] || 0) - (b[column.key] || 0)) * direction || a.PID - b.PID);
  }
  const distinct = Array.from(new Set(rows.map((r) => String(r[column.key] ?? "")))).sort(collator.compare);
  const rank = new Map(distinct.map((text, i) => [text, i]));
  const keyed = rows.map((r) => ({ r, k: rank.get(String(r[column.key] ?? "")) }));
  keyed.sort((a, b) => (a.k - b.k) * direction || a.r.PID - b.r.PID);
  return keyed.map((x) => x.r);
}

export function filterProcesses(rows, text) {
  const needle = text.trim().toLowerCase();
  if (!needle) return rows;
  return rows.filter((r) => r.needle.includes(needle) || String(r.PID).includes(needle));
}

function buildRow(row, index, selected, withSelection) {
  const tr = document.createElement("tr");
  tr.dataset.pid = String(row.PID);
  // Stripes follow the row's place in the list, not in the drawn window,
  // so they do not flicker while scrolling.
  let classes = index % 2 ? "alt" : "";
  if (withSelection) {
    const td = document.createElement("td");
    td.className = "select";
    const box = document.createElement("input");
    box.type = "checkbox";
    box.className = "select-process";
    box.setAttribute("aria-label", `Select ${row.Command} (${row.PID})`);
    if (selected.has(row.PID)) {
      box.checked = true;
      classes += " selected";
    }
    td.appendChild(box);
    tr.appendChild(td);
  }
  if (classes) tr.className = classes;
  for (const column of COLUMNS) {
    const td = document.createElement("td");
    if (column.numeric) td.className = "numeric";
    const value = row[column.key];
    td.textContent = column.format ? column.format(value) : value ?? "";
    if (column.key === "Command") td.title = row.Command;
    tr.appendChild(td);
  }
  return tr;
}

function describeKill(reply, names) {
  const results = reply && typeof reply.killResults === "object" && reply.killResults ? reply.killResults : {};
  const ended = [];
  const failed = [];
  for (const [pid, result] of Object.entries(results)) {
    const label = names.has(Number(pid)) ? `${names.get(Number(pid))} (${pid})` : `process ${pid}`;
    (result === "SUCCESS" ? ended : failed).push({ pid: Number(pid), label });
  }
  const lines = [];
  if (ended.length) lines.push(`Ended: ${ended.map((e) => e.label).join(", ")}.`);
  for (const f of failed) {
    lines.push(f.pid <= 1
      ? `${f.label} was not ended: the system's first processes are never signalled.`
      : `${f.label} could not be ended: it may have exited already, or the server was not allowed to signal it.`);
  }
  if (!lines.length) lines.push("The server reported no result for the selected processes.");
  return { lines, ok: failed.length === 0, ended: ended.map((e) => e.pid) };
}

export function mount(view, session) {
  const admin = session.tier === "admin";
  const controller = new AbortController();
  const selected = new Set();
  let rows = [];
  let byPid = new Map();
  let sorted = [];
  let shown = [];
  let sortKey = "CPUUsage";
  let descending = true;
  let timer = 0;
  let busy = false;
  let again = false;
  let stopped = false;
  let loadedOnce = false;
  let frame = 0;
  let drawn = { first: -1, last: -1 };
  let rowHeight = ASSUMED_ROW_HEIGHT;
  let headHeight = 0;
  let measured = false;
  let viewHeight = 0;

  const limit = el("input", { id: "process-limit", type: "number", min: "0", step: "50", value: String(DEFAULT_LIMIT),
    title: "The server returns the busiest processes first; 0 shows them all" });
  const filter = el("input", { id: "process-filter", type: "search", placeholder: "Filter by command or PID" });
  const autorefresh = el("input", { id: "process-autorefresh", type: "checkbox", checked: true });
  const refresh = el("button", { type: "button", id: "process-refresh" }, "Refresh");
  const kill = admin ? el("button", { type: "button", id: "kill-selected", class: "danger", disabled: true }, "End selected…") : null;
  const status = el("span", { class: "updated" });
  const messages = el("div", { class: "process-messages" });

  const columnCount = COLUMNS.length + (admin ? 1 : 0);
  const cols = el("colgroup");
  const headRow = el("tr");
  const selectAll = admin ? el("input", { type: "checkbox", class: "select-all", "aria-label": "Select all listed processes" }) : null;
  if (admin) {
    cols.appendChild(el("col", { class: "col-select" }));
    headRow.appendChild(el("th", { class: "select" }, selectAll));
  }
  for (const column of COLUMNS) {
    cols.appendChild(el("col", { class: `col-${column.key}` }));
    headRow.appendChild(el("th", { scope: "col", "data-sort": column.key, class: column.numeric ? "numeric" : undefined,
      tabindex: "0", "aria-sort": "none" }, column.label));
  }
  const head = el("thead", {}, headRow);
  const body = el("tbody");
  const tableNode = el("table", { id: "process-table", class: "data" }, cols, head, body);
  const spacerAbove = el("tr", { class: "spacer", "aria-hidden": "true" }, el("td", { colspan: String(columnCount) }));
  const spacerBelow = el("tr", { class: "spacer", "aria-hidden": "true" }, el("td", { colspan: String(columnCount) }));
  const scroller = el("div", { class: "table-wrap process-wrap" }, tableNode);

  const note = admin ? [] : [el("p", { class: "read-only-note" }, "You may watch this server's processes; ending them needs an administrator.")];
  view.append(
    el("div", { class: "toolbar" },
      el("h1", {}, "Processes"),
      el("label", { for: "process-limit" }, "Show at most", limit),
      el("label", { for: "process-filter" }, "Filter", filter),
      el("label", { for: "process-autorefresh" }, autorefresh, "Refresh every 5 seconds"),
      refresh,
      kill,
      el("span", { class: "spacer" }),
      status),
    ...note,
    messages,
    scroller);

  // The whole list changed order: sort once, then filter and draw.
  function resort() {
    for (const th of headRow.querySelectorAll("th[data-sort]")) {
      const key = th.getAttribute("data-sort");
      th.setAttribute("aria-sort", key === sortKey ? (descending ? "descending" : "ascending") : "none");
    }
    sorted = sortProcesses(rows, sortKey, descending);
    refilter();
  }

  function refilter() {
    shown = filterProcesses(sorted, filter.value);
    drawWindow(true);
    updateSelectionControls();
  }

  function scheduleDraw() {
    if (!frame) frame = requestAnimationFrame(() => { frame = 0; drawWindow(false); });
  }

  // Draws the rows in view; `force` after the list itself changed, else only
  // when scrolling moved the window.
  function drawWindow(force) {
    if (stopped) return;
    if (!viewHeight) viewHeight = scroller.clientHeight;
    const inView = viewHeight > 0 ? Math.ceil(viewHeight / rowHeight) : ASSUMED_VIEW_ROWS;
    const top = Math.max(0, scroller.scrollTop - headHeight);
    // After the list shrinks the box may still be scrolled past its new end
    // until the browser clamps it; draw the last screenful meanwhile.
    let first = Math.min(Math.floor(top / rowHeight), Math.max(0, shown.length - inView)) - OVERSCAN;
    first = Math.max(0, first);
    const last = Math.min(shown.length, first + inView + 2 * OVERSCAN);
    if (!force && first === drawn.first && last === drawn.last) return;
    drawn = { first, last };

    const focused = document.activeElement;
    const focusedPid = focused && focused.classList.contains("select-process") && body.contains(focused)
      ? focused.closest("tr").dataset.pid : null;

    const fragment = document.createDocumentFragment();
    spacerAbove.style.height = `${first * rowHeight}px`;
    spacerAbove.hidden = first === 0;
    fragment.appendChild(spacerAbove);
    for (let i = first; i < last; i++) fragment.appendChild(buildRow(shown[i], i, selected, admin));
    if (!shown.length && loadedOnce) {
      fragment.appendChild(el("tr", { class: "empty" }, el("td", { colspan: String(columnCount) },
        rows.length ? "No process matches the filter." : "The server listed no processes.")));
    }
    spacerBelow.style.height = `${(shown.length - last) * rowHeight}px`;
    spacerBelow.hidden = last === shown.length;
    fragment.appendChild(spacerBelow);
    body.replaceChildren(fragment);

    if (focusedPid !== null) {
      const box = body.querySelector(`tr[data-pid="${focusedPid}"] input.select-process`);
      if (box) box.focus({ preventScroll: true });
    }
    // One measurement of a real row, in case fonts or zoom made rows taller
    // than the style sheet's figure; the spacers then need redrawing once.
    if (!measured && last - first >= 2 && viewHeight > 0) {
      measured = true;
      // The distance between two rows, not one row's box: collapsed borders
      // make the first row's box differ from the pitch.
      const height = body.rows[2].getBoundingClientRect().top - body.rows[1].getBoundingClientRect().top;
      headHeight = head.getBoundingClientRect().height;
      if (height > 0 && Math.abs(height - rowHeight) > 0.1) {
        rowHeight = height;
        drawWindow(true);
      }
    }
  }

  function updateSelectionControls() {
    if (!admin) return;
    kill.disabled = selected.size === 0;
    kill.textContent = selected.size ? `End ${selected.size} selected…` : "End selected…";
    let count = 0;
    for (const row of shown) if (selected.has(row.PID)) count++;
    selectAll.checked = shown.length > 0 && count === shown.length;
    selectAll.indeterminate = count > 0 && count < shown.length;
  }

  function updateStatus() {
    status.textContent = `${format.number(rows.length)} processes · updated ${format.time(new Date())}`;
  }

  async function load() {
    clearTimeout(timer);
    timer = 0;
    if (stopped) return;
    if (busy) {
      again = true; // a kill or a new limit wants fresh rows after this one
      return;
    }
    busy = true;
    refresh.disabled = true;
    const fields = { fieldsToReturn: FIELDS };
    const n = Math.floor(Number(limit.value));
    if (Number.isFinite(n) && n > 0) fields.limit = n;
    try {
      const reply = await call("listProcesses", fields, "Reading the process list", { signal: controller.signal });
      if (stopped) return;
      const fresh = normalise(reply && reply.processInfo);
      const freshByPid = new Map(fresh.map((r) => [r.PID, r]));
      // A process that is gone can no longer be ended, and its PID may now
      // belong to another program: forget it.
      for (const pid of selected) {
        const now = freshByPid.get(pid);
        if (!now || now.Command !== byPid.get(pid)?.Command) selected.delete(pid);
      }
      rows = fresh;
      byPid = freshByPid;
      for (const old of messages.querySelectorAll(".load-error")) old.remove();
      loadedOnce = true;
      resort();
      updateStatus();
      view.setAttribute("data-state", "ready");
    } catch (error) {
      if (stopped || (error && error.name === "AbortError")) return;
      clear(messages);
      showError(messages, error).classList.add("load-error");
      if (!loadedOnce) view.setAttribute("data-state", "error");
    } finally {
      busy = false;
      refresh.disabled = false;
      if (again && !stopped) {
        again = false;
        load();
      } else {
        schedule();
      }
    }
  }

  function schedule() {
    if (stopped || timer || !autorefresh.checked) return;
    timer = setTimeout(load, document.hidden ? REFRESH_MS * 6 : REFRESH_MS);
  }

  function onSort(key) {
    const column = COLUMNS.find((c) => c.key === key);
    if (!column) return;
    if (key === sortKey) descending = !descending;
    else {
      sortKey = key;
      descending = !!column.numeric; // the biggest numbers are usually the interesting ones
    }
    scroller.scrollTop = 0;
    resort();
  }

  function onSelect(box) {
    if (box === selectAll) {
      for (const row of shown) {
        if (selectAll.checked) selected.add(row.PID);
        else selected.delete(row.PID);
      }
      drawWindow(true);
    } else {
      const tr = box.closest("tr");
      const pid = Number(tr.dataset.pid);
      if (box.checked) selected.add(pid);
      else selected.delete(pid);
      tr.classList.toggle("selected", box.checked);
    }
    updateSelectionControls();
  }

  async function onKill() {
    const pids = Array.from(selected).sort((a, b) => a - b);
    if (!pids.length) return;
    const names = new Map(pids.map((pid) => [pid, byPid.get(pid)?.Command || "(no name)"]));
    const question = el("div", {},
      el("p", {}, pids.length === 1 ? "End this process?" : `End these ${pids.length} processes?`),
      el("ul", {}, pids.slice(0, 20).map((pid) => el("li", {}, `${names.get(pid)} (PID ${pid})`))),
      pids.length > 20 ? el("p", {}, `… and ${pids.length - 20} more.`) : null,
      el("p", { class: "muted" }, "Each is asked to stop; one that cannot be asked is stopped at once. Unsaved work in them is lost."));
    if (!(await confirmDialog(question, pids.length === 1 ? "End process" : "End processes")) || stopped) return;
    kill.disabled = true;
    clear(messages);
    try {
      const reply = await call("killProcesses", { pids }, "Ending the processes", { signal: controller.signal });
      if (stopped) return;
      const outcome = describeKill(reply, names);
      for (const pid of outcome.ended) selected.delete(pid);
      messages.appendChild(el("div", { class: outcome.ok ? "ok-message kill-result" : "error-message kill-result", role: "status" },
        outcome.lines.map((line) => el("p", {}, line))));
    } catch (error) {
      if (stopped || (error && error.name === "AbortError")) return;
      showError(messages, error);
    }
    updateSelectionControls();
    load();
  }

  function onTableEvent(event) {
    const target = event.target;
    if (event.type === "change") {
      if (admin && (target === selectAll || target.classList.contains("select-process"))) onSelect(target);
      return;
    }
    const th = target.closest("th[data-sort]");
    if (!th) return;
    if (event.type === "keydown") {
      if (event.key !== "Enter" && event.key !== " ") return;
      event.preventDefault();
    }
    onSort(th.getAttribute("data-sort"));
  }
  for (const type of ["click", "keydown", "change"]) tableNode.addEventListener(type, onTableEvent);
  if (admin) kill.addEventListener("click", onKill);

  scroller.addEventListener("scroll", scheduleDraw, { passive: true });
  const resizes = new ResizeObserver(() => {
    viewHeight = scroller.clientHeight;
    scheduleDraw();
  });
  resizes.observe(scroller);

  let filterFrame = 0;
  filter.addEventListener("input", () => {
    cancelAnimationFrame(filterFrame);
    filterFrame = requestAnimationFrame(() => {
      scroller.scrollTop = 0;
      refilter();
    });
  });
  limit.addEventListener("change", load);
  refresh.addEventListener("click", load);
  autorefresh.addEventListener("change", () => {
    if (autorefresh.checked) schedule();
    else {
      clearTimeout(timer);
      timer = 0;
    }
  });

  load();
  return {
    unmount() {
      stopped = true;
      clearTimeout(timer);
      cancelAnimationFrame(filterFrame);
      cancelAnimationFrame(frame);
      resizes.disconnect();
      controller.abort();
    },
  };
}
