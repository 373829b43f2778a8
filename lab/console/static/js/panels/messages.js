// Every message both ways as it happens, with its verdict and its documentation beside it.

import { h, replace, setText } from "../dom.js";
import { button, card, check, empty, field, select } from "../parts.js";
import { known, on } from "../store.js";
import { read } from "../wire.js";
import { composer } from "./compose.js";
import { detail, row } from "./messagerow.js";

const MOST_ROWS = 800;
const OLDER = 200;

export function messagesPanel() {
  const text = h("input", { type: "search", placeholder: "any part of it", oninput: () => refill() });
  const direction = select([["", "both ways"], ["to-controller", "from the device"], ["to-agent", "to the device"]],
    { onchange: () => refill() });
  const type = select([["", "all types"]], { onchange: () => refill() });
  const pings = check("keep-alives", { onchange: () => refill() });
  const wrong = check("only what breaks the protocol", { onchange: () => refill() });
  const list = h("div", { class: "message-list", id: "messages", "aria-label": "Messages, the newest first", role: "group" });
  const none = empty();
  const side = h("div", { class: "detail card" }, empty("Choose a message to see all of it, what the protocol's ",
    "documents say to it, and what it means."));
  const pause = button("Pause", () => setPaused(!paused), "", { "aria-pressed": "false" });
  const older = button("Show older ones", () => loadOlder(), "plain");
  let held = [];
  let paused = false;
  let chosen = null;
  let wanted = 0;
  const types = new Map();

  const fits = (one) => (pings.input.checked || one.name !== "ping")
    && (!direction.value || one.direction === direction.value)
    && (!type.value || `${one.number} ${one.name}` === type.value)
    && (!wrong.input.checked || one.verdict?.length > 0)
    && (!text.value || one.text.toLowerCase().includes(text.value.toLowerCase()));

  const learn = (one) => {
    const name = `${one.number} ${one.name}`;
    if (types.has(name) || one.number === null) return;
    types.set(name, one.number);
    const after = [...type.options].find((option) => option.value && types.get(option.value) > one.number);
    type.add(h("option", { value: name }, name), after ?? null);
  };
  const choose = async (one, element) => {
    list.querySelector("[aria-current]")?.removeAttribute("aria-current");
    element.setAttribute("aria-current", "true");
    chosen = one.id;
    wanted += 1;
    const mine = wanted;
    const shown = await detail(one);
    if (mine !== wanted) return;
    replace(side, shown);
    if (side.getBoundingClientRect().top > window.innerHeight - 80) side.scrollIntoView(); // on a narrow screen
  };
  const rowOf = (one) => {
    const element = row(one, () => choose(one, element));
    if (one.id === chosen) element.setAttribute("aria-current", "true");
    return element;
  };
  const refill = () => {
    known.messages.forEach(learn);
    const rows = known.messages.filter(fits).slice(-MOST_ROWS).reverse().map(rowOf);
    replace(list, rows, none, older);
    held = [];
    drawRest();
  };
  const drawRest = () => {
    none.hidden = list.querySelector(".message") !== null;
    setText(none, known.messages.length ? "No message fits this filter." : "No message yet: the device has "
      + "to connect first. Its keep-alives are hidden unless you ask for them.");
    older.hidden = !known.messages.length || known.messages[0].id <= 1;
    setText(pause, paused ? `Go on${held.length ? ` (${held.length} new)` : ""}` : "Pause");
    pause.setAttribute("aria-pressed", String(paused));
  };
  const take = (one) => {
    learn(one);
    if (!fits(one)) return;
    if (paused) {
      held.push(one);
    } else {
      const scrolled = list.scrollTop > 4 ? list.scrollHeight : 0;
      list.prepend(rowOf(one));
      if (scrolled) list.scrollTop += list.scrollHeight - scrolled; // who reads further down stays there
      const rows = list.querySelectorAll(".message");
      if (rows.length > MOST_ROWS) rows[rows.length - 1].remove();
    }
  };
  const setPaused = (value) => {
    paused = value;
    if (!paused) refill();
    drawRest();
  };
  const loadOlder = async () => {
    const rows = await read(`api/messages?before=${known.messages[0].id}&limit=${OLDER}`);
    known.messages.unshift(...rows);
    if (!rows.length) older.remove();
    refill();
  };
  list.addEventListener("keydown", (event) => {
    const step = { ArrowDown: "nextElementSibling", ArrowUp: "previousElementSibling" }[event.key];
    const next = step && document.activeElement?.[step];
    if (!next?.classList.contains("message")) return;
    event.preventDefault();
    next.focus();
    next.click();
  });
  const offs = [on("message", take), on("batch", drawRest), on("hello", refill)];
  refill();
  return {
    element: h("div", { class: "stack" },
      card("Messages", h("div", { class: "row" }, pause),
        h("div", { class: "row end" }, field("Text", text, { grow: true }), field("Direction", direction),
          field("Type", type), pings.element, wrong.element)),
      h("div", { class: "messages" }, list, side), composer()),
    close: () => offs.forEach((off) => off()),
  };
}
