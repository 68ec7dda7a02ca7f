// The server's system logs: the last part of one, and what is added to it
// while following. Reads are windows of the log counted in bytes ("tailFile"
// with an offset and an amount), so following asks only for what lies past
// the end already shown.

import { call, RequestError } from "../api.js";
import { el, clear, showError } from "../dom.js";

const FIRST_WINDOW = 64 * 1024;
const FOLLOW_WINDOW = 256 * 1024;
const FOLLOW_MS = 2000;
// A log that grows for hours must not grow the page with it.
const KEEP_CHARS = 1024 * 1024;
// A busy log may have more than one window waiting; read a few at once.
const CATCH_UP_READS = 4;

const NAMES = {
  systemLog: "System log",
  kernelLog: "Kernel log",
  softwareUpdateLog: "Software update log",
  secureLog: "Security log",
};

const LOG_ERRORS = {
  LOG_FILE_NOT_FOUND_ERR: "this log does not exist on the server or may not be read",
  UNKNOWN_LOG_IDENTIFIER_ERR: "the server does not know this log",
};

// "the system log", for sentences.
function logWords(id) {
  return `the ${(NAMES[id] || id).toLowerCase()}`;
}

// The module's own error names for logs, in words; anything else as the
// request helpers put it.
function explain(error, what) {
  if (error && error.code && LOG_ERRORS[error.code]) {
    return `${what} failed: ${LOG_ERRORS[error.code]}.`;
  }
  return error;
}

function contentsText(value) {
  if (typeof value === "string") return value;
  if (value instanceof Uint8Array) return new TextDecoder().decode(value);
  return "";
}

export function mount(view, session) {
  void session; // logs read the same for every tier
  const controller = new AbortController();
  const options = { signal: controller.signal };
  let timer = 0;
  let identifier = "";
  let nextOffset = null; // where the next read starts; null: counted from the end
  let kept = 0;
  let generation = 0; // bumps when another log is chosen, so late replies are dropped

  const select = el("select", { id: "log-identifier", "aria-label": "Log" });
  const follow = el("input", { id: "log-follow", type: "checkbox" });
  const reload = el("button", { id: "log-reload", type: "button" }, "Reload");
  const path = el("span", { id: "log-path", class: "muted" });
  const problems = el("div", { id: "log-problems", "aria-live": "polite" });
  const text = el("pre", { id: "log-text", tabindex: "0" });

  clear(view);
  view.append(
    el("h1", {}, "Logs"),
    el(
      "div",
      { class: "toolbar" },
      el("label", { for: "log-identifier" }, "Log"),
      select,
      el("label", {}, follow, " Follow"),
      reload,
      el("span", { class: "spacer" }),
      path,
    ),
    problems,
    text,
  );
  view.dataset.state = "loading";

  function replaceText(contents) {
    clear(text);
    kept = 0;
    appendText(contents);
  }

  function appendText(contents) {
    if (contents === "") return;
    text.append(document.createTextNode(contents));
    kept += contents.length;
    while (kept > KEEP_CHARS && text.firstChild) {
      const first = text.firstChild;
      const excess = kept - KEEP_CHARS;
      if (first.data.length <= excess) {
        kept -= first.data.length;
        first.remove();
      } else {
        // Cut at a line end so the first line shown is a whole one.
        const cut = first.data.indexOf("\n", excess);
        const drop = cut === -1 ? first.data.length : cut + 1;
        first.deleteData(0, drop);
        kept -= drop;
      }
    }
  }

  function scrollToEnd() {
    text.scrollTop = text.scrollHeight;
  }

  async function tail(offset, amount) {
    return call("tailFile", { identifier, offset, amount }, `Reading ${logWords(identifier)}`, options);
  }

  // Where a window ends, when that can be told from its start: a window
  // counted back from the end of a journal says so with a negative offset.
  function endOf(reply) {
    return typeof reply.offset === "number" && reply.offset >= 0 && typeof reply.amount === "number"
      ? reply.offset + reply.amount
      : null;
  }

  async function showLast() {
    const mine = generation;
    clear(problems);
    const reply = await tail(-FIRST_WINDOW, FIRST_WINDOW);
    if (mine !== generation || controller.signal.aborted) return;
    if (!reply) throw new RequestError("Reading the log failed: the server sent nothing.");
    path.textContent = typeof reply.path === "string" ? reply.path : "";
    replaceText(contentsText(reply.tailContents));
    nextOffset = endOf(reply);
    scrollToEnd();
  }

  async function readMore() {
    const mine = generation;
    if (nextOffset === null) {
      // No position to go on from: show the end afresh.
      await showLast();
      return;
    }
    for (let i = 0; i < CATCH_UP_READS; i++) {
      const reply = await tail(nextOffset, FOLLOW_WINDOW);
      if (mine !== generation || controller.signal.aborted || !reply) return;
      if (typeof reply.offset === "number" && reply.offset < nextOffset) {
        // The log is shorter than what was shown: it was rotated or emptied.
        await showLast();
        text.prepend(document.createTextNode("\u2014 the log was started afresh \u2014\n"));
        return;
      }
      const contents = contentsText(reply.tailContents);
      appendText(contents);
      nextOffset = endOf(reply) ?? nextOffset;
      if (reply.amount < FOLLOW_WINDOW) break;
    }
    scrollToEnd();
  }

  function schedule() {
    clearTimeout(timer);
    if (!follow.checked || controller.signal.aborted) return;
    timer = setTimeout(async () => {
      try {
        await readMore();
        clear(problems);
      } catch (error) {
        if (controller.signal.aborted) return;
        clear(problems);
        showError(problems, explain(error, `Following ${logWords(identifier)}`));
      }
      schedule();
    }, FOLLOW_MS);
  }

  async function open() {
    generation += 1;
    clearTimeout(timer);
    identifier = select.value;
    nextOffset = null;
    path.textContent = "";
    replaceText("");
    try {
      await showLast();
      view.dataset.state = "ready";
    } catch (error) {
      if (controller.signal.aborted) return;
      clear(problems);
      showError(problems, explain(error, `Reading ${logWords(identifier)}`));
      // The page itself works; only this log could not be read.
      view.dataset.state = "ready";
    }
    schedule();
  }

  async function load() {
    try {
      const paths = await call("getSystemLogPaths", {}, "Listing the logs", options);
      if (controller.signal.aborted) return;
      const entries = Object.entries(paths && typeof paths === "object" ? paths : {}).filter(
        ([, p]) => typeof p === "string",
      );
      if (entries.length === 0) throw new RequestError("Listing the logs failed: the server lists none.");
      entries.sort(([a], [b]) => (NAMES[a] || a).localeCompare(NAMES[b] || b));
      for (const [id, p] of entries) {
        select.append(el("option", { value: id, title: p }, NAMES[id] || id));
      }
      select.value = "systemLog" in Object.fromEntries(entries) ? "systemLog" : entries[0][0];
      await open();
    } catch (error) {
      if (controller.signal.aborted) return;
      clear(problems);
      showError(problems, error);
      view.dataset.state = "error";
    }
  }

  select.addEventListener("change", open);
  reload.addEventListener("click", open);
  follow.addEventListener("change", () => {
    if (follow.checked) {
      scrollToEnd();
      schedule();
    } else {
      clearTimeout(timer);
    }
  });

  load();
  return {
    unmount() {
      clearTimeout(timer);
      controller.abort();
    },
  };
}
