// The device's states over time, as a strip: the present at the right end.

import { h, replace, svg } from "./dom.js";
import { clock } from "./format.js";
import { select, STATES } from "./parts.js";
import { known } from "./store.js";

const SPANS = [["120", "2 minutes"], ["600", "10 minutes"], ["3600", "1 hour"], ["0", "all"]];
const WIDTH = 1000;
const BAR = 28;

function segments(from, to) {
  const states = known.states;
  return states.map((one, at) => ({
    state: one.state, reason: one.reason, at: one.at,
    begin: Math.max(one.at, from), end: Math.min(states[at + 1]?.at ?? to, to),
  })).filter((one) => one.end > one.begin);
}

export function timeline() {
  const range = select(SPANS, { "aria-label": "How much of the time is shown", onchange: () => draw() });
  const picture = svg("svg", { class: "timeline", viewBox: `0 0 ${WIDTH} ${BAR}`, preserveAspectRatio: "none", role: "img" });
  const scale = h("div", { class: "row small muted" });
  const draw = () => {
    const to = Date.now() / 1000;
    const first = known.states[0]?.at ?? to;
    const from = range.value === "0" ? first : Math.max(first, to - Number(range.value));
    const length = Math.max(to - from, 1);
    const x = (at) => ((at - from) / length) * WIDTH;
    replace(picture, segments(from, to).map((one) => svg("rect",
      { class: one.state, x: x(one.begin), y: 0, height: BAR, width: Math.max(x(one.end) - x(one.begin), 1.5) },
      svg("title", {}, `${clock(one.at)} ${STATES[one.state]?.[0] ?? one.state}: ${one.reason}`))));
    picture.setAttribute("aria-label", `The device's states since ${clock(from, false)}; the list below tells the same`);
    replace(scale, h("span", { class: "grow" }, clock(from, false)), h("span", {}, "now"));
  };
  const legend = h("ul", { class: "legend" }, ["online", "registering", "lost", "rebooting", "down"].map((state) =>
    h("li", { "data-state": state }, STATES[state][0])));
  draw();
  return { element: h("div", { class: "stack tight" }, picture, scale, legend), range, draw };
}
