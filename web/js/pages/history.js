// History: the stored load samples over a chosen span, drawn with uPlot
// (the global from vendor/uPlot.iife.min.js). The reply's legend says what
// each sample position holds and by which factor to scale it, so the page
// reads series by legend name rather than by fixed position.

import { call } from "../api.js";
import { el, clear, showError } from "../dom.js";
import * as format from "../format.js";

const SCALES = [
  [3600, "1 hour"],
  [21600, "6 hours"],
  [43200, "12 hours"],
  [86400, "1 day"],
  [259200, "3 days"],
  [604800, "7 days"],
];

// Each choice draws one group of sample positions sharing a unit. Names are
// the legend texts of the reply; a series with no value at all (a fourth
// processor on a two-processor machine) is left out.
const GROUPS = {
  cpu: {
    label: "CPU usage",
    keys: "v1,v3,v4,v9,v10",
    legends: [["CPU_USAGE", "All processors"], ["CPU1_USAGE", "Processor 1"], ["CPU2_USAGE", "Processor 2"],
      ["CPU3_USAGE", "Processor 3"], ["CPU4_USAGE", "Processor 4"]],
    value: (v) => `${format.number(v, 1)}%`,
    range: [0, 100],
  },
  network: {
    label: "Network throughput",
    keys: "v2,v15,v16,v5,v6,v7,v8",
    legends: [["NETWORK_THROUGHPUT", "Total"], ["NETWORK_INPUT", "In"], ["NETWORK_OUTPUT", "Out"],
      ["NETWORK_THROUGHPUT_EN0", "en0"], ["NETWORK_THROUGHPUT_EN1", "en1"],
      ["NETWORK_THROUGHPUT_EN2", "en2"], ["NETWORK_THROUGHPUT_EN3", "en3"]],
    value: (v) => format.rate(v),
  },
  volume: {
    label: "Boot volume free space",
    keys: "v17",
    legends: [["BOOT_VOLUME_FREE_BYTES", "Free space"]],
    value: (v) => format.bytes(v),
  },
  volumePercent: {
    label: "Boot volume free space (%)",
    keys: "v18",
    legends: [["BOOT_VOLUME_FREE_PERCENTAGE", "Free space"]],
    value: (v) => `${format.number(v, 1)}%`,
    range: [0, 100],
  },
};

const COLORS = ["#1f63b8", "#d9480f", "#2b8a3e", "#862e9c", "#c92a6b", "#0b7285", "#e67700"];
const CHART_HEIGHT = 360;

// Positions are numbered from 1 in the legend keys: "v3Legend" names "v3".
function positionsByLegend(reply) {
  const found = new Map();
  for (const [key, value] of Object.entries(reply)) {
    const m = /^v(\d+)Legend$/.exec(key);
    if (m && typeof value === "string") {
      const factor = Number(reply[`v${m[1]}Factor`]);
      found.set(value, { key: `v${m[1]}`, factor: Number.isFinite(factor) ? factor : 1 });
    }
  }
  return found;
}

function toNumberOrNull(value) {
  if (value === "" || value === null || value === undefined) return null;
  const n = Number(value);
  return Number.isFinite(n) ? n : null;
}

// Columns for uPlot: [times, series...], nulls where a sample had no value.
export function buildColumns(reply, group) {
  const samples = Array.isArray(reply.samplesArray) ? reply.samplesArray : [];
  const legend = positionsByLegend(reply);
  const times = new Float64Array(samples.length);
  samples.forEach((s, i) => { times[i] = Number(s && s.t) || 0; });
  const series = [];
  for (const [name, label] of group.legends) {
    const position = legend.get(name);
    if (!position) continue;
    const column = new Array(samples.length);
    let points = 0;
    for (let i = 0; i < samples.length; i++) {
      const v = toNumberOrNull(samples[i] && samples[i][position.key]);
      column[i] = v === null ? null : v * position.factor;
      if (v !== null) points++;
    }
    if (points > 0) series.push({ label, column, points });
  }
  return { times, series };
}

function axisValues(group) {
  return (_u, splits) => splits.map((v) => (v === null ? "" : group.value(v)));
}

export function mount(view) {
  const controller = new AbortController();
  let chart = null;
  let stopped = false;
  let generation = 0;

  const scale = el("select", { id: "history-scale" },
    SCALES.map(([seconds, label]) => el("option", { value: String(seconds) }, label)));
  scale.value = "3600";
  const seriesSelect = el("select", { id: "history-series" },
    Object.entries(GROUPS).map(([key, group]) => el("option", { value: key }, group.label)));
  const refresh = el("button", { type: "button", id: "history-refresh" }, "Refresh");
  const status = el("span", { class: "updated" });
  const chartBox = el("div", { id: "history-chart", class: "panel history-chart" });
  const errors = el("div");
  view.append(
    el("div", { class: "toolbar" },
      el("h1", {}, "History"),
      el("label", { for: "history-series" }, "Show", seriesSelect),
      el("label", { for: "history-scale" }, "over the last", scale),
      refresh,
      el("span", { class: "spacer" }),
      status),
    errors,
    chartBox);

  function chartWidth() {
    return Math.max(300, chartBox.clientWidth - 30);
  }

  function destroyChart() {
    if (chart) chart.destroy();
    chart = null;
  }

  function draw(reply, groupKey) {
    const group = GROUPS[groupKey];
    const { times, series } = buildColumns(reply, group);
    destroyChart();
    clear(chartBox);
    chartBox.removeAttribute("data-points");
    chartBox.removeAttribute("data-draw-ms");
    if (series.length === 0 || times.length === 0) {
      chartBox.setAttribute("data-points", "0");
      chartBox.appendChild(el("p", { class: "empty-message" },
        "No history has been recorded for this span yet. The server records a sample every few seconds while it runs."));
      return;
    }
    if (typeof window.uPlot !== "function") {
      showError(chartBox, "The chart could not be drawn: the charting library did not load.");
      return;
    }
    const options = {
      width: chartWidth(),
      height: CHART_HEIGHT,
      scales: { x: { time: true }, y: group.range ? { range: group.range } : { range: (_u, min, max) => [0, max > 0 ? max * 1.1 : 1] } },
      series: [
        { label: "Time", value: (_u, t) => (t === null ? "" : format.dateTime(t)) },
        ...series.map((s, i) => ({
          label: s.label,
          stroke: COLORS[i % COLORS.length],
          width: i === 0 ? 2 : 1,
          spanGaps: false,
          value: (_u, v) => (v === null ? "—" : group.value(v)),
        })),
      ],
      axes: [{}, { values: axisValues(group), size: 80 }],
      hooks: {},
    };
    // uPlot paints in a microtask after construction; the draw hook marks
    // the end of the first paint.
    const started = performance.now();
    let measured = false;
    options.hooks.draw = [() => {
      if (measured) return;
      measured = true;
      chartBox.setAttribute("data-draw-ms", (performance.now() - started).toFixed(1));
      chartBox.setAttribute("data-points", String(series[0].points));
    }];
    chart = new window.uPlot(options, [times, ...series.map((s) => s.column)], chartBox);
  }

  async function load() {
    const ticket = ++generation;
    const groupKey = seriesSelect.value;
    const timeScale = Number(scale.value);
    // Only the positions this chart draws travel over the wire.
    view.setAttribute("data-state", "loading");
    clear(errors);
    status.textContent = "Loading…";
    refresh.disabled = true;
    try {
      const fields = { timeScale, variant: GROUPS[groupKey].keys };
      const reply = await call("getHistory", fields, "Reading the history", { signal: controller.signal });
      if (stopped || ticket !== generation) return;
      if (!reply || typeof reply !== "object") throw "Reading the history failed: the server sent no history.";
      draw(reply, groupKey);
      status.textContent = `${format.number(reply.nbSamples ?? 0)} samples · updated ${format.time(new Date())}`;
      view.setAttribute("data-state", "ready");
    } catch (error) {
      if (stopped || ticket !== generation || (error && error.name === "AbortError")) return;
      status.textContent = "";
      showError(errors, error);
      view.setAttribute("data-state", "error");
    } finally {
      if (ticket === generation) refresh.disabled = false;
    }
  }

  let resizeFrame = 0;
  function onResize() {
    if (resizeFrame) return;
    resizeFrame = requestAnimationFrame(() => {
      resizeFrame = 0;
      if (chart) chart.setSize({ width: chartWidth(), height: CHART_HEIGHT });
    });
  }

  scale.addEventListener("change", load);
  seriesSelect.addEventListener("change", load);
  refresh.addEventListener("click", load);
  window.addEventListener("resize", onResize);
  load();

  return {
    unmount() {
      stopped = true;
      controller.abort();
      cancelAnimationFrame(resizeFrame);
      window.removeEventListener("resize", onResize);
      destroyChart();
    },
  };
}
