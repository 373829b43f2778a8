// Radio scan: the channels as a picture, and the access points around the device as a table.

import { outcomes, workButton } from "../action.js";
import { channelChart } from "../channels.js";
import { h, setText } from "../dom.js";
import { clock } from "../format.js";
import { card, empty, field, select, sortable } from "../parts.js";

const NEIGHBOURS = [
  { name: "ssid", title: "Network", show: (value) => value || h("span", { class: "muted" }, "hidden") },
  { name: "signal", title: "Signal, dBm", number: true }, { name: "channel", title: "Channel", number: true },
  { name: "encryption", title: "Encryption" },
  { name: "bssid", title: "BSSID", show: (value) => h("span", { class: "nowrap" }, value) },
  { name: "manufacturer", title: "Maker" },
];
const CHANNELS = [
  { name: "channel", title: "Channel", number: true }, { name: "interference", title: "Disturbed, %", number: true },
  { name: "noise", title: "Noise, dBm", number: true }, { name: "numAps", title: "Access points", number: true },
];

export function scanPanel() {
  const band = select([["2.4GHz", "2.4 GHz"], ["5GHz", "5 GHz"]]);
  const out = outcomes({ trail: false });
  const chart = channelChart();
  const neighbours = sortable("Access points", NEIGHBOURS, "signal", true);
  const channels = sortable("Channels", CHANNELS, "channel");
  const none = empty("No scan yet. Choose the band that the device's radio can scan, and start one.");
  const when = h("p", { class: "muted small" });
  const key = h("p", { class: "muted small" }, "Hills: access points, as high as their signal in dBm. Bars: how "
    + "disturbed a channel is, the full height is 100 %.");
  const found = h("div", { class: "stack", hidden: true }, card("Channels", when, chart.element, key),
    card("Access points", null, neighbours.element), card("Channels in numbers", null, channels.element));
  const go = workButton("Scan", async () => {
    const end = await out.begin("scan", { band: band.value });
    if (end.outcome !== "done") return;
    const { result } = end.data;
    neighbours.update(result.neighborInfo);
    channels.update(result.channelInfo);
    setText(when, `${result.band} at ${clock(Date.now() / 1000, false)}`);
    found.hidden = false;
    none.hidden = true;
    chart.draw(result);
  }, "primary");
  return {
    element: h("div", { class: "stack" }, card("Radio scan", null, h("div", { class: "stack" },
      h("div", { class: "row end" }, field("Band", band), go), out.element)), none, found),
  };
}
