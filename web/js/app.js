// The console's shell: login, the frame around the pages and hash routing.
//
// At load it asks the server for a live session (GET /session), so a reload
// keeps the person logged in; otherwise it shows the login form. Pages live
// in js/pages/<name>.js and are loaded on first visit, so a page that fails
// to load shows an error instead of leaving the console blank.
//
// Page modules export mount(view, session) -> {unmount()}:
//   view     the <main id="page"> element; the shell has emptied it and set
//            data-page="<name>" and data-state="loading"; the page sets
//            data-state to "ready" once its first data is shown, or "error".
//   session  {user, tier}, tier "admin" or "monitor".
//   unmount  stops the page's timers and aborts its requests.
//
// The computer name in the header comes from the first getState reply; a
// page that polls getState anyway may announce newer names with
//   document.dispatchEvent(new CustomEvent("hubwarden:computer-name", {detail: name}))

import * as api from "./api.js";
import { clear, describeError, showError } from "./dom.js";

const PAGES = ["overview", "history", "processes", "logs", "services", "settings", "updates"];
const DEFAULT_PAGE = "overview";
const TIER_WORDS = { admin: "administrator", monitor: "read only" };

const loginView = document.getElementById("login-view");
const loginForm = document.getElementById("login");
const loginUser = document.getElementById("login-user");
const loginPassword = document.getElementById("login-password");
const loginSubmit = document.getElementById("login-submit");
const loginError = document.getElementById("login-error");
const shell = document.getElementById("shell");
const view = document.getElementById("page");
const whoami = document.getElementById("whoami");
const serverName = document.getElementById("server-name");
const logoutButton = document.getElementById("logout");

let session = null;
let current = null; // {name, instance}
let navigation = 0; // bumps on every route change so late imports are dropped

function setLoginError(text) {
  loginError.textContent = text || "";
  loginError.hidden = !text;
}

function setServerName(name) {
  const text = typeof name === "string" ? name : "";
  serverName.textContent = text;
  document.title = text ? `${text} — hubwarden console` : "hubwarden console";
}

function unmountCurrent() {
  navigation++;
  if (current && current.instance && typeof current.instance.unmount === "function") {
    try {
      current.instance.unmount();
    } catch (error) {
      console.error(error);
    }
  }
  current = null;
}

function showLogin(message) {
  unmountCurrent();
  session = null;
  api.setSession(null);
  document.body.classList.remove("tier-admin", "tier-monitor");
  shell.hidden = true;
  clear(view);
  view.setAttribute("data-page", "");
  view.setAttribute("data-state", "loading");
  setServerName("");
  loginView.hidden = false;
  loginPassword.value = "";
  loginSubmit.disabled = false;
  setLoginError(message);
  (loginUser.value ? loginPassword : loginUser).focus();
}

function pageFromHash() {
  const match = /^#\/([a-z]+)/.exec(location.hash);
  return match ? match[1] : DEFAULT_PAGE;
}

function markNav(name) {
  for (const link of document.querySelectorAll("nav a[data-page]")) {
    if (link.getAttribute("data-page") === name) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  }
}

async function route() {
  if (!session) return;
  const name = pageFromHash();
  if (current && current.name === name) return;
  unmountCurrent();
  const ticket = navigation;
  markNav(name);
  clear(view);
  view.setAttribute("data-page", name);
  view.setAttribute("data-state", "loading");
  if (!PAGES.includes(name)) {
    showError(view, `There is no page called "${name}".`);
    view.setAttribute("data-state", "error");
    current = { name, instance: null };
    return;
  }
  let module;
  try {
    module = await import(`./pages/${name}.js`);
  } catch (error) {
    if (ticket !== navigation) return;
    console.error(error);
    showError(view, `The ${name} page could not be loaded: the console's files on the server may be incomplete.`);
    view.setAttribute("data-state", "error");
    current = { name, instance: null };
    return;
  }
  if (ticket !== navigation || !session) return;
  try {
    current = { name, instance: module.mount(view, { user: session.user, tier: session.tier }) };
  } catch (error) {
    showError(view, `The ${name} page could not be shown. ${describeError(error)}`);
    view.setAttribute("data-state", "error");
    current = { name, instance: null };
  }
}

async function fetchServerName() {
  try {
    const state = await api.call("getState", {}, "Reading the computer name");
    if (state && session) setServerName(state.computerName);
  } catch {
    // The header can do without the name; the overview reports failures.
  }
}

function enter(newSession) {
  session = { user: newSession.user, tier: newSession.tier === "admin" ? "admin" : "monitor" };
  document.body.classList.remove("tier-admin", "tier-monitor");
  document.body.classList.add(`tier-${session.tier}`);
  whoami.textContent = `${session.user} (${TIER_WORDS[session.tier]})`;
  loginView.hidden = true;
  setLoginError("");
  shell.hidden = false;
  if (!location.hash) history.replaceState(null, "", `#/${DEFAULT_PAGE}`);
  // The overview polls getState itself and names the computer; any other
  // first page asks once.
  if (pageFromHash() !== "overview") fetchServerName();
  route();
}

loginForm.addEventListener("submit", async (event) => {
  event.preventDefault();
  const user = loginUser.value.trim();
  if (!user || !loginPassword.value) {
    setLoginError("Enter a user name and a password.");
    return;
  }
  loginSubmit.disabled = true;
  setLoginError("");
  try {
    enter(await api.login(user, loginPassword.value));
    loginPassword.value = "";
  } catch (error) {
    loginSubmit.disabled = false;
    setLoginError(describeError(error));
    loginPassword.select();
  }
});

logoutButton.addEventListener("click", async () => {
  logoutButton.disabled = true;
  unmountCurrent();
  let message = "";
  try {
    await api.logout();
  } catch (error) {
    if (error.status !== 401) message = describeError(error);
  } finally {
    logoutButton.disabled = false;
  }
  showLogin(message);
});

api.onSessionExpired(() => {
  if (session) showLogin("Your session has ended; please log in again.");
});

document.addEventListener("hubwarden:computer-name", (event) => {
  if (session) setServerName(event.detail);
});

window.addEventListener("hashchange", route);

async function start() {
  document.getElementById("boot-message")?.remove();
  try {
    const existing = await api.currentSession();
    if (existing) enter(existing);
    else showLogin("");
  } catch (error) {
    showLogin(describeError(error));
  }
}

start();
