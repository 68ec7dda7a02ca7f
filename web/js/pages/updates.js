// Software updates: the update tool's last report, scans and installs it
// runs in the background, the ignore list and the restart that some
// installs need. The tool reports through its status file; this page only
// reads that report back, more often while a job runs.

import { call } from "../api.js";
import { el, clear, showError, confirmDialog } from "../dom.js";
import { bytes } from "../format.js";

const BUSY_POLL_MS = 2000;
const IDLE_POLL_MS = 30000;
// A job just asked for may take a moment to write its first report; the old
// report stays on screen until then, so keep polling quickly for a while.
const START_GRACE_MS = 60000;

const FINISHED = new Set(["DONE", "UPTODATE"]);

const PHASE_WORDS = {
  DOWNLOADING_CATALOG: "Refreshing the list of available software\u2026",
  SCANNING: "Looking for updates\u2026",
  INSTALLING: "Installing updates\u2026",
  DONE: "Finished.",
  UPTODATE: "The software is up to date.",
};

const ENTRY_WORDS = {
  PENDING: "Waiting",
  DONE: "Installed",
  FAILED: "Failed",
  NOT_INSTALLED: "Not installed",
  NOT_FOUND: "Not found",
};

const START_WORDS = {
  REQUEST_STARTED: "started",
  REQUEST_QUEUED: "queued; it starts when the running job ends",
  RESTART_REQUIRED: "refused: the server must be restarted first",
  PARAMETER_ERROR: "refused: the request was not understood",
};

function asDict(value) {
  return value && typeof value === "object" && !Array.isArray(value) && !(value instanceof Date) ? value : {};
}

function text(value) {
  return typeof value === "string" ? value : "";
}

function flag(value) {
  return value === true || value === "YES" || (typeof value === "number" && value !== 0);
}

function entriesOf(status) {
  const list = Array.isArray(status.phaseResultsArray) ? status.phaseResultsArray : [];
  return list.map(asDict).filter((e) => text(e.identifier) !== "");
}

export function mount(view, session) {
  const controller = new AbortController();
  const options = { signal: controller.signal };
  const isAdmin = session && session.tier === "admin";
  let timer = 0;
  let expectUntil = 0; // while a job we asked for has not reported yet
  let startedPid = null; // the report's pid when we asked: a new one means the new job has begun
  let lastPid = null;
  let selected = new Set();
  let lastEntries = [];

  const statusLine = el("p", { id: "update-status", role: "status", "aria-live": "polite" }, "Reading the status\u2026");
  const progress = el("progress", { id: "update-progress", hidden: true });
  const notes = el("div", { id: "update-notes" });
  const message = el("div", { id: "update-message", "aria-live": "polite" });
  const tableWrap = el("div", { class: "table-wrap" });

  const scan = isAdmin ? el("button", { id: "update-scan", type: "button" }, "Check for updates") : null;
  const install = isAdmin ? el("button", { id: "update-install", type: "button", class: "primary" }, "Install selected") : null;
  const ignore = isAdmin ? el("button", { id: "update-ignore", type: "button" }, "Ignore selected") : null;
  const reset = isAdmin ? el("button", { id: "update-reset-ignored", type: "button" }, "Show ignored updates again") : null;
  const reboot = isAdmin ? el("button", { id: "update-reboot", type: "button", class: "danger" }, "Restart server\u2026") : null;

  clear(view);
  view.append(
    el("h1", {}, "Software update"),
    el("div", { class: "toolbar" }, el("div", { class: "update-progress" }, statusLine, progress), el("span", { class: "spacer" }), scan, reboot),
    notes,
    message,
    tableWrap,
    isAdmin ? el("div", { class: "toolbar" }, install, ignore, reset) : null,
  );
  view.dataset.state = "loading";

  function say(words, ok) {
    clear(message);
    message.append(el("p", { class: ok ? "ok-message" : "error-message" }, words));
  }

  function updateButtons(busy, available) {
    if (!isAdmin) return;
    const none = selected.size === 0;
    scan.disabled = !available;
    install.disabled = !available || none;
    ignore.disabled = !available || none;
    reset.disabled = !available || busy;
  }

  function renderTable(entries, busy, available) {
    lastEntries = entries;
    const known = new Set(entries.map((e) => e.identifier));
    selected = new Set([...selected].filter((id) => known.has(id)));
    clear(tableWrap);
    if (entries.length === 0) {
      tableWrap.append(el("p", { class: "empty-message" }, "No updates are listed. Check for updates to look again."));
      updateButtons(busy, available);
      return;
    }
    const head = el(
      "tr",
      {},
      isAdmin ? el("th", { scope: "col" }, el("span", { class: "muted" }, "Select")) : null,
      el("th", { scope: "col" }, "Name"),
      el("th", { scope: "col" }, "Version"),
      el("th", { scope: "col", class: "numeric" }, "Size"),
      el("th", { scope: "col" }, "Restart needed"),
      el("th", { scope: "col" }, "State"),
      el("th", { scope: "col" }, "Description"),
    );
    const body = el("tbody");
    for (const entry of entries) {
      const id = entry.identifier;
      const size = typeof entry.sizeInKB === "number" ? bytes(entry.sizeInKB * 1024) : "";
      const states = [];
      if (flag(entry.ignored)) states.push("Ignored");
      const phase = text(entry.phase);
      if (phase) states.push(ENTRY_WORDS[phase] || phase);
      const box = isAdmin
        ? el("input", {
            type: "checkbox",
            class: "select-update",
            "aria-label": `Select ${text(entry.name) || id}`,
            checked: selected.has(id),
            on: {
              change: (event) => {
                if (event.target.checked) selected.add(id);
                else selected.delete(id);
                updateButtons(busy, available);
              },
            },
          })
        : null;
      body.append(
        el(
          "tr",
          { "data-identifier": id, class: selected.has(id) ? "selected" : undefined },
          box ? el("td", {}, box) : null,
          el("td", { title: id }, text(entry.name) || id),
          el("td", {}, text(entry.version)),
          el("td", { class: "numeric" }, size),
          el("td", { class: "flag" }, flag(entry.restartRequired) ? "Yes" : "No"),
          el("td", {}, states.join(", ")),
          el("td", { class: "wrap" }, text(entry.description)),
        ),
      );
    }
    tableWrap.append(el("table", { id: "update-table", class: "data" }, el("thead", {}, head), body));
    updateButtons(busy, available);
  }

  function show(reply) {
    const available = Boolean(reply) && "startSWUpdateScanVersion" in reply;
    const status = asDict(reply && reply.swupdateStatus);
    const phase = text(status.phase);
    const pid = typeof status.pid === "number" ? status.pid : null;
    lastPid = pid;
    const running = phase !== "" && !FINISHED.has(phase);
    if (expectUntil && (running || (pid !== null && pid !== startedPid) || Date.now() > expectUntil)) {
      // The job we asked for has reported (or never will).
      expectUntil = running ? expectUntil : 0;
    }
    const busy = running || expectUntil !== 0;

    if (!available) {
      statusLine.textContent = "Software update is not available on this server.";
    } else if (phase === "") {
      statusLine.textContent = busy ? "Starting\u2026" : "No check has been made since the server started.";
    } else {
      statusLine.textContent = PHASE_WORDS[phase] || `Working (${phase})\u2026`;
    }
    progress.hidden = !busy;

    clear(notes);
    if (flag(status.restartRequired)) {
      notes.append(el("p", { class: "note" }, "An installed update needs the server to restart before it takes effect."));
    }
    if (text(status.error)) {
      notes.append(el("p", { class: "error-message" }, `The update tool reported a problem: ${text(status.error)}`));
    }
    renderTable(entriesOf(status), busy, available);
    return busy;
  }

  async function refresh() {
    clearTimeout(timer);
    let busy = false;
    try {
      const reply = await call("getSWUpdateStatus", {}, "Reading the software update status", options);
      if (controller.signal.aborted) return;
      busy = show(reply);
      view.dataset.state = "ready";
    } catch (error) {
      if (controller.signal.aborted) return;
      clear(message);
      showError(message, error);
      if (view.dataset.state === "loading") {
        statusLine.textContent = "The status could not be read.";
        view.dataset.state = "error";
      }
    }
    if (!controller.signal.aborted) timer = setTimeout(refresh, busy ? BUSY_POLL_MS : IDLE_POLL_MS);
  }

  async function act(button, work) {
    button.disabled = true;
    clear(message);
    try {
      await work();
    } catch (error) {
      if (controller.signal.aborted) return;
      showError(message, error);
    } finally {
      button.disabled = false;
    }
    if (!controller.signal.aborted) await refresh();
  }

  function startWords(what, reply) {
    const result = text(reply && reply.result);
    const words = START_WORDS[result] || (result ? `answered ${result}` : "gave no answer");
    const ok = result === "REQUEST_STARTED" || result === "REQUEST_QUEUED";
    say(`${what} ${words}.`, ok);
    if (ok) {
      startedPid = lastPid;
      expectUntil = Date.now() + START_GRACE_MS;
    }
  }

  if (isAdmin) {
    scan.addEventListener("click", () =>
      act(scan, async () => {
        const reply = await call("startSWUpdateScan", { language: navigator.language || "en" }, "Checking for updates", options);
        startWords("The check for updates was", reply);
      }),
    );
    install.addEventListener("click", () =>
      act(install, async () => {
        const identifiers = lastEntries.map((e) => e.identifier).filter((id) => selected.has(id));
        if (identifiers.length === 0) return;
        const reply = await call(
          "startSWUpdateInstall",
          { swupdatesArray: identifiers, language: navigator.language || "en" },
          "Installing the selected updates",
          options,
        );
        startWords(`The installation of ${identifiers.length} update${identifiers.length === 1 ? "" : "s"} was`, reply);
      }),
    );
    ignore.addEventListener("click", () =>
      act(ignore, async () => {
        const identifiers = lastEntries.map((e) => e.identifier).filter((id) => selected.has(id));
        if (identifiers.length === 0) return;
        await call("ignoreUpdateIdentifiers", { identifiersToIgnore: identifiers }, "Ignoring the selected updates", options);
        selected.clear();
        say(`${identifiers.length} update${identifiers.length === 1 ? " is" : "s are"} now ignored.`, true);
      }),
    );
    reset.addEventListener("click", () =>
      act(reset, async () => {
        await call("resetIgnoredUpdateIdentifiers", {}, "Showing ignored updates again", options);
        say("Ignored updates are listed again.", true);
      }),
    );
    reboot.addEventListener("click", async () => {
      const sure = await confirmDialog(
        "Restart the server now? Everyone connected to it loses their connection until it is back.",
        "Restart",
      );
      if (!sure || controller.signal.aborted) return;
      await act(reboot, async () => {
        const reply = await call("reboot", {}, "Restarting the server", options);
        const code = reply ? reply.status : undefined;
        if (code === 0) {
          say("The server is restarting.", true);
        } else {
          const why = text(reply && reply.rebootStatus);
          say(`The server could not be restarted${why ? `: ${why}` : "."}`, false);
        }
      });
    });
  }

  refresh();
  return {
    unmount() {
      clearTimeout(timer);
      controller.abort();
    },
  };
}
