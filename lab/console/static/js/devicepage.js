// One device: its head, the list of panels, and the panel that is open. Panels keep their contents
// while the page is open, so that what runs in one goes on while another is looked at.

import { append, h, setText } from "./dom.js";
import { since } from "./format.js";
import { empty, pill, STATES } from "./parts.js";
import { device, known, on } from "./store.js";
import { configPanel } from "./panels/config.js";
import { faultsPanel } from "./panels/faults.js";
import { firmwarePanel } from "./panels/firmware.js";
import { logPanel } from "./panels/log.js";
import { messagesPanel } from "./panels/messages.js";
import { programsPanel } from "./panels/programs.js";
import { scanPanel } from "./panels/scan.js";
import { statsPanel } from "./panels/stats.js";
import { summaryPanel } from "./panels/summary.js";
import { troublePanel } from "./panels/trouble.js";

// A panel is there only if the lab has one of the commands that it is about.
const PANELS = [
  { name: "summary", title: "Overview", make: summaryPanel },
  { name: "messages", title: "Messages", make: messagesPanel },
  { name: "config", title: "Configuration", about: ["config-push"], make: configPanel },
  { name: "stats", title: "Statistics", about: ["stats-subscribe"], make: statsPanel },
  { name: "trouble", title: "Troubleshooting", about: ["run", "latency"], make: troublePanel },
  { name: "scan", title: "Radio scan", about: ["scan"], make: scanPanel },
  { name: "firmware", title: "Firmware", about: ["upgrade", "support-archive"], make: firmwarePanel },
  { name: "programs", title: "Programs", about: ["event", "wifid-event"], make: programsPanel },
  { name: "log", title: "Log", make: logPanel },
  { name: "faults", title: "Faults", about: ["fault-begin"], make: faultsPanel },
];

const SILENCE = 40; // seconds: the agent's keep-alives are less than 30 s apart

// The controller cannot see that a cable was cut; what it sees is that nothing comes any more.
function silence(now) {
  const quiet = Date.now() / 1000 - Math.max(now.ping.at ?? 0, now.since);
  return now.state === "online" && quiet > SILENCE ? `no keep-alive for ${Math.floor(quiet)} s` : "";
}

function say(element, text) {
  setText(element, text);
  element.hidden = !text;
}

// Name, state and what is unusual; `draw` touches only what has changed.
function deviceHead(id) {
  const [name, product, mac, reason] = [h("h1", {}), h("span", { class: "muted" }), h("span", { class: "muted mono" }, id),
    h("p", { class: "reason" })];
  const [state, quiet, faults] = [pill("", ""), pill("", "warn", true), pill("", "bad", true)];
  const draw = () => {
    const now = device(id);
    const [words, tone] = STATES[now.state] ?? [now.state, "info"];
    setText(name, now.name ?? id);
    setText(state, words);
    state.dataset.tone = tone;
    say(quiet, silence(now));
    say(product, now.product ?? "");
    say(faults, now.faults.length ? `${now.faults.length} fault${now.faults.length > 1 ? "s" : ""} on` : "");
    setText(reason, now.since ? `${now.reason} (${since(now.since)})` : now.reason);
  };
  return { element: h("div", { class: "device-head" }, name, state, quiet, product, mac, faults, reason), draw };
}

export function devicePage(id) {
  if (!device(id)) {
    return { element: empty("This lab has no device ", id, ". ", h("a", { href: "#/" }, "See all devices")), close() {} };
  }
  const panels = PANELS.filter((panel) => !panel.about || panel.about.some((command) => known.commands.has(command)));
  const made = new Map();
  const head = deviceHead(id);
  const tabs = h("nav", { class: "tabs", "aria-label": "Panels of this device" });
  const place = h("div", {});
  let open = null;

  const link = (panel) => h("a", { href: `#/device/${encodeURIComponent(id)}/${panel.name}`, "data-panel": panel.name },
    panel.title, h("span", { class: "count", hidden: true }));
  append(tabs, panels.map(link));

  const draw = () => {
    head.draw();
    badge("messages", device(id).problems);
    badge("faults", device(id).faults.length);
  };
  const badge = (name, count) => {
    const place = tabs.querySelector(`[data-panel="${name}"] .count`);
    if (!place) return;
    place.hidden = !count;
    setText(place, String(count));
  };
  const tick = setInterval(() => {
    head.draw();
    open?.tick?.();
  }, 1000);

  const show = (wanted) => {
    const panel = panels.find((one) => one.name === wanted) ?? panels[0];
    if (!made.has(panel.name)) {
      const fresh = panel.make(id);
      fresh.element.dataset.content = panel.name;
      made.set(panel.name, fresh);
      place.append(fresh.element);
    }
    for (const [name, one] of made) {
      if (name !== panel.name && !one.element.hidden) {
        one.element.hidden = true;
        one.hide?.();
      }
    }
    open = made.get(panel.name);
    open.element.hidden = false;
    open.show?.();
    for (const one of tabs.children) {
      if (one.dataset.panel !== panel.name) {
        one.removeAttribute("aria-current");
        continue;
      }
      one.setAttribute("aria-current", "page");
      tabs.scrollLeft = one.offsetLeft - tabs.offsetLeft - (tabs.clientWidth - one.offsetWidth) / 2; // on a phone
    }
  };
  const off = on("device", draw);
  draw();
  return {
    element: h("div", {}, head.element, h("div", { class: "device-body" }, tabs, place)),
    show,
    close: () => {
      clearInterval(tick);
      off();
      for (const one of made.values()) one.close?.();
    },
  };
}
