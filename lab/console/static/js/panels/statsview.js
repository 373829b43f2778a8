// The reports as they come: a chart for each number, the last text of each text, each table whole.

import { lineChart } from "../charts.js";
import { h, replace } from "../dom.js";
import { clock, measure } from "../format.js";
import { card, empty, notice, select, sortable } from "../parts.js";

// Turns counters into rates: what they grew by in each second. One that went back has started anew.
function rates() {
  const last = new Map();
  return (name, at, value) => {
    const before = last.get(name);
    last.set(name, { at, value });
    if (!before || at <= before.at || value < before.value) return null;
    return (value - before.value) / (at - before.at);
  };
}

function figure(name, unit, meaning) {
  const counted = unit === "counter";
  const shownUnit = counted ? (/Bytes$/.test(name) ? "bytes/s" : "/s") : unit;
  const value = h("span", { class: "value" }, "-");
  const place = h("div", {});
  const rate = rates();
  let chart = null;
  const waiting = [];
  lineChart(name, shownUnit).then((made) => {
    chart = made;
    replace(place, chart.element);
    waiting.splice(0).forEach(([at, number]) => chart.add(name, at, number));
    chart.draw();
  }, (error) => replace(place, notice("warn", error.message)));
  const put = (at, given) => {
    const number = counted ? rate(name, at, given) : given;
    if (number === null) return;
    value.textContent = measure(number, shownUnit);
    if (typeof number !== "number") return;
    if (chart) {
      chart.add(name, at, number);
      chart.draw();
    } else {
      waiting.push([at, number]);
    }
  };
  const element = h("section", { class: "card", "data-field": name },
    h("div", { class: "head" }, h("h3", { title: meaning }, name), value), place);
  return { element, put, close: () => chart?.close() };
}

// One table of a report: its rows, and one column of all rows as a chart.
function tableView(about) {
  const units = new Map(about.columns.map((column) => [column.name, column.unit]));
  const [key] = about.columns;
  const numeric = about.columns.filter((column) => !["text"].includes(column.unit) && column !== key);
  const table = sortable(about.name, about.columns.map((column) => ({ name: column.name, title: column.name,
    number: column.unit !== "text", show: (value) => measure(value, column.unit) })), key.name);
  const column = select(numeric.map((one) => [one.name, one.name]), { "aria-label": `Column of ${about.name} to draw`,
    onchange: () => redraw() });
  if (numeric.some((one) => one.name === "rxBytes")) column.value = "rxBytes";
  const place = h("div", {});
  const kept = [];
  let chart = null;
  let turn = 0;
  const addTo = (one, rate, [at, rows]) => rows.forEach((row) => {
    const name = String(row[key.name]);
    const value = units.get(column.value) === "counter" ? rate(name, at, row[column.value]) : row[column.value];
    if (typeof value === "number") one.add(name, at, value);
  });
  let rate = rates();
  const redraw = async () => {
    turn += 1;
    const mine = turn;
    const unit = units.get(column.value);
    try {
      const made = await lineChart(`${about.name} ${column.value}`,
        unit === "counter" ? (/Bytes$/.test(column.value) ? "bytes/s" : "/s") : unit);
      if (mine !== turn) return made.close();
      chart?.close();
      chart = made;
      rate = rates();
      kept.forEach((one) => addTo(chart, rate, one));
      replace(place, chart.element);
      chart.draw();
    } catch (error) {
      replace(place, notice("warn", error.message));
    }
    return null;
  };
  if (numeric.length) redraw();
  const element = card(about.name, numeric.length ? h("div", {}, column) : null,
    h("p", { class: "muted small" }, about.meaning), place, table.element);
  element.dataset.table = about.name;
  return {
    element,
    put: (at, rows) => {
      kept.push([at, rows]);
      if (kept.length > 240) kept.shift();
      table.update(rows);
      if (chart) {
        addTo(chart, rate, [at, rows]);
        chart.draw();
      }
    },
    close: () => chart?.close(),
  };
}

export function statsView(known) {
  const fields = new Map(known.fields.map((one) => [one.name, one]));
  const tables = new Map(known.tables.map((one) => [one.name, one]));
  const figures = new Map();
  const views = new Map();
  const charts = h("div", { class: "charts" });
  const tableList = h("div", { class: "stack" });
  const last = h("p", { class: "muted small", role: "status" });
  const none = empty("No report has come yet.");
  const take = ({ at, slot, stats }) => {
    if (typeof stats !== "object" || stats === null) return;
    none.hidden = true;
    last.textContent = `Last report ${slot ? `of slot ${slot} ` : ""}at ${clock(at)}`;
    for (const [name, value] of Object.entries(stats.fields ?? {})) {
      if (!figures.has(name)) {
        figures.set(name, figure(name, fields.get(name)?.unit ?? "", fields.get(name)?.meaning ?? ""));
        charts.append(figures.get(name).element);
      }
      figures.get(name).put(at, value);
    }
    for (const [name, rows] of Object.entries(stats.tables ?? {})) {
      if (!tables.has(name) || !Array.isArray(rows)) continue;
      if (!views.has(name)) {
        views.set(name, tableView(tables.get(name)));
        tableList.append(views.get(name).element);
      }
      views.get(name).put(at, rows);
    }
  };
  return {
    element: h("div", { class: "stack" }, none, last, charts, tableList),
    take,
    close: () => [...figures.values(), ...views.values()].forEach((one) => one.close()),
  };
}
