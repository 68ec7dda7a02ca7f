// Building the page without innerHTML: every string the server sends ends
// up in a text node, so a computer name such as <img src=x onerror=...>
// shows as the text it is.
//
// Interface:
//   el(tag, attrs = {}, ...children) -> Element
//     children: strings and numbers become text nodes, nodes are appended,
//     null/undefined/false are skipped, arrays are flattened.
//     attrs: class, id, data-*, aria-*, role, type, value, checked, disabled,
//     selected, for, title, name, href, min, max, step, placeholder, low,
//     high, optimum, colspan, autocomplete, and on: {event: handler}.
//     Anything else throws (a misspelt attribute is a bug worth seeing).
//   clear(node) -> node, with all children removed.
//   describeError(error) -> words a person understands, never a stack.
//   showError(container, error) -> the appended .error-message element.
//   confirmDialog(text, okLabel = "OK") -> Promise<boolean>, through the
//     <dialog id="confirm"> of index.html; Escape or Cancel gives false.
//   table({columns, rows, sortKey, sortDescending, rowAttrs, cellAttrs})
//     -> <table> with a <thead> (th[data-sort] with aria-sort on the sorted
//     one) and a <tbody> built in one pass through a DocumentFragment.
//     columns: [{key, label, numeric, format(value, row), sortable}].
//     Sorting is left to the caller: one delegated listener on the table
//     (see sortKeyOfClick) keeps thousands of rows cheap.
//   tableHead(columns, sortKey, sortDescending) -> <thead> alone, and
//   tableRows(columns, rows, rowAttrs, cellAttrs) -> DocumentFragment of <tr>,
//     for pages that rebuild only the body on refresh.
//   sortKeyOfClick(event) -> the data-sort of the clicked header, or null.
//   sortRows(rows, key, descending, numeric) -> a sorted copy; numbers
//     numerically, text by the locale's collation, missing values last.

const PROPERTIES = new Set(["value", "checked", "disabled", "selected"]);
const ATTRIBUTES = new Set([
  "class", "id", "type", "for", "title", "name", "href", "min", "max", "step",
  "placeholder", "low", "high", "optimum", "colspan", "role", "autocomplete",
  "rows", "cols", "maxlength", "size", "open", "hidden", "tabindex", "scope",
  "multiple", "required", "readonly", "list", "pattern", "inputmode", "spellcheck",
]);

function append(node, child) {
  if (child === null || child === undefined || child === false) return;
  if (Array.isArray(child)) {
    for (const c of child) append(node, c);
  } else if (child instanceof Node) {
    node.appendChild(child);
  } else {
    node.appendChild(document.createTextNode(String(child)));
  }
}

export function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs || {})) {
    if (value === undefined || value === null) continue;
    if (name === "on") {
      for (const [event, handler] of Object.entries(value)) node.addEventListener(event, handler);
    } else if (PROPERTIES.has(name)) {
      node[name] = value;
    } else if (ATTRIBUTES.has(name) || name.startsWith("data-") || name.startsWith("aria-")) {
      if (value === false) continue;
      node.setAttribute(name, value === true ? "" : String(value));
    } else {
      throw new Error(`el: attribute "${name}" is not allowed`);
    }
  }
  append(node, children);
  return node;
}

export function clear(node) {
  while (node.firstChild) node.removeChild(node.firstChild);
  return node;
}

export function describeError(error) {
  if (error && error.name === "RequestError" && error.message) return error.message;
  if (error && error.name === "AbortError") return "The request was stopped.";
  if (typeof error === "string" && error.length > 0) return error;
  // Anything else is a fault in the console itself; its text would mean
  // nothing to the person reading it, so say that plainly instead.
  if (error) console.error(error);
  return "Something went wrong in the console; reloading the page may help.";
}

export function showError(container, error) {
  const node = el("p", { class: "error-message", role: "alert" }, describeError(error));
  container.appendChild(node);
  return node;
}

export function confirmDialog(text, okLabel = "OK") {
  const dialog = document.getElementById("confirm");
  const textNode = document.getElementById("confirm-text");
  const ok = document.getElementById("confirm-ok");
  const cancel = document.getElementById("confirm-cancel");
  if (!dialog || !textNode || !ok || !cancel) return Promise.resolve(false);
  clear(textNode);
  append(textNode, text);
  ok.textContent = okLabel;
  return new Promise((resolve) => {
    const finish = (answer) => {
      ok.removeEventListener("click", onOk);
      cancel.removeEventListener("click", onCancel);
      dialog.removeEventListener("cancel", onCancel);
      if (dialog.open) dialog.close();
      resolve(answer);
    };
    const onOk = (event) => { event.preventDefault(); finish(true); };
    const onCancel = (event) => { event.preventDefault(); finish(false); };
    ok.addEventListener("click", onOk);
    cancel.addEventListener("click", onCancel);
    dialog.addEventListener("cancel", onCancel);
    if (dialog.open) dialog.close();
    dialog.showModal();
    cancel.focus();
  });
}

function ariaSort(column, sortKey, sortDescending) {
  if (column.key !== sortKey) return "none";
  return sortDescending ? "descending" : "ascending";
}

export function tableHead(columns, sortKey, sortDescending) {
  const row = el("tr");
  for (const column of columns) {
    const sortable = column.sortable !== false;
    row.appendChild(el("th", {
      scope: "col",
      class: column.numeric ? "numeric" : undefined,
      "data-sort": sortable ? column.key : undefined,
      "aria-sort": sortable ? ariaSort(column, sortKey, sortDescending) : undefined,
      tabindex: sortable ? "0" : undefined,
    }, column.label));
  }
  return el("thead", {}, row);
}

export function tableRows(columns, rows, rowAttrs, cellAttrs) {
  const fragment = document.createDocumentFragment();
  for (const row of rows) {
    const tr = rowAttrs ? el("tr", rowAttrs(row)) : document.createElement("tr");
    for (const column of columns) {
      const value = row[column.key];
      const shown = column.format ? column.format(value, row) : value;
      const attrs = cellAttrs ? { ...cellAttrs(column, row) } : {};
      if (column.numeric) attrs.class = attrs.class ? `${attrs.class} numeric` : "numeric";
      tr.appendChild(el("td", attrs, shown === undefined || shown === null ? "" : shown));
    }
    fragment.appendChild(tr);
  }
  return fragment;
}

export function table({ columns, rows, sortKey, sortDescending = false, rowAttrs, cellAttrs, attrs = {} }) {
  const body = el("tbody");
  body.appendChild(tableRows(columns, rows, rowAttrs, cellAttrs));
  return el("table", attrs, tableHead(columns, sortKey, sortDescending), body);
}

export function sortKeyOfClick(event) {
  const th = event.target instanceof Element ? event.target.closest("th[data-sort]") : null;
  return th ? th.getAttribute("data-sort") : null;
}

// Sorting a copy by one key: numbers numerically, everything else as text in
// the person's collation, missing values last in either direction.
export function sortRows(rows, key, descending, numeric) {
  const direction = descending ? -1 : 1;
  const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" });
  return rows.slice().sort((a, b) => {
    const x = a[key];
    const y = b[key];
    const xMissing = x === undefined || x === null || x === "";
    const yMissing = y === undefined || y === null || y === "";
    if (xMissing || yMissing) return xMissing === yMissing ? 0 : xMissing ? 1 : -1;
    if (numeric) return (Number(x) - Number(y)) * direction;
    return collator.compare(String(x), String(y)) * direction;
  });
}
