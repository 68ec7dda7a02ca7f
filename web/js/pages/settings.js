// Server-wide settings: everything "readSettings" gives, grouped the way a
// person looks for it. Saving sends only what was changed, so a save never
// rewrites a setting (and restarts the service behind it) that nobody
// touched. Monitors get the same values as plain text, with no controls.

import { call, getJSON, RequestError } from "../api.js";
import { el, clear, showError } from "../dom.js";
import { dateTime } from "../format.js";
import { writeStatusText } from "../write_status.js";

const SWITCHES = [
  ["enableSSH", "Remote login (SSH)"],
  ["enableScreenlink", "Remote desktop"],
  ["enableFileSyncAgent", "File sync agent"],
  ["enableSNMP", "SNMP"],
];

const NOTIFICATIONS = [
  ["diskFull", "A disk is low on free space", true],
  ["suAvailable", "Software updates are available", false],
  ["certificateExpiration", "A certificate is about to expire", false],
];

const CITY_SEARCH_DELAY_MS = 250;

function asSeconds(value) {
  if (value instanceof Date) return Math.floor(value.getTime() / 1000);
  return typeof value === "number" ? value : 0;
}

function asString(value) {
  return typeof value === "string" ? value : "";
}

function asDict(value) {
  return value && typeof value === "object" && !Array.isArray(value) && !(value instanceof Date) ? value : {};
}

// "2026-11-23T10:00:05" in the browser's time zone, as datetime-local wants.
function localInputValue(seconds) {
  const d = new Date(seconds * 1000);
  const pad = (n) => String(n).padStart(2, "0");
  return (
    `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}` +
    `T${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`
  );
}

function cityLabel(city) {
  return `${asString(city.name)}, ${asString(city.country)} \u2014 ${asString(city.zone)}`;
}

function section(title, ...children) {
  return el("section", { class: "panel settings-group" }, el("h2", {}, title), ...children);
}

function row(label, control, hint) {
  const id = control.id || undefined;
  return el(
    "div",
    { class: "settings-row" },
    el("label", id ? { for: id } : {}, label),
    control,
    hint ? el("span", { class: "muted settings-hint" }, hint) : "",
  );
}

function readOnlyRow(key, label, text) {
  return el(
    "div",
    { class: "settings-row" },
    el("span", { class: "settings-label" }, label),
    el("span", { id: `setting-${key}`, class: "settings-value" }, text),
  );
}

function onOff(value) {
  return value ? "On" : "Off";
}

// One editable setting: a control plus how to tell whether it changed and
// what to send for it.
function textField(key, value) {
  const input = el("input", { id: `setting-${key}`, type: "text", autocomplete: "off" });
  input.value = asString(value);
  return {
    key,
    control: input,
    changed: () => input.value !== asString(value),
    value: () => input.value,
  };
}

function checkField(key, value) {
  const input = el("input", { id: `setting-${key}`, type: "checkbox" });
  input.checked = Boolean(value);
  return {
    key,
    control: input,
    changed: () => input.checked !== Boolean(value),
    value: () => input.checked,
  };
}

function clockField(value) {
  const input = el("input", { id: "setting-currentTime", type: "datetime-local", step: "1" });
  input.value = localInputValue(asSeconds(value));
  let edited = false;
  input.addEventListener("input", () => {
    edited = true;
  });
  const now = el(
    "button",
    {
      type: "button",
      class: "secondary",
      on: {
        click: () => {
          input.value = localInputValue(Math.floor(Date.now() / 1000));
          edited = true;
        },
      },
    },
    "Use this computer's time",
  );
  return {
    key: "currentTime",
    control: input,
    extra: now,
    // The clock moves on its own; only a time the person typed counts.
    changed: () => edited && input.value !== "" && !Number.isNaN(Date.parse(input.value)),
    value: () => Math.floor(new Date(input.value).getTime() / 1000),
  };
}

// The time zone is chosen by city; the daemon searches its city table.
function cityField(value, timeZone, signal) {
  const original = typeof value === "number" ? value : 0;
  let chosen = original;
  const shown = el(
    "output",
    { id: "setting-cityRecord", "data-value": String(original) },
    original ? `City ${original} \u2014 ${asString(timeZone)}` : "No city chosen",
  );
  const search = el("input", {
    id: "city-search",
    type: "search",
    placeholder: "Search for a city",
    autocomplete: "off",
    "aria-controls": "city-results",
  });
  const results = el("ul", { id: "city-results", class: "city-results" });
  // Enter in the search box picks nothing and must not save the form.
  search.addEventListener("keydown", (event) => {
    if (event.key === "Enter") event.preventDefault();
  });
  let timer = 0;
  let pending = null;

  async function lookUp(text) {
    if (pending) pending.abort();
    pending = new AbortController();
    const mine = pending;
    try {
      const cities = await getJSON(
        `/console/cities?q=${encodeURIComponent(text)}&limit=20`,
        "The city search",
        { signal: mine.signal },
      );
      if (mine.signal.aborted || signal.aborted) return;
      clear(results);
      const list = Array.isArray(cities) ? cities : [];
      if (list.length === 0) results.append(el("li", { class: "muted settings-hint" }, "No city found."));
      for (const city of list) {
        const id = Number(city.geonameid);
        results.append(
          el(
            "li",
            {},
            el(
              "button",
              {
                type: "button",
                class: "city-choice",
                "data-geonameid": String(id),
                on: {
                  click: () => {
                    chosen = id;
                    shown.textContent = cityLabel(city);
                    shown.dataset.value = String(id);
                    clear(results);
                    search.value = "";
                  },
                },
              },
              cityLabel(city),
            ),
          ),
        );
      }
    } catch (error) {
      if (mine.signal.aborted || signal.aborted) return;
      clear(results);
      const item = el("li", {});
      results.append(item);
      showError(item, error);
    }
  }

  search.addEventListener("input", () => {
    clearTimeout(timer);
    const text = search.value.trim();
    if (text === "") {
      clear(results);
      return;
    }
    timer = setTimeout(() => lookUp(text), CITY_SEARCH_DELAY_MS);
  });
  signal.addEventListener("abort", () => {
    clearTimeout(timer);
    if (pending) pending.abort();
  });

  return {
    key: "cityRecord",
    control: shown,
    extra: el("div", { class: "city-search" }, search, results),
    changed: () => chosen !== original,
    value: () => chosen,
  };
}

function recipientsOf(rule) {
  return Array.isArray(rule.who) ? rule.who.filter((w) => w && typeof w === "object") : [];
}

// The notification rules, kept whole: members this page does not know
// about go back to the server as they came.
function notificationsField(value) {
  const original = asDict(value);
  const state = structuredClone(original);
  const body = el("div", { id: "setting-notifications", class: "notifications" });

  for (const [name, title, hasThreshold] of NOTIFICATIONS) {
    const rule = asDict(state[name]);
    state[name] = rule;
    rule.who = recipientsOf(rule);

    const active = el("input", { id: `notify-${name}-active`, type: "checkbox" });
    active.checked = Boolean(rule.active);
    active.addEventListener("change", () => {
      rule.active = active.checked;
    });

    const parts = [el("label", { class: "notify-title" }, active, " Send these e-mails")];

    if (hasThreshold) {
      const threshold = el("input", {
        id: `notify-${name}-threshold`,
        type: "number",
        min: "0",
        max: "100",
        step: "0.5",
      });
      threshold.value = typeof rule.freeSpaceThreshold === "number" ? String(rule.freeSpaceThreshold) : "";
      threshold.addEventListener("input", () => {
        const n = Number.parseFloat(threshold.value);
        if (Number.isFinite(n)) rule.freeSpaceThreshold = n;
      });
      parts.push(row("Warn when free space falls below (%)", threshold));
    }

    const list = el("ul", { id: `notify-${name}-who`, class: "recipients" });
    const drawList = () => {
      clear(list);
      if (rule.who.length === 0) list.append(el("li", { class: "muted settings-hint" }, "Nobody is told."));
      rule.who.forEach((entry, index) => {
        list.append(
          el(
            "li",
            { class: "recipient" },
            el("span", {}, asString(entry.email)),
            el(
              "button",
              {
                type: "button",
                class: "secondary remove-recipient",
                "aria-label": `Remove ${asString(entry.email)}`,
                on: {
                  click: () => {
                    rule.who.splice(index, 1);
                    drawList();
                  },
                },
              },
              "Remove",
            ),
          ),
        );
      });
    };
    drawList();

    const address = el("input", {
      id: `notify-${name}-add`,
      type: "email",
      placeholder: "name@example.com",
      autocomplete: "off",
    });
    const problem = el("span", { class: "muted settings-hint", role: "status" });
    const add = () => {
      const text = address.value.trim();
      problem.textContent = "";
      if (text === "") return;
      if (!address.checkValidity() || text.includes(",")) {
        problem.textContent = "That is not an e-mail address.";
        return;
      }
      if (rule.who.some((w) => w.email === text)) {
        problem.textContent = "That address is already on the list.";
        return;
      }
      rule.who.push({ email: text });
      address.value = "";
      drawList();
    };
    address.addEventListener("keydown", (event) => {
      if (event.key === "Enter") {
        event.preventDefault();
        add();
      }
    });
    parts.push(
      el("div", { class: "settings-label" }, "Send e-mail to"),
      list,
      el(
        "div",
        { class: "recipient-add" },
        address,
        el("button", { type: "button", class: "secondary", id: `notify-${name}-add-button`, on: { click: add } }, "Add"),
        problem,
      ),
    );
    body.append(el("fieldset", { class: "notification", "data-rule": name }, el("legend", {}, title), ...parts));
  }

  // Compared with the tidied copy, so that tidying alone is no change.
  const baseline = JSON.stringify(state);
  return {
    key: "notifications",
    control: body,
    changed: () => JSON.stringify(state) !== baseline,
    value: () => state,
  };
}

function notificationsText(value) {
  const settings = asDict(value);
  return NOTIFICATIONS.map(([name, title, hasThreshold]) => {
    const rule = asDict(settings[name]);
    const who = recipientsOf(rule).map((w) => asString(w.email));
    let text = `${title}: ${onOff(rule.active)}`;
    if (hasThreshold && typeof rule.freeSpaceThreshold === "number") text += `, below ${rule.freeSpaceThreshold}% free`;
    text += who.length ? `, to ${who.join(", ")}` : ", nobody is told";
    return el("li", { "data-rule": name }, text);
  });
}

function configuredServices(config) {
  const services = asDict(asDict(config).services);
  return Object.keys(services)
    .filter((id) => asDict(services[id]).configured === true)
    .map((id) => id.replace(/^com\.marlo\.Overseer\./, ""))
    .sort();
}

function serviceSummary(config) {
  const configured = configuredServices(config.serviceConfig);
  const available = Array.isArray(config.availableServices) ? config.availableServices.map(asString) : [];
  const groups = [config.accessControlLists, config.adminControlLists, config.monitorControlLists].reduce(
    (n, lists) => n + (Array.isArray(lists) ? lists.length : 0),
    0,
  );
  return section(
    "Services",
    readOnlyRow("serviceConfig", "Set up", configured.length ? configured.join(", ") : "None yet"),
    readOnlyRow("availableServices", "Loaded modules", available.length ? available.join(", ") : "None reported"),
    el(
      "p",
      { class: "muted settings-hint" },
      `${groups} access group${groups === 1 ? "" : "s"} exist. Who may use, administer or monitor each service is set on the `,
      el("a", { href: "#/services" }, "Services page"),
      ".",
    ),
  );
}

function renderReadOnly(container, config) {
  container.append(
    section(
      "Names",
      readOnlyRow("computerName", "Computer name", asString(config.computerName)),
      readOnlyRow("localcastName", "Local host name", asString(config.localcastName)),
    ),
    section(
      "Time",
      readOnlyRow("currentTime", "Server time", dateTime(new Date(asSeconds(config.currentTime) * 1000))),
      readOnlyRow("timeZone", "Time zone", asString(config.timeZone)),
      readOnlyRow(
        "cityRecord",
        "City",
        typeof config.cityRecord === "number" && config.cityRecord ? String(config.cityRecord) : "None chosen",
      ),
      readOnlyRow("ntpTimeSync", "Set the clock from a time server", onOff(config.ntpTimeSync)),
      readOnlyRow("ntpTimeServe", "Serve time to other computers", onOff(config.ntpTimeServe)),
      readOnlyRow("ntpServerName", "Time server", asString(config.ntpServerName)),
    ),
    section("Switches", ...SWITCHES.map(([key, label]) => readOnlyRow(key, label, onOff(config[key])))),
    section(
      "Client discovery",
      readOnlyRow("enableClientDiscovery", "Let clients find and set themselves up from this server", onOff(config.enableClientDiscovery)),
    ),
    section(
      "Notifications",
      el("ul", { id: "setting-notifications", class: "notifications" }, ...notificationsText(config.notifications)),
    ),
    serviceSummary(config),
  );
}

function renderEditable(container, config, signal) {
  const fields = [];
  const add = (field) => {
    fields.push(field);
    return field;
  };
  const control = (field) => [field.control, field.extra || ""];

  const computer = add(textField("computerName", config.computerName));
  const localcast = add(textField("localcastName", config.localcastName));
  const clock = add(clockField(config.currentTime));
  const city = add(cityField(config.cityRecord, config.timeZone, signal));
  const sync = add(checkField("ntpTimeSync", config.ntpTimeSync));
  const serve = add(checkField("ntpTimeServe", config.ntpTimeServe));
  const server = add(textField("ntpServerName", config.ntpServerName));
  const switches = SWITCHES.map(([key, label]) => [add(checkField(key, config[key])), label]);
  const discovery = add(checkField("enableClientDiscovery", config.enableClientDiscovery));
  const notifications = add(notificationsField(config.notifications));

  // The clock follows the time server while synchronising; the daemon
  // ignores a typed time then, so don't offer it.
  const clockRow = row("Server time", clock.control);
  clockRow.append(clock.extra);
  const syncChanged = () => {
    clock.control.disabled = sync.control.checked;
    clock.extra.disabled = sync.control.checked;
  };
  sync.control.addEventListener("change", syncChanged);
  syncChanged();

  const previous = asString(config.previousNTPServerName);
  const cityRow = row("Time zone (by city)", city.control);
  cityRow.append(city.extra);

  container.append(
    section(
      "Names",
      row("Computer name", computer.control, "1 to 63 characters, none of = * @ :"),
      row("Local host name", localcast.control, "Letters, digits and hyphens; other characters are replaced"),
    ),
    section(
      "Time",
      clockRow,
      readOnlyRow("timeZone", "Time zone now", asString(config.timeZone)),
      cityRow,
      row("Set the clock from a time server", sync.control),
      row("Serve time to other computers", serve.control),
      row("Time server", server.control, previous ? `Previously: ${previous}` : ""),
    ),
    section("Switches", ...switches.map(([field, label]) => row(label, ...control(field)))),
    section("Client discovery", row("Let clients find and set themselves up from this server", discovery.control)),
    section("Notifications", notifications.control),
    serviceSummary(config),
  );
  return fields;
}

export function mount(view, session) {
  const controller = new AbortController();
  const isAdmin = session && session.tier === "admin";
  const body = el("div", { class: "settings" });
  const status = el("p", { id: "settings-message", role: "status", "aria-live": "polite" });
  const save = isAdmin ? el("button", { id: "settings-save", type: "submit" }, "Save") : null;
  const form = isAdmin
    ? el("form", { class: "settings-form" }, body, el("div", { class: "settings-actions" }, save, status))
    : el("div", { class: "settings-form" }, body);
  let fields = [];

  clear(view);
  view.append(el("h1", {}, "Settings"), form);
  view.dataset.state = "loading";

  function show(config) {
    clear(body);
    if (isAdmin) fields = renderEditable(body, config, controller.signal);
    else renderReadOnly(body, config);
  }

  async function load() {
    try {
      const reply = await call("readSettings", {}, "Reading the settings", { signal: controller.signal });
      if (controller.signal.aborted) return;
      const config = reply && asDict(reply.configuration);
      if (!reply || !reply.configuration) {
        throw new RequestError("Reading the settings failed: the server sent none.");
      }
      show(config);
      view.dataset.state = "ready";
    } catch (error) {
      if (controller.signal.aborted) return;
      clear(body);
      showError(body, error);
      view.dataset.state = "error";
    }
  }

  if (isAdmin) {
    form.addEventListener("submit", async (event) => {
      event.preventDefault();
      const configuration = {};
      for (const field of fields) {
        if (field.changed()) configuration[field.key] = field.value();
      }
      status.textContent = "";
      delete status.dataset.status;
      status.classList.remove("failed");
      for (const old of form.querySelectorAll(".settings-actions .error-message")) old.remove();
      if (Object.keys(configuration).length === 0) {
        status.textContent = "Nothing has changed.";
        return;
      }
      save.disabled = true;
      status.textContent = "Saving\u2026";
      try {
        const reply = await call("writeSettings", { configuration }, "Saving the settings", {
          signal: controller.signal,
        });
        if (controller.signal.aborted) return;
        const code = reply ? reply.writeStatus : undefined;
        status.textContent = writeStatusText(code);
        status.dataset.status = String(code);
        status.classList.toggle("failed", code !== 0);
        if (reply && reply.configuration) show(asDict(reply.configuration));
      } catch (error) {
        if (controller.signal.aborted) return;
        status.textContent = "";
        showError(status.parentNode, error);
      } finally {
        save.disabled = false;
      }
    });
  }

  load();
  return {
    unmount() {
      controller.abort();
    },
  };
}
