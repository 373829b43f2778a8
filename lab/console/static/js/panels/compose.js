// Sends any message to the device: start from one of the documents' examples.

import { outcomes, workButton } from "../action.js";
import { explanation, protocol } from "../documents.js";
import { append, h, replace } from "../dom.js";
import { card, check, field, notice, select } from "../parts.js";

export function composer() {
  const type = select([["", "choose a type"]], { onchange: () => pick() });
  const example = select([["", "-"]], { onchange: () => fillIn() });
  const text = h("textarea", { class: "code", rows: 6, spellcheck: "false", placeholder: '{"msgType": 115}' });
  const unchecked = check("even if the documents do not allow it");
  const about = h("div", {});
  const out = outcomes();
  let all = [];
  const chosen = () => all.find((one) => one.name === type.value);
  const pick = () => {
    const one = chosen();
    replace(example, (one?.examples ?? []).map((_, at) => h("option", { value: at }, `example ${at + 1}`)));
    replace(about, one ? h("details", {}, h("summary", {}, "What it means"), explanation(one)) : null);
    fillIn();
  };
  const fillIn = () => {
    const found = chosen()?.examples[Number(example.value)];
    if (found) text.value = JSON.stringify(found, null, 2);
  };
  const send = workButton("Send", () => out.begin("send", { text: text.value.trim(), unchecked: unchecked.input.checked }),
    "primary");
  protocol().then((found) => {
    all = found.filter((one) => one.direction === "to-agent").sort((a, b) => a.number - b.number);
    append(type, all.map((one) => h("option", { value: one.name }, `${one.number} ${one.title}`)));
  }, (error) => replace(about, notice("bad", `The documentation could not be read: ${error.message}`)));
  return card("Send a message of your own", null, h("div", { class: "stack" },
    h("div", { class: "row" }, field("Type", type), field("Example", example)), field("Message", text), about,
    h("div", { class: "row" }, send, unchecked.element), out.element));
}
