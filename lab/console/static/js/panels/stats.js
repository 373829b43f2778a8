// Statistics: choose what the device reports and how often, and watch it move.

import { outcomes, workButton } from "../action.js";
import { h, replace } from "../dom.js";
import { card, check, empty, field, notice, select } from "../parts.js";
import { device, on } from "../store.js";
import { follow, read } from "../wire.js";
import { statsView } from "./statsview.js";

const SLOTS = [2, 3, 4, 5, 6, 7];
const FIRST_FIELDS = ["cpuUse", "memAvailable", "txBytes", "load1"];
const FIRST_TABLES = ["interfaces"];

function standingList(id, stop) {
  const element = h("ul", { class: "stack tight" });
  let drawn = "";
  const draw = () => {
    const standing = device(id).standing;
    if (drawn === JSON.stringify(standing)) return; // buttons keep the focus
    drawn = JSON.stringify(standing);
    replace(element, standing.length ? standing.map((one) => h("li", { class: "row" },
      h("span", { class: "grow" }, h("b", {}, `Slot ${one.index}`), ` every ${one.interval} s: `,
        h("span", { class: "muted" }, [...(one.fields ?? []), ...Object.keys(one.tables ?? {})].join(", "))),
      workButton("Stop", () => stop(one.index), "", { "aria-label": `Stop slot ${one.index}` })))
      : empty("The device reports nothing by itself yet. Choose values below and start a report."));
  };
  draw();
  return { element, draw };
}

function chooser(title, names, chosen) {
  const boxes = names.map((one) => {
    const box = check(one.name, { value: one.name, checked: chosen.includes(one.name) });
    box.element.title = `${one.meaning}${one.unit ? ` (${one.unit})` : ""}`;
    return box;
  });
  return {
    element: h("fieldset", {}, h("legend", {}, title), h("div", { class: "names" }, boxes.map((box) => box.element))),
    chosen: () => boxes.filter((box) => box.input.checked).map((box) => box.input.value),
  };
}

export function statsPanel(id) {
  const out = outcomes({ trail: false });
  const chosenHere = h("div", { class: "stack" });
  const shown = h("div", { class: "stack" });
  const slot = select(SLOTS.map((number) => [number, number]));
  const interval = h("input", { type: "number", min: 1, max: 86400, value: 3 });
  const stop = (number) => out.begin("stats-stop", { slot: number });
  const standing = standingList(id, stop);
  const choosing = h("details", { class: "card", open: true }, h("summary", {}, "Choose what it reports"), chosenHere);
  let view = null;
  let unfollow = null;

  read("api/statistics").then((known) => {
    const fields = chooser("Values of the device", known.fields, FIRST_FIELDS);
    const tables = chooser("Tables, reported whole", known.tables, FIRST_TABLES);
    view = statsView(known);
    const start = workButton("Start", async () => {
      const end = await out.begin("stats-subscribe", { slot: Number(slot.value), interval: Number(interval.value),
        fields: fields.chosen(), tables: tables.chosen() });
      if (end.outcome === "done") choosing.open = false; // the charts come below
    }, "primary");
    const once = workButton("Ask once", async () => {
      const end = await out.begin("stats-once", { kind: "once", fields: fields.chosen(), tables: tables.chosen() });
      if (end.outcome !== "done") return;
      out.show("good", "The report is below.");
      view.take({ at: Date.now() / 1000, stats: end.data.stats });
    });
    replace(chosenHere, fields.element, tables.element, h("div", { class: "row end" }, field("Slot", slot),
      field("Every, s", interval), start, once));
    replace(shown, view.element);
  }, (error) => replace(chosenHere, notice("bad", `What can be asked for could not be read: ${error.message}`)));

  const offs = [on("device", standing.draw), on("report", (report) => view?.take(report))];
  return {
    element: h("div", { class: "stack" },
      card("Reports under way", null, standing.element, out.element),
      choosing, shown),
    show: () => { unfollow ??= follow("report"); },
    close: () => { unfollow?.(); offs.forEach((off) => off()); view?.close(); },
  };
}
