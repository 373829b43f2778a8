// Live line charts, drawn by Chart.js as the distribution packages it.

import { h } from "./dom.js";
import { clock, measure } from "./format.js";

const MOST_POINTS = 240;
let library = null;

// The library, or an error that says how to get it.
async function load() {
  library ??= import("/charts/chart.mjs").then((chart) => {
    chart.Chart.register(chart.LineController, chart.LineElement, chart.PointElement, chart.LinearScale,
      chart.Tooltip, chart.Filler);
    chart.Chart.defaults.animation = false;
    return chart.Chart;
  }, () => {
    library = null;
    throw new Error("Charts need the package libjs-chart.js: apt-get install libjs-chart.js");
  });
  return library;
}

function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// A chart of some lines; `add(line name, seconds, value)`, then `draw()`.
export async function lineChart(title, unit) {
  const Chart = await load();
  const canvas = h("canvas", { role: "img", "aria-label": title });
  const lines = new Map();
  const chart = new Chart(canvas, {
    type: "line",
    data: { datasets: [] },
    options: {
      maintainAspectRatio: false, parsing: false, interaction: { mode: "nearest", axis: "x", intersect: false },
      scales: {
        x: { type: "linear", bounds: "data",
          ticks: { callback: (value) => clock(value, false), maxTicksLimit: 4, maxRotation: 0 } },
        y: { ticks: { callback: (value) => measure(value, unit), maxTicksLimit: 4 },
          ...(unit === "%" ? { min: 0, max: 100 } : { grace: "10%" }) },
      },
      plugins: { tooltip: { callbacks: {
        title: (items) => clock(items[0].parsed.x), label: (item) => `${item.dataset.label}: ${measure(item.parsed.y, unit)}`,
      } } },
    },
  });
  const paint = () => {
    chart.data.datasets.forEach((set, at) => {
      set.borderColor = colour(`--series-${(at % 6) + 1}`);
      set.backgroundColor = set.borderColor;
    });
    for (const axis of [chart.options.scales.x, chart.options.scales.y]) {
      axis.ticks.color = colour("--muted");
      axis.grid = { color: colour("--line") };
    }
    chart.update();
  };
  const scheme = matchMedia("(prefers-color-scheme: dark)");
  scheme.addEventListener("change", paint);
  paint();
  return {
    element: h("div", { class: "chart" }, canvas),
    add: (name, at, value) => {
      if (!lines.has(name)) {
        lines.set(name, { label: name, data: [], borderWidth: 1.8, pointRadius: 1.5, clip: 6 });
        chart.data.datasets.push(lines.get(name));
        paint();
      }
      const points = lines.get(name).data;
      points.push({ x: at, y: value });
      if (points.length > MOST_POINTS) points.shift();
    },
    draw: () => chart.update("none"),
    close: () => {
      scheme.removeEventListener("change", paint);
      chart.destroy();
    },
  };
}
