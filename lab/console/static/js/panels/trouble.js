// Troubleshooting: commands that run on the device, their output as it comes, and a stop button.

import { outcomes, workButton } from "../action.js";
import { h, replace } from "../dom.js";
import { button, card, check, enters, field, select } from "../parts.js";
import { known } from "../store.js";
import { terminal } from "../terminal.js";
import { run } from "../wire.js";

// The arguments of each command: [name on the wire, label, kind, first value].
const COUNTS = [["count", "Count", "number", ""], ["size", "Size, bytes", "number", ""]];
const COMMANDS = {
  ping: { title: "Ping", args: [["host", "Host", "text", "10.77.0.1"], ["count", "Count", "number", "5"],
    ["size", "Size, bytes", "number", ""], ["ttl", "Time to live", "number", ""]], limited: true },
  traceroute: { title: "Trace the way", args: [["host", "Host", "text", "10.77.0.1"],
    ["traceMethod", "ICMP in place of UDP", "check", "icmp"], ["dontFrag", "don't fragment", "check", true]], limited: true },
  nslookup: { title: "Resolve a name", args: [["host", "Name", "text", "cloud.orvanta.example"]] },
  tcpdump: { title: "Capture packets", args: [["interface", "Interface", "text", "eth0"],
    ["filter", "Filter", "text", "tcp port 8443"], ...COUNTS], limited: true, always: ["filter"] },
  log: { title: "Follow the log", args: [], limited: true },
  wifiperf: { title: "Speed test's end point", args: [] },
  "disconnect-clients": { title: "Send Wi-Fi clients away", args: [["macs", 'MAC addresses, or "ALL"', "list", "ALL"]] },
};

function inputOf([, label, kind, first]) {
  if (kind === "check") return check(label);
  const input = h("input", { type: kind === "number" ? "number" : "text", min: kind === "number" ? 0 : null, value: first });
  return { input, element: field(label, input, { grow: kind !== "number" }) };
}

function valueOf([, , kind, first], input) {
  if (kind === "check") return input.checked ? first : undefined;
  const text = input.value.trim();
  if (kind === "list") return text.split(/[\s,]+/).filter(Boolean);
  if (!text) return undefined;
  return kind === "number" ? Number(text) : text;
}

function commands() {
  const screen = terminal("Output of the command");
  const which = select(Object.entries(COMMANDS).map(([name, { title }]) => [name, title]), { onchange: () => draw() });
  const place = h("div", { class: "row end" });
  const duration = h("input", { type: "number", min: 1, placeholder: "no limit" });
  const limit = field("At most, s", duration);
  const state = h("p", { class: "muted small", role: "status" });
  let inputs = [];
  let current = null;

  const draw = () => {
    const { args, limited } = COMMANDS[which.value];
    inputs = args.map(inputOf);
    replace(place, inputs.map(({ element }) => element));
    limit.hidden = !limited;
  };
  const asked = () => {
    const { args, limited, always = [] } = COMMANDS[which.value];
    const parameters = {};
    args.forEach((argument, at) => {
      const value = valueOf(argument, inputs[at].input);
      if (value !== undefined) parameters[argument[0]] = value;
      else if (always.includes(argument[0])) parameters[argument[0]] = "";
    });
    return { command: which.value, arguments: parameters, duration: limited && duration.value ? Number(duration.value) : 0 };
  };
  const go = button("Run", async () => {
    const wish = asked();
    const typed = Object.values(wish.arguments).flat().join(" ");
    screen.line(`$ ${wish.command} ${typed}`.trimEnd(), "you");
    go.disabled = true;
    stop.disabled = false;
    state.textContent = "running";
    current = run("run", wish, (what) => {
      if (what.kind === "output") screen.write(what.text);
      else if (what.kind === "note") screen.line(`(${what.text})`, "aside");
    });
    const end = await current.done;
    const bad = end.outcome !== "done" && end.text !== "stopped";
    screen.line(`${bad ? "failed: " : ""}${end.text}`, bad ? "bad" : "aside");
    state.textContent = bad ? "failed" : end.text;
    go.disabled = false;
    stop.disabled = true;
  }, "primary");
  const stop = button("Stop", () => {
    state.textContent = "stopping";
    current.cancel();
  }, "danger", { disabled: true });
  draw();
  return {
    element: card("Run on the device", button("Clear", screen.clear), h("div", { class: "stack" },
      enters(h("div", { class: "row end" }, field("Command", which), place, limit, go, stop), go), state, screen.element)),
    close: () => current?.cancel(),
  };
}

function latency() {
  const host = h("input", { type: "text", value: "far.example" });
  const out = outcomes();
  const go = workButton("Measure", () => out.begin("latency", { host: host.value.trim() }));
  return card("Latency", null, h("div", { class: "stack tight" },
    h("p", { class: "muted" }, "Three probes from the device to a host; the average is what the device reports."),
    enters(h("div", { class: "row end" }, field("Host", host, { grow: true }), go), go), out.element));
}

export function troublePanel() {
  const shell = known.commands.has("run") ? commands() : null;
  return {
    element: h("div", { class: "stack" }, shell?.element, known.commands.has("latency") ? latency() : null),
    close: () => shell?.close(),
  };
}
