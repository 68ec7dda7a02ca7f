// Processes: the server's process table, sortable by every column, with a
// row limit, a filter, auto-refresh and, for administrators, select and end.
//
// Thousands of rows stay responsive because sorting and filtering work on
// the data, the body is built in one pass into a DocumentFragment with plain
// DOM calls, at most DRAWN_ROWS rows are drawn until asked for all, and the
// table has a single delegated listener for header clicks and checkbox
// changes; no row has a listener of its own.

import { call } from "../api.js";
import { el, clear, showError, confirmDialog } from "../dom.js";
import * as format from "../format.js";

const REFRESH_MS = 5000;
const DEFAULT_LIMIT = 200;
// Laying out a table costs per cell, whatever the building; past this many
// rows the page draws the first ones and offers the rest on request, so
// sorting and filtering stay quick on a list of thousands.
const DRAWN_ROWS = 1000;

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

export function normalise(processInfo) {
  const rows = [];
  for (const p of Array.isArray(processInfo) ? processInfo : []) {
    if (!p || typeof p !== "object") continue;
    const row = { ...p };
    row.PID = Number(p.PID);
    row.Command = typeof p.Command === "string" ? p.Command : "";
    row.cpuTime = (Number(p.TotalSeconds) || 0) + (Number(p.TotalMicroSeconds) || 0) / 1e6;
    rows.push(row);
  }
  return rows;
}

const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" });

// Ties break on PID so equal rows keep a steady order across refreshes.
export function sortProcesses(rows, key, descending) {
  const column = COLUMNS.find((c) => c.key === key) || COLUMNS[0];
  const direction = descending ? -1 : 1;
  const compare = column.numeric
    ? (a, b) => ((Number(a[key]) || 0) - (Number(b[key]) || 0)) * direction || a.PID - b.PID
    : (a, b) => collator.compare(a[key] ?? "", b[key] ?? "") * direction || a.PID - b.PID;
  return rows.slice().sort(compare);
}

// One pass, plain DOM calls: at 5,000 rows the helpers' generality costs.
export function buildRows(rows, selected, withSelection) {
  const fragment = document.createDocumentFragment();
  for (const row of rows) {
    const tr = document.createElement("tr");
    tr.dataset.pid = String(row.PID);
    if (withSelection) {
      const td = document.createElement("td");
      td.className = "select";
      const box = document.createElement("input");
      box.type = "checkbox";
      box.className = "select-process";
      box.setAttribute("aria-label", `Select ${row.Command} (${row.PID})`);
      if (selected.has(row.PID)) {
        box.checked = true;
        tr.className = "selected";
      }
      td.appendChild(box);
      tr.appendChild(td);
    }
    for (const column of COLUMNS) {
      const td = document.createElement("td");
      if (column.numeric) td.className = "numeric";
      const value = row[column.key];
      td.textContent = column.format ? column.format(value) : value ?? "";
      tr.appendChild(td);
    }
    fragment.appendChild(tr);
  }
  return fragment;
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
  let sortKey = "CPUUsage";
  let descending = true;
  let timer = 0;
  let busy = false;
  let again = false;
  let stopped = false;
  let loadedOnce = false;
  let drawAll = false;

  const limit = el("input", { id: "process-limit", type: "number", min: "0", step: "50", value: String(DEFAULT_LIMIT),
    title: "The server returns the busiest processes first; 0 shows them all" });
  const filter = el("input", { id: "process-filter", type: "search", placeholder: "Filter by command or PID" });
  const autorefresh = el("input", { id: "process-autorefresh", type: "checkbox", checked: true });
  const refresh = el("button", { type: "button", id: "process-refresh" }, "Refresh");
  const kill = admin ? el("button", { type: "button", id: "kill-selected", class: "danger", disabled: true }, "End selected…") : null;
  const status = el("span", { class: "updated" });
  const messages = el("div", { class: "process-messages" });
  const moreText = el("span");
  const more = el("p", { class: "more-rows", hidden: true }, moreText, " ",
    el("button", { type: "button", id: "process-show-all", on: { click: () => { drawAll = true; render(); } } }, "Show all"));

  const headRow = el("tr");
  const selectAll = admin ? el("input", { type: "checkbox", class: "select-all", "aria-label": "Select all shown processes" }) : null;
  if (admin) headRow.appendChild(el("th", { class: "select" }, selectAll));
  for (const column of COLUMNS) {
    headRow.appendChild(el("th", { scope: "col", "data-sort": column.key, class: column.numeric ? "numeric" : undefined,
      tabindex: "0", "aria-sort": "none" }, column.label));
  }
  const body = el("tbody");
  const tableNode = el("table", { id: "process-table", class: "data" }, el("thead", {}, headRow), body);

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
    el("div", { class: "table-wrap process-wrap" }, tableNode),
    more);

  function visibleRows() {
    const needle = filter.value.trim().toLowerCase();
    const sorted = sortProcesses(rows, sortKey, descending);
    if (!needle) return sorted;
    return sorted.filter((r) => r.Command.toLowerCase().includes(needle) || String(r.PID).includes(needle));
  }

  function render() {
    for (const th of headRow.querySelectorAll("th[data-sort]")) {
      const key = th.getAttribute("data-sort");
      th.setAttribute("aria-sort", key === sortKey ? (descending ? "descending" : "ascending") : "none");
    }
    const shown = visibleRows();
    const drawn = drawAll || shown.length <= DRAWN_ROWS ? shown : shown.slice(0, DRAWN_ROWS);
    const fresh = document.createElement("tbody");
    fresh.appendChild(buildRows(drawn, selected, admin));
    tableNode.replaceChild(fresh, tableNode.tBodies[0]);
    more.hidden = drawn.length === shown.length;
    moreText.textContent = `The first ${format.number(drawn.length)} of ${format.number(shown.length)} rows are shown; the filter narrows the list.`;
    status.textContent = `${format.number(shown.length)} of ${format.number(rows.length)} processes · updated ${format.time(new Date())}`;
    updateSelectionControls(drawn);
  }

  function updateSelectionControls(shown = null) {
    if (!admin) return;
    kill.disabled = selected.size === 0;
    kill.textContent = selected.size ? `End ${selected.size} selected…` : "End selected…";
    const list = shown || Array.from(tableNode.tBodies[0].rows, (tr) => ({ PID: Number(tr.dataset.pid) }));
    selectAll.checked = list.length > 0 && list.every((r) => selected.has(r.PID));
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
      rows = normalise(reply && reply.processInfo);
      // A process that is gone can no longer be ended; forget it.
      const present = new Set(rows.map((r) => r.PID));
      for (const pid of selected) if (!present.has(pid)) selected.delete(pid);
      for (const old of messages.querySelectorAll(".load-error")) old.remove();
      render();
      if (!loadedOnce) {
        loadedOnce = true;
        view.setAttribute("data-state", "ready");
      }
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
    render();
  }

  tableNode.addEventListener("click", (event) => {
    const th = event.target.closest("th[data-sort]");
    if (th) onSort(th.getAttribute("data-sort"));
  });
  tableNode.addEventListener("keydown", (event) => {
    const th = event.target.closest("th[data-sort]");
    if (th && (event.key === "Enter" || event.key === " ")) {
      event.preventDefault();
      onSort(th.getAttribute("data-sort"));
    }
  });
  if (admin) {
    tableNode.addEventListener("change", (event) => {
      const box = event.target;
      if (box === selectAll) {
        for (const tr of tableNode.tBodies[0].rows) {
          const pid = Number(tr.dataset.pid);
          if (selectAll.checked) selected.add(pid);
          else selected.delete(pid);
          tr.classList.toggle("selected", selectAll.checked);
          tr.querySelector("input.select-process").checked = selectAll.checked;
        }
      } else if (box.classList.contains("select-process")) {
        const tr = box.closest("tr");
        const pid = Number(tr.dataset.pid);
        if (box.checked) selected.add(pid);
        else selected.delete(pid);
        tr.classList.toggle("selected", box.checked);
      } else {
        return;
      }
      updateSelectionControls();
    });
    kill.addEventListener("click", async () => {
      const pids = Array.from(selected);
      if (!pids.length) return;
      const names = new Map(rows.filter((r) => selected.has(r.PID)).map((r) => [r.PID, r.Command || "(no name)"]));
      const question = el("div", {},
        el("p", {}, pids.length === 1 ? "End this process?" : `End these ${pids.length} processes?`),
        el("ul", {}, pids.slice(0, 20).map((pid) => el("li", {}, `${names.get(pid) ?? "process"} (PID ${pid})`))),
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
    });
  }

  let filterFrame = 0;
  filter.addEventListener("input", () => {
    cancelAnimationFrame(filterFrame);
    filterFrame = requestAnimationFrame(render);
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
      controller.abort();
    },
  };
}
