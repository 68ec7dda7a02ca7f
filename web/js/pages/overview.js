// Overview: the server's names, versions, hardware, load, volumes and
// connected users from one getState poll every few seconds. The frame is
// built once; each reply only rewrites texts, so a poll neither flickers
// nor loses the reader's place.

import { call } from "../api.js";
import { el, clear, showError } from "../dom.js";
import * as format from "../format.js";

// Averages over 5 and 60 minutes, the volume list and the user count come
// only with the detailed variant.
const VARIANT = 'withDetails+{"CPU Avg Times" = (5, 60); GetDiskUsage = YES; GetNumConnectedUsers = YES;}';
const POLL_MS = 5000;
const HIDDEN_POLL_MS = 30000;

// "2026-11-23 10:00:00 +0000" (the daemon's date text) or anything Date reads.
function parseBootTime(text) {
  if (text instanceof Date) return text;
  if (typeof text !== "string" || text === "") return null;
  const m = /^(\d{4}-\d\d-\d\d)[ T](\d\d:\d\d:\d\d)(?:\s*([+-])(\d\d):?(\d\d)|\s*Z)?$/.exec(text.trim());
  const date = m ? new Date(`${m[1]}T${m[2]}${m[3] ? `${m[3]}${m[4]}:${m[5]}` : "Z"}`) : new Date(text);
  return Number.isNaN(date.getTime()) ? null : date;
}

function text(value) {
  return typeof value === "string" && value !== "" ? value : "—";
}

function fact(label, field) {
  return [el("dt", {}, label), el("dd", { "data-field": field }, "—")];
}

function buildFrame(view) {
  const header = el("div", { class: "toolbar" },
    el("h1", { "data-field": "computerName" }, "—"),
    el("span", { class: "spacer" }),
    el("span", { class: "updated", id: "overview-updated" }));
  const errors = el("div", { class: "overview-errors" });
  const panels = el("div", { class: "panels" },
    el("section", { class: "panel" }, el("h2", {}, "Names"),
      el("dl", { class: "facts" },
        fact("Computer name", "computerName"),
        fact("Local host name", "localcastName"),
        fact("Host name", "hostName"),
        fact("Model", "computerModelName"),
        fact("Serial number", "hwSerialNumber"))),
    el("section", { class: "panel" }, el("h2", {}, "Software"),
      el("dl", { class: "facts" },
        fact("System", "systemVersion"),
        fact("Server", "serverVersion"),
        fact("Kernel", "kernelVersion"),
        fact("Started", "bootTime"),
        fact("Up for", "uptime"))),
    el("section", { class: "panel" }, el("h2", {}, "Hardware"),
      el("dl", { class: "facts" },
        fact("Processor", "cpuKind"),
        fact("Processors", "numberOfCPUs"),
        fact("Speed", "cpuSpeed"),
        fact("Memory", "memorySize"),
        fact("Boot volume", "bootVolume"))),
    el("section", { class: "panel" }, el("h2", {}, "Activity"),
      el("div", { class: "bar-row" },
        el("span", { class: "name" }, "CPU now"),
        el("meter", { min: "0", max: "100", low: "70", high: "90", optimum: "0", value: 0, "data-field": "cpuMeter" }),
        el("span", { class: "figure", "data-field": "cpuUsageBy100" }, "—")),
      el("dl", { class: "facts" },
        fact("CPU, last 5 minutes", "cpuAverage5"),
        fact("CPU, last hour", "cpuAverage60"),
        fact("Network", "networkThroughput"),
        fact("Connected users", "numConnectedUsers"))));
  const volumes = el("section", { class: "panel volumes" }, el("h2", {}, "Volumes"),
    el("div", { id: "overview-volumes" }, el("p", { class: "muted" }, "—")));
  const interfaces = el("section", { class: "panel interfaces" }, el("h2", {}, "Network interfaces"),
    el("div", { id: "overview-interfaces" }, el("p", { class: "muted" }, "—")));
  view.append(header, errors, panels, el("div", { class: "panels wide" }, volumes, interfaces));
  return { errors };
}

function setField(view, field, value) {
  for (const node of view.querySelectorAll(`[data-field="${field}"]`)) {
    if (node.tagName === "METER") node.value = Number(value) || 0;
    else node.textContent = value;
  }
}

function volumeRows(volumes) {
  if (!Array.isArray(volumes) || volumes.length === 0) {
    return el("p", { class: "muted" }, "No local volumes were reported.");
  }
  const list = el("div", { class: "volume-list" });
  for (const volume of volumes) {
    const total = Number(volume.totalBytes) || 0;
    const free = Math.min(Number(volume.freeBytes) || 0, total);
    const used = total > 0 ? (total - free) / total : 0;
    list.appendChild(el("div", { class: "bar-row volume", "data-volume": text(volume.name) },
      el("span", { class: "name", title: text(volume.name) }, volume.name || "(no name)"),
      el("meter", { min: "0", max: "1", low: "0.8", high: "0.9", optimum: "0", value: used,
        title: `${format.percent(used)} used` }),
      el("span", { class: "figure" }, `${format.bytes(free)} free of ${format.bytes(total)}`)));
  }
  return list;
}

// The interface descriptions come from the daemon's library as they are;
// show the usual ones and tolerate any that are missing.
function interfaceRows(interfaces) {
  const items = Array.isArray(interfaces) ? interfaces.filter((i) => i && typeof i === "object") : [];
  if (items.length === 0) return el("p", { class: "muted" }, "No network interfaces were reported.");
  const family = { AF_INET: "IPv4", AF_INET6: "IPv6" };
  const body = el("tbody");
  for (const item of items) {
    body.appendChild(el("tr", {},
      el("td", {}, text(item.name)),
      el("td", {}, family[item.family] || text(item.family)),
      el("td", {}, text(item.ipAddress)),
      el("td", {}, text(item.hardwareAddress)),
      el("td", {}, item.isPrimaryIPv4Interface === true ? "primary" : "")));
  }
  return el("table", { class: "data compact" },
    el("thead", {}, el("tr", {}, ["Interface", "Kind", "Address", "Hardware address", ""].map((h) => el("th", {}, h)))),
    body);
}

function fill(view, state) {
  const info = state.computerInfo && typeof state.computerInfo === "object" ? state.computerInfo : {};
  for (const key of ["computerName", "hostName", "hwSerialNumber", "systemVersion", "serverVersion",
    "kernelVersion", "bootVolume"]) {
    setField(view, key, text(state[key]));
  }
  setField(view, "localcastName", state.localcastName ? `${state.localcastName}.local` : "—");
  setField(view, "computerModelName", text(info.computerModelName));
  setField(view, "cpuKind", text(info.cpuKind));
  setField(view, "numberOfCPUs", info.numberOfCPUs === undefined ? "—" : format.number(info.numberOfCPUs));
  setField(view, "cpuSpeed", Number(info.cpuSpeed) > 0 ? `${format.number(info.cpuSpeed / 1e9, 2)} GHz` : "—");
  setField(view, "memorySize", info.memorySize === undefined ? "—" : format.bytes(info.memorySize));

  const boot = parseBootTime(state.bootTime);
  setField(view, "bootTime", boot ? format.dateTime(boot) : "—");
  setField(view, "uptime", boot ? format.duration((Date.now() - boot.getTime()) / 1000) : "—");

  // The average over all processors, in hundredths of a percent.
  const cpu = Number(state.cpuUsageBy100);
  setField(view, "cpuUsageBy100", Number.isFinite(cpu) ? format.hundredths(cpu) : "—");
  setField(view, "cpuMeter", Number.isFinite(cpu) ? Math.min(100, cpu / 100) : 0);
  const averages = Array.isArray(state.cpuHistoryBy100) ? state.cpuHistoryBy100 : [];
  for (const minutes of [5, 60]) {
    const entry = averages.find((a) => Number(a.interval) === minutes);
    setField(view, `cpuAverage${minutes}`, entry ? format.hundredths(entry.cpuUsageBy100) : "—");
  }
  setField(view, "networkThroughput", state.networkThroughput === undefined ? "—" : format.rate(state.networkThroughput));
  setField(view, "numConnectedUsers", state.numConnectedUsers === undefined ? "—" : format.number(state.numConnectedUsers));

  clear(view.querySelector("#overview-volumes")).appendChild(volumeRows(state.volumeInfos));
  clear(view.querySelector("#overview-interfaces")).appendChild(interfaceRows(state.interfaceInfosArray));
  view.querySelector("#overview-updated").textContent = `Updated ${format.time(new Date())}`;
  document.dispatchEvent(new CustomEvent("hubwarden:computer-name", { detail: state.computerName }));
}

export function mount(view) {
  const controller = new AbortController();
  const { errors } = buildFrame(view);
  let timer = 0;
  let filled = false;
  let stopped = false;

  async function poll() {
    timer = 0;
    try {
      const state = await call("getState", { variant: VARIANT }, "Reading the server's state", { signal: controller.signal });
      if (stopped) return;
      if (!state || typeof state !== "object") throw new Error("empty state");
      clear(errors);
      fill(view, state);
      if (!filled) {
        filled = true;
        performance.mark("overview-filled");
        view.setAttribute("data-state", "ready");
      }
    } catch (error) {
      if (stopped || error.name === "AbortError") return;
      clear(errors);
      showError(errors, error.name === "RequestError" ? error : "Reading the server's state failed: the reply was empty.");
      if (!filled) view.setAttribute("data-state", "error");
    }
    schedule();
  }

  // The next poll starts only after the last one ended, so a slow server
  // never has two of ours in flight.
  function schedule() {
    if (stopped || timer) return;
    timer = setTimeout(poll, document.hidden ? HIDDEN_POLL_MS : POLL_MS);
  }

  function onVisibility() {
    // Coming back to the tab: refresh now rather than up to 30 s later.
    if (!document.hidden && timer) {
      clearTimeout(timer);
      timer = 0;
      poll();
    }
  }

  document.addEventListener("visibilitychange", onVisibility);
  poll();
  return {
    unmount() {
      stopped = true;
      clearTimeout(timer);
      controller.abort();
      document.removeEventListener("visibilitychange", onVisibility);
    },
  };
}
