// Runs a command of the lab from a button, and shows what comes of it below.

import { h, replace } from "./dom.js";
import { clock } from "./format.js";
import { button, notice } from "./parts.js";
import { run } from "./wire.js";

const TONES = { done: "good", failed: "bad", refused: "bad", cancelled: "warn" };
const LONGEST = 160;

function line(what) {
  if (what.kind === "note") return h("li", {}, h("span", {}, `(${what.text})`));
  const arrow = { sent: "→ device", received: "← device" }[what.kind] ?? "*";
  const text = what.text.length > LONGEST ? `${what.text.slice(0, LONGEST)}…` : what.text;
  const name = what.kind === "event" ? "" : `${what.number ?? "?"} ${what.name}: `;
  return h("li", {}, h("span", { class: "when" }, clock(what.time)), h("span", { class: "arrow" }, arrow),
    h("span", {}, name + text));
}

// A place for outcomes, to be put where the user looks. `begin` runs a command and returns its end;
// `quiet` leaves out the words of a good end, `told` sees the messages on the way.
export function outcomes({ trail = true, quiet = false } = {}) {
  const element = h("div", { class: "outcome", role: "status", "aria-live": "polite" });
  const begin = async (command, parameters, { told = () => {} } = {}) => {
    const list = h("ol", { class: "trail" });
    const waiting = h("p", { class: "row muted" }, h("span", { class: "spinner" }), "waiting for the device");
    let current = null;
    const stop = button("Stop", () => current.cancel(), "plain");
    waiting.append(stop);
    replace(element, waiting, trail ? list : null);
    current = run(command, parameters, (what) => {
      list.append(line(what));
      told(what);
    });
    const end = await current.done;
    waiting.remove();
    if (end.outcome !== "done" || !quiet) {
      element.prepend(notice(TONES[end.outcome] ?? "bad", end.text || (end.outcome === "done" ? "done" : end.outcome)));
    }
    return end;
  };
  return { element, begin, clear: () => replace(element), show: (tone, text) => replace(element, notice(tone, text)) };
}

// A button that is disabled while its work runs. `after` is called when it can be pressed again.
export function workButton(text, work, kind = "", attributes = {}, after = () => {}) {
  const element = button(text, async () => {
    element.disabled = true;
    try {
      await work();
    } finally {
      element.disabled = false;
      after();
      if (document.activeElement === document.body) element.focus();
    }
  }, kind, attributes);
  return element;
}
