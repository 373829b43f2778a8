// Programs of the device: what they say to the controller through the agent, and what they hear.

import { asking } from "../asking.js";
import { h } from "../dom.js";
import { field } from "../parts.js";
import { known } from "../store.js";

function payload(text) {
  return h("textarea", { class: "code", rows: 2, spellcheck: "false" }, text);
}

// Sends the JSON of an input, or says what is wrong with it.
async function send(out, command, input) {
  let value = null;
  try {
    value = JSON.parse(input.value);
  } catch (error) {
    input.setAttribute("aria-invalid", "true");
    out.show("bad", `Not JSON: ${error.message}`);
    return;
  }
  input.setAttribute("aria-invalid", "false");
  await out.begin(command, { payload: value });
}

function json(command, title, label, first, text) {
  const input = payload(first);
  return () => asking(title, field(label, input, { grow: true }), text, (out) => send(out, command, input));
}

function plain(command, title, label, first, text) {
  const input = h("input", { type: "text", value: first });
  return () => asking(title, field(label, input, { grow: true }), text, (out) => out.begin(command, { text: input.value }));
}

export function programsPanel() {
  const cards = {
    event: plain("event", "A program raises an event", "Any text", '{"msgType": 699, "eId": "DoorOpened"}', "Raise"),
    log: plain("log", "A program logs a line", "Line", "hostapd: up", "Log"),
    "wifid-event": json("wifid-event", "The Wi-Fi daemon raises an event", "Payload", '{"event": "client-joined"}', "Raise"),
    "wifid-register": json("wifid-register", "The Wi-Fi daemon registers", "Payload",
      '{"radios": ["2.4GHz", "5GHz"]}', "Register"),
    "wifid-answer": json("wifid-answer", "The controller answers the Wi-Fi daemon", "Payload", '{"vlan": 20}', "Answer"),
  };
  return { element: h("div", { class: "columns" }, Object.entries(cards).filter(([command]) => known.commands.has(command))
    .map(([, make]) => make())) };
}
