// Things that go wrong on demand, so that one can watch the device recover.

import { outcomes, workButton } from "../action.js";
import { h, replace, setText } from "../dom.js";
import { card, notice, pill } from "../parts.js";
import { device, on } from "../store.js";
import { timeline } from "../timeline.js";
import { run } from "../wire.js";

function faultCard(fault, out) {
  const lasting = fault.lasting;
  const mark = pill("on", "bad");
  const go = workButton("", async () => {
    const command = go.dataset.active === "true" ? "fault-end" : "fault-begin";
    await out.begin(command, { name: fault.name });
  });
  const element = h("section", { class: "card fault", "data-fault": fault.name },
    h("div", { class: "row" }, h("h3", { class: "grow" }, fault.title), mark), h("p", {}, fault.meaning),
    h("p", { class: "muted small" }, fault.watch), h("div", { class: "foot" }, go));
  const draw = (active) => {
    const on = active.includes(fault.name);
    element.dataset.active = String(on);
    go.dataset.active = String(on);
    mark.hidden = !on;
    go.className = on ? "primary" : "danger";
    setText(go, on ? "Mend it" : lasting ? "Begin" : "Do it");
    go.setAttribute("aria-label", `${go.textContent}: ${fault.title}`);
  };
  return { element, draw };
}

export function faultsPanel(id) {
  const grid = h("div", { class: "columns" });
  const out = outcomes({ trail: false });
  const strip = timeline();
  let cards = [];
  const draw = () => cards.forEach((one) => one.draw(device(id).faults));
  run("faults").done.then((end) => {
    if (end.outcome !== "done") {
      replace(grid, notice("bad", end.text));
      return;
    }
    cards = end.data.faults.map((fault) => faultCard(fault, out));
    replace(grid, cards.map((one) => one.element));
    draw();
  });
  const offs = [on("device", draw), on("state", strip.draw)];
  return {
    element: h("div", { class: "stack" }, card("Break something and watch", h("div", {}, strip.range),
      h("div", { class: "stack" }, strip.element, out.element)), grid),
    tick: strip.draw,
    close: () => offs.forEach((off) => off()),
  };
}
