// The device at a glance: who it is, how its connection has been, and the small things to ask of it.

import { append, h, replace, setText } from "../dom.js";
import { clock, date, duration, since } from "../format.js";
import { outcomes, workButton } from "../action.js";
import { asking } from "../asking.js";
import { card, check, facts, field, select } from "../parts.js";
import { device, known, on } from "../store.js";
import { timeline } from "../timeline.js";

const MOST_SHOWN = 200;

const IDENTITY = [
  ["MAC address", (now) => now.id], ["Serial number", (now) => now.serial], ["Product", (now) => now.product],
  ["Platform", (now) => now.platform && `${now.platform}, model ${now.model}`], ["Address", (now) => now.address],
  ["Switch (parent MAC)", (now) => now.parent || "none found"],
  ["Firmware", (now) => now.versions.active], ["Second bank", (now) => now.versions.inactive],
  ["Agent version", (now) => now.versions.agent], ["Hardware", (now) => now.versions.hardware],
  ["Configuration version", (now) => now.versions.configuration],
  ["Connection", (now) => (now.connection ? `number ${now.connection.number} of ${now.connections}`
    : `none (${now.connections} so far)`)],
  ["Agent", (now) => (now.agent.running ? `up ${since(now.agent.since)}, start ${now.agent.starts}` : "down")],
  ["Device up", (now) => since(now.booted)],
  ["Last keep-alive", (now) => (now.ping.at ? `${since(now.ping.at)} ago${now.ping.answered ? "" : ", not answered"}`
    : "none yet")],
  ["Last close", (now) => (now.lastClose.number ? now.lastClose.reason || `code ${now.lastClose.code}` : "none yet")],
  ["Shown on the device", (now) => now.shown || "-", true],
];

// Only texts that differ are touched: what somebody has marked to copy stays marked.
function identity(id) {
  const values = IDENTITY.map(() => h("span", {}));
  const draw = () => IDENTITY.forEach(([, value], at) => setText(values[at], String(value(device(id)) ?? "-")));
  draw();
  return { element: facts(IDENTITY.map(([name, , wide], at) => [name, values[at], wide])), draw };
}

function happenings() {
  const list = h("ol", { class: "happenings", tabindex: "0", "aria-label": "What happened, the newest first" });
  const line = (one) => h("li", { class: "fresh" }, h("time", {}, clock(one.at)),
    h("span", { "data-level": one.level }, one.text));
  const fill = () => replace(list, known.happenings.slice(-MOST_SHOWN).reverse().map(line));
  const offs = [on("hello", fill), on("happening", (one) => {
    list.prepend(line(one));
    if (list.children.length > MOST_SHOWN) list.lastChild.remove();
  })];
  fill();
  return { element: list, off: () => offs.forEach((off) => off()) };
}

function info() {
  const out = outcomes({ quiet: true });
  const found = h("div", {});
  const ask = workButton("Ask", async () => {
    const end = await out.begin("info", {});
    if (end.outcome !== "done") return;
    const { lastCloseReason, lastCloseTS, lastRebootReason, lastRebootTS, uptime } = end.data;
    replace(found, facts([["Last close", lastCloseReason || "nothing new"], ["at", date(lastCloseTS)],
      ["Last reboot", lastRebootReason || "-"], ["at", date(lastRebootTS)], ["Kernel up for", duration(uptime)]]));
  });
  return card("Ask why it closed and rebooted", ask, found, out.element);
}

function locate() {
  return asking("Find it", h("p", { class: "grow muted" }, "Its lights blink for a moment."), "Locate",
    (out) => out.begin("locate", {}));
}

function reboot() {
  const reason = h("input", { type: "text", placeholder: "the device's own" });
  const delay = h("input", { type: "number", min: 0, placeholder: "5" });
  const force = check("force");
  return asking("Reboot", [field("Reason", reason, { grow: true }), field("Delay, s", delay), force.element], "Reboot",
    (out) => out.begin("reboot", { reason: reason.value || null, delay: delay.value ? Number(delay.value) : null,
      force: force.input.checked }), "danger");
}

function status() {
  const text = h("input", { type: "text", value: "Hall 3 is served" });
  return asking("Status text", field("Text to show on the device", text, { grow: true }), "Show",
    (out) => out.begin("status", { text: text.value }));
}

function intervals() {
  const wait = h("input", { type: "number", min: 0, value: "300" });
  const delta = h("input", { type: "number", min: 0, value: "60" });
  return asking("Retry intervals", [field("Wait, s", wait), field("Random part, s", delta),
    h("p", { class: "grow muted small" }, "How long it waits before it looks for a controller anew.")], "Set",
  (out) => out.begin("intervals", { wait: Number(wait.value), delta: Number(delta.value) }));
}

function time() {
  const at = h("input", { type: "text", value: "2026-01-02 03:04:05" });
  return asking("Clock", field("Offer this time (UTC); it registers anew for it", at, { grow: true }), "Offer",
    async (out) => {
      const seconds = Date.parse(`${at.value.trim().replace(" ", "T")}Z`) / 1000;
      at.setAttribute("aria-invalid", String(Number.isNaN(seconds)));
      if (Number.isNaN(seconds)) out.show("bad", "This is no time; write it like 2026-01-02 03:04:05.");
      else await out.begin("clock", { seconds: Math.floor(seconds) });
    });
}

function managed() {
  const yes = select([["", "not told"], ["yes", "yes"], ["no", "no"]]);
  const account = h("input", { type: "text", placeholder: "not told" });
  const expiry = h("input", { type: "text", placeholder: "2031-12-31" });
  return asking("Managed", [field("Managed", yes), field("Account", account, { grow: true }),
    field("Hardware expires", expiry, { grow: true })], "Tell", (out) => out.begin("managed", {
    managed: { yes: true, no: false }[yes.value] ?? null, account: account.value || null, expiry: expiry.value || null }));
}

const ACTIONS = [["locate", locate], ["reboot", reboot], ["status", status], ["intervals", intervals],
  ["clock", time], ["managed", managed], ["info", info]];

export function summaryPanel(id) {
  const strip = timeline();
  const who = identity(id);
  const told = happenings();
  const offs = [on("device", who.draw), on("state", strip.draw), told.off];
  const actions = h("div", { class: "columns" });
  append(actions, ACTIONS.filter(([command]) => known.commands.has(command)).map(([, make]) => make()));
  return {
    element: h("div", { class: "stack" },
      card("Connection", h("div", {}, strip.range), strip.element),
      card("Identity", null, who.element), card("What happened", null, told.element), actions),
    tick: () => { strip.draw(); who.draw(); },
    close: () => offs.forEach((off) => off()),
  };
}
