// All devices that the controller knows, live.

import { h, replace } from "./dom.js";
import { since } from "./format.js";
import { card, empty, statePill } from "./parts.js";
import { known, on } from "./store.js";

const HEADS = ["Name", "State", "Model", "Address", "Firmware", "Agent", "Up for", "Last close"];

function lastClose(device) {
  const last = device.lastClose;
  return last.number ? last.reason || `code ${last.code}` : "none yet";
}

function row(device) {
  return h("tr", {},
    h("td", {}, h("a", { href: `#/device/${encodeURIComponent(device.id)}` }, device.name ?? device.id)),
    h("td", {}, statePill(device.state), " ",
      h("span", { class: "muted small" }, h("span", { "data-since": device.since }, since(device.since)))),
    h("td", {}, device.product ?? "-"), h("td", { class: "mono" }, device.address ?? "-"),
    h("td", {}, device.versions.active ?? "-"), h("td", {}, device.versions.agent ?? "-"),
    h("td", {}, h("span", { "data-since": device.booted }, since(device.booted))),
    h("td", {}, lastClose(device)));
}

export function overviewPage() {
  const body = h("tbody", {});
  const table = h("div", { class: "scroll" }, h("table", { class: "table devices" },
    h("caption", { class: "sr" }, "Devices"),
    h("thead", {}, h("tr", {}, HEADS.map((text) => h("th", { scope: "col" }, text)))), body));
  const none = empty("No device is known yet. It appears here as soon as the lab has started it.");
  const draw = () => {
    replace(body, known.devices.map(row));
    none.hidden = known.devices.length > 0;
    table.hidden = !none.hidden;
  };
  const tick = setInterval(() => {
    for (const span of body.querySelectorAll("[data-since]")) span.textContent = since(Number(span.dataset.since));
  }, 1000);
  const off = on("device", draw);
  draw();
  return {
    element: h("div", { class: "stack" }, h("h1", {}, "Devices"),
      card("Known to this controller", null, table, none),
      h("p", { class: "muted" }, "Open a device to see its messages, change its configuration, watch its "
        + "statistics, and to break things and see it recover.")),
    close: () => { clearInterval(tick); off(); },
  };
}
