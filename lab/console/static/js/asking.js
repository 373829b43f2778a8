// A card with a few inputs, a button and what comes of it.

import { outcomes, workButton } from "./action.js";
import { h } from "./dom.js";
import { card, enters } from "./parts.js";

export function asking(title, inputs, text, work, kind = "") {
  const out = outcomes();
  const go = workButton(text, () => work(out), kind);
  return card(title, null, h("div", { class: "stack tight" },
    enters(h("div", { class: "row end" }, inputs, go), go), out.element));
}
