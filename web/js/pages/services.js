// The server's service modules: which are set up, which run, and who may
// use, administer or monitor each. Running state comes from
// "getServicesInfo"; "set up" and the access groups from "readSettings",
// whose group records are also what "writeSettings" takes back.

import { call } from "../api.js";
import { el, clear, showError } from "../dom.js";
import { number } from "../format.js";
import { writeStatusText } from "../write_status.js";

const CLIENT_PREFIX = "com.marlo.Overseer.";
const MEMBERS = "dsAttrTypeStandard:GroupMembership";
const NESTED = "dsAttrTypeStandard:NestedGroups";

// Module name, client identifier suffix, the name people know it by.
const SERVICES = [
  ["hubwarden_addressbook", "AddressBook", "Address book"],
  ["hubwarden_appweb", "Appweb", "Web applications"],
  ["hubwarden_calendar", "Calendar", "Calendar"],
  ["hubwarden_dhcp", "DHCP", "DHCP"],
  ["hubwarden_dirserv", "DirectoryServices", "Directory"],
  ["hubwarden_dns", "DNS", "DNS"],
  ["hubwarden_filer", "MarloFile", "File sharing"],
  ["hubwarden_ftp", "FTP", "FTP"],
  ["hubwarden_gridfarm", "Gridfarm", "Grid computing"],
  ["hubwarden_ipfilter", "IPFirewall", "Firewall"],
  ["hubwarden_jabber", "Jabber", "Chat"],
  ["hubwarden_mail", "Mail", "Mail"],
  ["hubwarden_mediastream", "Mediastream", "Media streaming"],
  ["hubwarden_mysql", "MySQL", "MySQL"],
  ["hubwarden_nat", "NAT", "NAT"],
  ["hubwarden_netstart", "Netstart", "Network start-up"],
  ["hubwarden_nfs", "NFS", "NFS"],
  ["hubwarden_notification", "Notification", "Notifications"],
  ["hubwarden_podpub", "Podcast", "Podcast publishing"],
  ["hubwarden_print", "Print", "Printing"],
  ["hubwarden_proxy", "Proxy", "Web proxy"],
  ["hubwarden_radius", "Radius", "RADIUS"],
  ["hubwarden_smb", "Windows", "Windows file sharing"],
  ["hubwarden_swupdate", "SWUpdate", "Software update server"],
  ["hubwarden_vpn", "VPN", "VPN"],
  ["hubwarden_web", "Web", "Web"],
];

// Access groups are named by the service's own short word, which is not
// always the module's.
const ACCESS_WORD = { hubwarden_jabber: "chat" };

const FAMILIES = [
  {
    settingsKey: "accessControlLists",
    namesKey: "accessControlListNames",
    prefix: "com.marlo.access_",
    title: "May use",
    missing: "Everyone (no access group)",
  },
  {
    settingsKey: "adminControlLists",
    namesKey: "adminControlListNames",
    prefix: "com.marlo.admin_",
    title: "May administer",
    missing: "Server administrators only",
  },
  {
    settingsKey: "monitorControlLists",
    namesKey: "monitorControlListNames",
    prefix: "com.marlo.monitor_",
    title: "May monitor",
    missing: "Server administrators only",
  },
];

const ALL_SERVICES = "all_services";
// Only the user count, none of the costlier parts of the state report.
const USERS_VARIANT = "withDetails+{GetNumConnectedUsers = YES;}";

function asDict(value) {
  return value && typeof value === "object" && !Array.isArray(value) && !(value instanceof Date) ? value : {};
}

function strings(value) {
  return Array.isArray(value) ? value.filter((v) => typeof v === "string") : [];
}

function groupWord(module) {
  return ACCESS_WORD[module] || module.replace(/^hubwarden_/, "");
}

// The three families' groups as {name -> {record, exists, listed}}: listed
// groups the module knows how to make, records those that exist.
function groupsOf(config) {
  return FAMILIES.map((family) => {
    const groups = new Map();
    for (const name of strings(config[family.namesKey])) {
      groups.set(name, { name, record: null, listed: true });
    }
    for (const record of Array.isArray(config[family.settingsKey]) ? config[family.settingsKey] : []) {
      const rec = asDict(record);
      const name = typeof rec._id_ === "string" ? rec._id_ : strings(rec["dsAttrTypeStandard:RecordName"])[0];
      if (!name) continue;
      const known = groups.get(name) || { name, listed: false };
      known.record = rec;
      groups.set(name, known);
    }
    return groups;
  });
}

function membersText(group, family) {
  if (!group || !group.record) return family.missing;
  const users = strings(group.record[MEMBERS]);
  const nested = strings(group.record[NESTED]).length;
  const parts = users.slice();
  if (nested) parts.push(`${nested} nested group${nested === 1 ? "" : "s"}`);
  return parts.length ? parts.join(", ") : "Nobody";
}

function yesNo(flag) {
  return flag ? "Yes" : "No";
}

export function mount(view, session) {
  const controller = new AbortController();
  const isAdmin = session && session.tier === "admin";
  const summary = el("p", { id: "services-summary", class: "muted settings-hint" });
  const tableBox = el("div", { class: "table-wrap" });
  const editor = el("section", { id: "service-access", class: "service-access", hidden: true });
  let config = {};

  clear(view);
  view.append(el("h1", {}, "Services"), summary, tableBox, editor);
  view.dataset.state = "loading";

  const options = { signal: controller.signal };

  function render(servicesInfo) {
    const groups = groupsOf(config);
    const services = asDict(asDict(config.serviceConfig).services);
    const running = asDict(servicesInfo);
    const header = el(
      "tr",
      {},
      el("th", { scope: "col" }, "Service"),
      el("th", { scope: "col" }, "Set up"),
      el("th", { scope: "col" }, "Running"),
      FAMILIES.map((f) => el("th", { scope: "col" }, f.title)),
      isAdmin ? el("th", { scope: "col" }, "") : null,
    );
    const body = el("tbody");
    const rows = SERVICES.map(([module, suffix, label]) => ({ module, suffix, label, word: groupWord(module) }));
    rows.push({ module: ALL_SERVICES, suffix: null, label: "All services", word: ALL_SERVICES });
    for (const row of rows) {
      const configured = row.suffix ? asDict(services[CLIENT_PREFIX + row.suffix]).configured === true : null;
      const isRunning = row.suffix ? row.suffix in running : null;
      const cells = FAMILIES.map((family, i) => {
        const group = groups[i].get(family.prefix + row.word);
        return el("td", { "data-family": family.settingsKey }, membersText(group, family));
      });
      body.append(
        el(
          "tr",
          {
            "data-service": row.module,
            "data-configured": configured === null ? undefined : String(configured),
            "data-running": isRunning === null ? undefined : String(isRunning),
          },
          el("th", { scope: "row" }, row.label, el("span", { class: "muted settings-hint" }, ` ${row.module}`)),
          el("td", {}, configured === null ? "" : yesNo(configured)),
          el("td", { class: isRunning ? "state-running" : "" }, isRunning === null ? "" : yesNo(isRunning)),
          cells,
          isAdmin
            ? el(
                "td",
                {},
                el(
                  "button",
                  { type: "button", class: "secondary edit-access", on: { click: () => openEditor(row) } },
                  "Edit access",
                ),
              )
            : null,
        ),
      );
    }
    clear(tableBox);
    tableBox.append(el("table", { id: "services-table", class: "data" }, el("thead", {}, header), body));
  }

  function memberEditor(family, group, word, changes) {
    const name = family.prefix + word;
    const record = group && group.record ? group.record : null;
    const users = strings(record ? record[MEMBERS] : []);
    const nested = strings(record ? record[NESTED] : []);
    const list = el("ul", { class: "recipients", "data-family": family.settingsKey });
    const draw = () => {
      clear(list);
      if (users.length === 0) list.append(el("li", { class: "muted settings-hint" }, record ? "Nobody" : family.missing));
      users.forEach((user, index) => {
        list.append(
          el(
            "li",
            { class: "member" },
            el("span", {}, user),
            el(
              "button",
              {
                type: "button",
                class: "secondary remove-member",
                "aria-label": `Remove ${user}`,
                on: {
                  click: () => {
                    users.splice(index, 1);
                    changes.set(family.settingsKey, memberRecord());
                    draw();
                  },
                },
              },
              "Remove",
            ),
          ),
        );
      });
      if (nested.length) {
        list.append(el("li", { class: "muted settings-hint" }, `and ${nested.length} nested group(s), kept as they are`));
      }
    };
    // Only the member list goes back; the server keeps every other
    // attribute of the group as it is.
    const memberRecord = () => {
      const out = { _id_: name, [MEMBERS]: users.slice() };
      if (!record) out._newid_ = "YES";
      return out;
    };
    const input = el("input", {
      type: "text",
      class: "member-add",
      "data-family": family.settingsKey,
      placeholder: "User name",
      autocomplete: "off",
      spellcheck: "false",
    });
    const problem = el("span", { class: "muted settings-hint", role: "status" });
    const add = () => {
      const user = input.value.trim();
      problem.textContent = "";
      if (user === "") return;
      if (/[\s,:]/.test(user)) {
        problem.textContent = "A user name has no spaces, commas or colons.";
        return;
      }
      if (users.includes(user)) {
        problem.textContent = `${user} is already listed.`;
        return;
      }
      users.push(user);
      input.value = "";
      changes.set(family.settingsKey, memberRecord());
      draw();
    };
    input.addEventListener("keydown", (event) => {
      if (event.key === "Enter") {
        event.preventDefault();
        add();
      }
    });
    draw();
    return el(
      "fieldset",
      { class: "access-family", "data-family": family.settingsKey },
      el("legend", {}, `${family.title} (${name})`),
      list,
      el("div", { class: "recipient-add" }, input, el("button", { type: "button", class: "secondary", on: { click: add } }, "Add"), problem),
    );
  }

  function openEditor(row) {
    const groups = groupsOf(config);
    const changes = new Map();
    const message = el("p", { id: "service-access-message", role: "status", "aria-live": "polite" });
    const save = el("button", { type: "button", id: "service-access-save" }, "Save access");
    const cancel = el(
      "button",
      {
        type: "button",
        class: "secondary",
        on: {
          click: () => {
            editor.hidden = true;
            clear(editor);
          },
        },
      },
      "Close",
    );
    const families = FAMILIES.filter((family, i) => groups[i].has(family.prefix + row.word));
    clear(editor);
    editor.dataset.service = row.module;
    editor.append(el("h2", {}, `Access to ${row.label}`));
    if (families.length === 0) {
      editor.append(el("p", { class: "muted settings-hint" }, "This service has no access groups on this server."));
    }
    FAMILIES.forEach((family, i) => {
      if (!groups[i].has(family.prefix + row.word)) return;
      editor.append(memberEditor(family, groups[i].get(family.prefix + row.word), row.word, changes));
    });
    editor.append(el("div", { class: "settings-actions" }, families.length ? save : null, cancel, message));
    editor.hidden = false;

    save.addEventListener("click", async () => {
      for (const old of editor.querySelectorAll(".error-message")) old.remove();
      message.textContent = "";
      delete message.dataset.status;
      if (changes.size === 0) {
        message.textContent = "Nothing has changed.";
        return;
      }
      const configuration = {};
      for (const [key, record] of changes) configuration[key] = [record];
      save.disabled = true;
      message.textContent = "Saving\u2026";
      try {
        const reply = await call("writeSettings", { configuration }, "Saving the access groups", options);
        if (controller.signal.aborted) return;
        const code = reply ? reply.writeStatus : undefined;
        if (reply && reply.configuration) {
          config = asDict(reply.configuration);
          await refresh();
          openEditor(row);
          const after = editor.querySelector("#service-access-message");
          if (after) {
            after.textContent = writeStatusText(code);
            after.dataset.status = String(code);
          }
        } else {
          message.textContent = writeStatusText(code);
          message.dataset.status = String(code);
        }
      } catch (error) {
        if (controller.signal.aborted) return;
        message.textContent = "";
        showError(editor, error);
      } finally {
        save.disabled = false;
      }
    });
  }

  async function refresh() {
    const [info, state] = await Promise.all([
      call("getServicesInfo", {}, "Reading the services", options),
      call("getState", { variant: USERS_VARIANT }, "Reading the server state", options).catch((error) => {
        if (error && error.name === "AbortError") throw error;
        return null; // the connected-user count is a nicety; the table stands without it
      }),
    ]);
    if (controller.signal.aborted) return;
    const servicesInfo = info ? asDict(info.servicesInfo) : {};
    const users = state && typeof state.numConnectedUsers === "number" ? state.numConnectedUsers : null;
    const runningCount = SERVICES.filter(([, suffix]) => suffix in servicesInfo).length;
    summary.textContent =
      `${runningCount} of ${SERVICES.length} services running` +
      (users === null ? "." : `; ${number(users)} user${users === 1 ? "" : "s"} connected now.`);
    if (info && !("servicesInfo" in info)) summary.textContent += " The server is still starting; running states follow.";
    render(servicesInfo);
  }

  async function load() {
    try {
      const settings = await call("readSettings", {}, "Reading the access groups", options);
      if (controller.signal.aborted) return;
      config = settings ? asDict(settings.configuration) : {};
      await refresh();
      if (controller.signal.aborted) return;
      if (settings && settings.readStatus) {
        showError(view, `Some access groups could not be read (directory status ${settings.readStatus}).`);
      }
      view.dataset.state = "ready";
    } catch (error) {
      if (controller.signal.aborted) return;
      clear(tableBox);
      showError(tableBox, error);
      view.dataset.state = "error";
    }
  }

  load();
  return {
    unmount() {
      controller.abort();
    },
  };
}
