// The console's only way to the daemon: session login/logout and the JSON
// command protocol every other client uses.
//
// Interface:
//   class RequestError extends Error
//     .message  words a person understands: "<what> failed: <why>"
//     .status   HTTP status (0 when the server could not be reached)
//     .code     the module's "error" text when the reply was {"error": ...}
//   call(command, fields = {}, what = "The request", {signal} = {})
//     -> the reply object, or null when the module gave no reply (HTTP 204).
//     Throws RequestError. HTTP 401 first calls the session-expired handler.
//   getJSON(path, what = "The request", {signal} = {}) -> parsed JSON (GET).
//   login(user, password) -> {user, tier, csrf}; throws RequestError.
//   currentSession() -> {user, tier, csrf} or null (GET /session; 401 = null).
//   logout() -> undefined; the server forgets the session.
//   setSession({user, tier, csrf}) / setSession(null)
//   onSessionExpired(handler)  the shell registers where 401 sends people.
//   encode(value) / decode(text)  the plist JSON mapping: {"$date": ...}
//     becomes a Date and {"$data": ...} a Uint8Array on the way in, and
//     back on the way out.
//
// Aborted requests (AbortController) reject with the DOMException
// "AbortError" untouched, so pages can tell a deliberate stop from a failure.

let session = null;
let expiredHandler = null;

export class RequestError extends Error {
  constructor(message, status = 0, code = undefined) {
    super(message);
    this.name = "RequestError";
    this.status = status;
    this.code = code;
  }
}

export function setSession(value) {
  session = value ? { user: value.user, tier: value.tier, csrf: value.csrf } : null;
}

export function onSessionExpired(handler) {
  expiredHandler = handler;
}

// Base64 without the 64 KB argument limit of String.fromCharCode(...bytes).
function bytesToBase64(bytes) {
  let text = "";
  for (let i = 0; i < bytes.length; i += 0x8000) {
    text += String.fromCharCode.apply(null, bytes.subarray(i, i + 0x8000));
  }
  return btoa(text);
}

function base64ToBytes(text) {
  const raw = atob(text);
  const bytes = new Uint8Array(raw.length);
  for (let i = 0; i < raw.length; i++) bytes[i] = raw.charCodeAt(i);
  return bytes;
}

function revive(_key, value) {
  if (value && typeof value === "object" && !Array.isArray(value)) {
    const keys = Object.keys(value);
    if (keys.length === 1) {
      if (keys[0] === "$date" && typeof value.$date === "string") {
        const date = new Date(value.$date);
        return Number.isNaN(date.getTime()) ? value : date;
      }
      if (keys[0] === "$data" && typeof value.$data === "string") {
        try {
          return base64ToBytes(value.$data);
        } catch {
          return value;
        }
      }
    }
  }
  return value;
}

export function decode(text) {
  return JSON.parse(text, revive);
}

export function encode(value) {
  // JSON.stringify calls Date.prototype.toJSON before a replacer sees the
  // value, so dates are converted by walking the value first.
  const walk = (v) => {
    if (v instanceof Date) return { $date: v.toISOString().replace(/\.\d{3}Z$/, "Z") };
    if (v instanceof Uint8Array) return { $data: bytesToBase64(v) };
    if (Array.isArray(v)) return v.map(walk);
    if (v && typeof v === "object") {
      const out = {};
      for (const [k, x] of Object.entries(v)) out[k] = walk(x);
      return out;
    }
    return v;
  };
  return JSON.stringify(walk(value));
}

const STATUS_WORDS = {
  400: "the server did not understand the request",
  401: "your session has ended",
  403: "the server refused",
  404: "the server does not know this address",
  408: "the server gave up waiting",
  413: "the request was too large",
  429: "too many attempts; wait a moment and try again",
  500: "the server ran into a problem",
  502: "the server could not be reached",
  503: "the server is busy",
  504: "the server took too long to answer",
};

// Module error names are identifiers; these are the ones a person may meet.
const CODE_WORDS = {
  NOT_ENOUGH_PRIVS_ERR: "your account may not do this",
  CANNOT_MALLOC_ERR: "the server ran out of memory",
  SETTING_NOT_FOUND_ERR: "the setting was not found",
  CANNOT_LAUNCH_UPDATE_ERROR: "the update tool could not be started",
  UNKNOWN_SORT_KEY_ERR: "the server does not know that sort order",
  UNKNOWN_FIELDS_TO_RETURN_ERR: "the server does not know one of the requested columns",
  MALFORMED_SORT_DIRECTION_ERR: "the sort direction was not understood",
};

function reasonFor(status, code) {
  if (code !== undefined) {
    const words = CODE_WORDS[code];
    if (words) return words;
    if (status === 403) return `the server refused (${code})`;
    return String(code);
  }
  return STATUS_WORDS[status] || `the server answered with status ${status}`;
}

async function request(method, path, body, what, signal) {
  const headers = { Accept: "application/json" };
  if (body !== undefined) headers["Content-Type"] = "application/json";
  if (method !== "GET" && method !== "HEAD" && session && session.csrf) {
    headers["X-CSRF-Token"] = session.csrf;
  }
  let response;
  try {
    response = await fetch(path, {
      method,
      headers,
      body: body === undefined ? undefined : encode(body),
      credentials: "same-origin",
      cache: "no-store",
      signal,
    });
  } catch (error) {
    if (error && error.name === "AbortError") throw error;
    throw new RequestError(`${what} failed: the server could not be reached`, 0);
  }
  if (response.status === 204) return null;
  let text;
  try {
    text = await response.text();
  } catch (error) {
    if (error && error.name === "AbortError") throw error;
    throw new RequestError(`${what} failed: the connection broke off`, response.status);
  }
  let data = null;
  if (text.length > 0) {
    try {
      data = decode(text);
    } catch {
      if (response.ok) {
        throw new RequestError(`${what} failed: the server's answer could not be read`, response.status);
      }
    }
  }
  const code = data && typeof data === "object" && !Array.isArray(data) && "error" in data
    ? String(data.error)
    : undefined;
  if (!response.ok || code !== undefined) {
    const error = new RequestError(`${what} failed: ${reasonFor(response.status, code)}`, response.status, code);
    if (response.status === 401 && path !== "/session" && expiredHandler) expiredHandler(error);
    throw error;
  }
  return data;
}

export async function call(command, fields = {}, what = "The request", { signal } = {}) {
  return request("POST", "/commands/hubwarden_info", { command, ...fields }, what, signal);
}

export async function getJSON(path, what = "The request", { signal } = {}) {
  return request("GET", path, undefined, what, signal);
}

export async function login(user, password) {
  const reply = await request("POST", "/session", { user, password }, "Logging in", undefined);
  setSession(reply);
  return reply;
}

export async function currentSession() {
  try {
    const reply = await request("GET", "/session", undefined, "Checking the session", undefined);
    setSession(reply);
    return reply;
  } catch (error) {
    if (error instanceof RequestError && error.status === 401) return null;
    throw error;
  }
}

export async function logout() {
  try {
    await request("DELETE", "/session", undefined, "Logging out", undefined);
  } finally {
    setSession(null);
  }
}
