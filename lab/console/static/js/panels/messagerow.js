// One message: as a line of the list, and in full.

import { documentOf, explanation } from "../documents.js";
import { h, replace } from "../dom.js";
import { bytes, clock, pretty } from "../format.js";
import { button, notice, pill } from "../parts.js";
import { read } from "../wire.js";

const ONE_LINE = 220;

export function row(one, onclick) {
  const way = one.direction === "to-agent" ? "→ device" : "← device";
  const wrong = one.verdict?.length > 0;
  return h("button", { type: "button", class: "message fresh", onclick, "data-direction": one.direction,
    "data-id": one.id, "data-number": one.number }, h("time", {}, clock(one.at)), h("span", { class: "way" }, way),
  h("span", { class: wrong ? "wrong" : null }, `${one.number ?? ""} ${one.name}`.trim(), wrong ? " breaks the protocol" : ""),
  h("span", { class: "text" }, one.text.slice(0, ONE_LINE)));
}

function verdict(one) {
  if (one.name === "ping") return pill("keep-alive", "info", true);
  if (one.verdict === null) return pill("event of a program: any text", "info", true);
  return one.verdict.length ? pill("breaks the protocol", "bad", true) : pill("as documented", "good", true);
}

function complaints(one) {
  if (!one.verdict?.length) return null;
  return notice("bad", one.verdict.map(([member, reason]) => (member ? `${member}: ${reason}` : reason)).join("\n"));
}

async function words(one) {
  if (one.name === "ping") return h("p", { class: "muted" }, "A websocket ping; the agent gives the connection up "
    + "after five that nobody has answered.");
  try {
    const about = await documentOf(one.direction, one.number);
    if (about) return explanation(about);
  } catch (error) {
    return notice("bad", `The documentation could not be read: ${error.message}`);
  }
  return h("p", { class: "muted" }, one.verdict === null ? "The device passes on what its programs raise, whatever it is."
    : "The protocol's documents know no such message.");
}

export async function detail(given) {
  let one = given;
  let missing = null;
  if (given.size > given.text.length) {
    try {
      one = await read(`api/messages/${given.id}`);
    } catch (error) {
      missing = notice("warn", `Only the beginning is here: ${error.message}`);
    }
  }
  const shown = h("pre", { class: "json", tabindex: "0", "aria-label": "The message" }, pretty(one.text));
  const raw = button("As sent", () => {
    const pressed = raw.getAttribute("aria-pressed") === "true";
    raw.setAttribute("aria-pressed", String(!pressed));
    replace(shown, pressed ? pretty(one.text) : one.text);
  }, "", { "aria-pressed": "false" });
  const cut = one.text.length < one.size ? notice("warn", `${bytes(one.size - one.text.length)} of it were not kept.`) : null;
  return h("div", { class: "stack" },
    h("div", { class: "row" }, h("h2", { class: "grow" }, `${one.number ?? ""} ${one.name}`.trim()), verdict(one), raw),
    h("p", { class: "muted small" }, `${clock(one.at)}, ${one.direction === "to-agent" ? "to" : "from"} the device over `
      + `connection ${one.connection}, ${one.size} characters`),
    complaints(one), missing, shown, cut, await words(one));
}
