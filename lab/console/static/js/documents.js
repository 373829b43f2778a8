// The protocol's documentation, read once: what each message means.

import { h } from "./dom.js";
import { read } from "./wire.js";

let reading = null;

export function protocol() {
  reading ??= read("api/protocol").catch((error) => {
    reading = null; // the next one may have more luck
    throw error;
  });
  return reading;
}

export async function documentOf(direction, number) {
  const all = await protocol();
  return all.find((one) => one.direction === direction && one.number === number);
}

function member(one) {
  return h("tr", {}, h("td", { class: "mono" }, one.name), h("td", {}, one.value,
    one.needed === "no" ? h("span", { class: "muted" }, " (optional)") : null), h("td", {}, one.meaning));
}

// What a message of this type is, in words.
export function explanation(about) {
  const answers = [about.reply && `answered by ${about.reply}`, about.failure && `on failure by ${about.failure}`];
  return h("div", { class: "stack tight" },
    h("h3", {}, `${about.number} ${about.title}`),
    h("p", {}, about.description),
    answers.some(Boolean) ? h("p", { class: "muted small" }, answers.filter(Boolean).join(", ")) : null,
    h("div", { class: "scroll" }, h("table", { class: "table small" },
      h("caption", { class: "sr" }, "Members"),
      h("thead", {}, h("tr", {}, ["Member", "Value", "Meaning"].map((text) => h("th", { scope: "col" }, text)))),
      h("tbody", {}, about.members.map(member)))));
}
