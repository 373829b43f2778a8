// The air as a picture: each access point a hill over its channel, as high as its signal; below it how
// disturbed each channel is.

import { replace, svg } from "./dom.js";

const [HEIGHT, LEFT, RIGHT, FOOT, TOP] = [260, 40, 8, 24, 16];
const [FAINTEST, LOUDEST] = [-100, -30];
const ROOM = 110; // pixels that a name takes

export function channelChart() {
  const element = svg("svg", { class: "channels", role: "img",
    "aria-label": "Channels and access points; the tables below tell the same" });

  let shown = null;
  const draw = () => {
    if (!shown || !element.clientWidth) return;
    const [result, width] = [shown, element.clientWidth];
    element.setAttribute("viewBox", `0 0 ${width} ${HEIGHT}`);
    const used = [...result.channelInfo, ...result.neighborInfo].map((one) => one.channel);
    const numbers = [...new Set(used)].sort((a, b) => a - b);
    const beside = result.band === "2.4GHz" ? 2 : 0.5; // 20 MHz are four channels of that band
    const step = (width - LEFT - RIGHT) / (Math.max(numbers.length - 1, 0) + 2 * beside);
    const x = (channel) => LEFT + (numbers.indexOf(channel) + beside) * step;
    const within = (signal) => Math.min(Math.max(signal, FAINTEST), LOUDEST);
    const y = (signal) => TOP + ((LOUDEST - within(signal)) / (LOUDEST - FAINTEST)) * (HEIGHT - TOP - FOOT);
    const reach = step * beside;
    const lines = [-40, -60, -80, -100].flatMap((level) => [
      svg("line", { x1: LEFT, x2: width - RIGHT, y1: y(level), y2: y(level) }), svg("text", { x: 4, y: y(level) + 4 }, level)]);
    const bars = result.channelInfo.flatMap((one) => {
      const height = (Math.min(Math.max(one.interference, 0), 100) / 100) * (HEIGHT - TOP - FOOT);
      return [svg("rect", { x: x(one.channel) - step * 0.3, width: step * 0.6, y: HEIGHT - FOOT - height, height,
        fill: "var(--line)" },
      svg("title", {}, `channel ${one.channel}: ${one.interference} % disturbed, noise ${one.noise} dBm`)),
      svg("text", { x: x(one.channel), y: HEIGHT - FOOT + 16, "text-anchor": "middle" }, one.channel)];
    });
    const loudest = [...result.neighborInfo].sort((a, b) => b.signal - a.signal);
    const hills = loudest.flatMap((one, at) => {
      const [middle, top, foot] = [x(one.channel), y(one.signal), HEIGHT - FOOT];
      const bend = reach * 0.7;
      const colour = `var(--series-${(at % 6) + 1})`;
      const hill = svg("path", { class: "lobe", fill: colour, stroke: colour,
        d: `M${middle - reach} ${foot} Q${middle - bend} ${top} ${middle} ${top} `
          + `Q${middle + bend} ${top} ${middle + reach} ${foot}` },
      svg("title", {}, `${one.ssid || "hidden"} on channel ${one.channel}: ${one.signal} dBm`));
      const label = at < width / ROOM && svg("text", { x: middle, y: top - 3, "text-anchor": "middle" },
        (one.ssid || "hidden").slice(0, 14));
      return [hill, label];
    });
    replace(element, bars, lines, hills);
  };
  new ResizeObserver(draw).observe(element);
  return { element, draw: (result) => { shown = result; draw(); } };
}
