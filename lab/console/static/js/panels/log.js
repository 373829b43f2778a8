// The agent's own log, as it is written on the device.

import { h, replace } from "../dom.js";
import { button, card, field, select } from "../parts.js";
import { on } from "../store.js";
import { follow } from "../wire.js";

const MOST_LINES = 2000;
// "2026-11-21 14:30:02 3034 start.cpp:12:message": the lines of the agent's own format
const LINE = /^\d{4}-\d\d-\d\d (\d\d:\d\d:\d\d) (\d+) ([^:]*):(\d+):(.*)$/s;
const TROUBLE = /fail|unable|not able|error|missed|denied|reject|revert/i;

export function logPanel() {
  const text = h("input", { type: "search", placeholder: "any part of it", oninput: () => refill() });
  const module = select([["", "all modules"]], { onchange: () => refill() });
  const list = h("div", { class: "log", role: "log", tabindex: "0", "aria-label": "Log of the agent" });
  const pause = button("Pause", () => {
    paused = !paused;
    pause.setAttribute("aria-pressed", String(paused));
    pause.textContent = paused ? "Go on" : "Pause";
    if (!paused) refill();
  }, "", { "aria-pressed": "false" });
  const clear = button("Clear", () => { lines = []; refill(); });
  let lines = [];
  let paused = false;
  let unfollow = null;
  let newest = -1;
  const modules = new Set();

  const fits = (one) => (!module.value || one.module === module.value)
    && (!text.value || one.line.toLowerCase().includes(text.value.toLowerCase()));
  const element = (one) => h("div", { "data-level": TROUBLE.test(one.line) ? "1" : null }, one.line);
  const refill = () => {
    replace(list, lines.filter(fits).map(element));
    list.scrollTop = list.scrollHeight;
  };
  const take = (item) => {
    if (item.id <= newest) return;
    newest = item.id;
    const one = { ...item, module: LINE.exec(item.line)?.[3] ?? "" };
    if (one.module && !modules.has(one.module)) {
      modules.add(one.module);
      module.append(h("option", { value: one.module }, one.module));
    }
    lines.push(one);
    if (lines.length > MOST_LINES) lines.splice(0, lines.length - MOST_LINES);
    if (paused || !fits(one)) return;
    const atEnd = list.scrollTop + list.clientHeight >= list.scrollHeight - 8;
    list.append(element(one));
    if (list.children.length > MOST_LINES) list.firstChild.remove();
    if (atEnd) list.scrollTop = list.scrollHeight;
  };
  const off = on("log", take);
  return {
    element: h("div", { class: "stack" }, card("Log of the agent", h("div", { class: "row" }, pause, clear),
      h("div", { class: "row end" }, field("Text", text, { grow: true }), field("Module", module))), list),
    show: () => { unfollow ??= follow("log"); },
    hide: () => { unfollow?.(); unfollow = null; },
    close: () => { unfollow?.(); off(); },
  };
}
