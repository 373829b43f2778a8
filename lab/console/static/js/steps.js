// Steps on a way, each waiting, under way, done or failed.

import { h, replace } from "./dom.js";

export function steps(label) {
  const element = h("ol", { class: "steps", "aria-label": label, hidden: true });
  let items = [];
  const mark = (at, state) => items.forEach((item, index) => {
    item.dataset.step = index < at ? "done" : index === at ? state : "waiting";
  });
  return {
    element,
    begin: (titles) => {
      items = titles.map((title) => h("li", {}, title));
      replace(element, items);
      element.hidden = false;
      mark(0, "now");
    },
    reach: (at) => mark(at, "now"), // all before it are done
    finish: () => mark(items.length, "now"),
    fail: () => {
      const now = items.find((item) => item.dataset.step === "now");
      if (now) now.dataset.step = "failed";
    },
    hide: () => { element.hidden = true; },
  };
}
