// The parts that several panels are made of.

import { append, freshId, h, replace } from "./dom.js";

export const STATES = {
  online: ["Online", "good"], registering: ["Registering", "warn"], lost: ["Not connected", "bad"],
  rebooting: ["Rebooting", "info"], down: ["Agent down", "bad"], off: ["Not started", "info"],
};

export function pill(text, tone, plain = false) {
  return h("span", { class: plain ? "pill bare" : "pill", "data-tone": tone }, text);
}

export function statePill(state) {
  const [text, tone] = STATES[state] ?? [state, "info"];
  return pill(text, tone);
}

export function button(text, onclick, kind = "", attributes = {}) {
  return h("button", { type: "button", class: kind || null, onclick, ...attributes }, text);
}

// An input below its label; the label is tied to it.
export function field(text, input, { grow = false, hint = "" } = {}) {
  input.id ||= freshId("field");
  return h("div", { class: grow ? "field grow" : "field" }, h("label", { for: input.id }, text), input,
    hint ? h("small", { class: "muted" }, hint) : null);
}

// The Enter key in an input of this part presses the button.
export function enters(element, target) {
  element.addEventListener("keydown", (event) => {
    if (event.key === "Enter" && event.target.matches("input:not([type=checkbox], [type=radio])")) target.click();
  });
  return element;
}

export function check(text, attributes = {}) {
  const input = h("input", { type: "checkbox", ...attributes });
  return { input, element: h("label", { class: "check" }, input, text) };
}

export function select(options, attributes = {}) {
  return h("select", attributes, options.map(([value, text]) => h("option", { value }, text)));
}

export function card(title, head, ...children) {
  return h("section", { class: "card" },
    h("div", { class: "head" }, h("h2", {}, title), head), ...children);
}

export function notice(tone, ...children) {
  return h("p", { class: "notice", "data-tone": tone }, ...children);
}

export function empty(...children) {
  return h("p", { class: "empty" }, ...children);
}

// Names and values; a third true takes the room of two.
export function facts(pairs) {
  return h("dl", { class: "facts" }, pairs.map(([name, value, wide]) =>
    h("div", { class: wide ? "wide" : null }, h("dt", {}, name), h("dd", {}, value ?? "-"))));
}

// A table whose columns can be sorted by a click: columns are {name, title, number, show}.
export function sortable(caption, columns, firstBy, descending = false) {
  let by = firstBy;
  let down = descending;
  let rows = [];
  const head = h("tr", {});
  const body = h("tbody", {});
  const compare = (one, other) => {
    const [a, b] = [one[by], other[by]];
    if (a === b) return 0;
    if (a === null || a === undefined) return 1;
    if (b === null || b === undefined) return -1;
    const order = typeof a === "number" && typeof b === "number" ? a - b
      : String(a).localeCompare(String(b), undefined, { numeric: true });
    return down ? -order : order;
  };
  const draw = () => {
    for (const [at, column] of columns.entries()) {
      const cell = head.children[at];
      if (column.name === by) cell.setAttribute("aria-sort", down ? "descending" : "ascending");
      else cell.removeAttribute("aria-sort");
    }
    replace(body, [...rows].sort(compare).map((row) => h("tr", {}, columns.map((column) =>
      h("td", { class: column.number ? "number" : null }, column.show ? column.show(row[column.name], row)
        : row[column.name] ?? "-")))));
  };
  append(head, columns.map((column) => h("th", { scope: "col", class: column.number ? "number" : null },
    h("button", { type: "button", onclick: () => {
      down = by === column.name ? !down : false;
      by = column.name;
      draw();
    } }, column.title))));
  const element = h("div", { class: "scroll" }, h("table", { class: "table" },
    h("caption", { class: "sr" }, caption), h("thead", {}, head), body));
  return { element, update: (given) => { rows = given; draw(); } };
}
