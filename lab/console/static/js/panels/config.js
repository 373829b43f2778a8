// The configuration: pull it, edit it, see what differs, push it in one of three forms, and watch
// what comes of it, the way back included.

import { outcomes, workButton } from "../action.js";
import { brief, difference } from "../diff.js";
import { h, replace } from "../dom.js";
import { card, check, empty, field, notice } from "../parts.js";
import { steps } from "../steps.js";
import { device, on } from "../store.js";

const FORMS = {
  changes: { title: "Changed lines", hint: "Only the lines that you have added or changed are sent, and take "
    + "effect at once.", steps: ["Sent", "In progress", "Complete"] },
  whole: { title: "Whole configuration", hint: "All of the text replaces what the device has. It reboots.",
    steps: ["Sent", "In progress", "Accepted, with a reboot", "Rebooting", "Registered again"] },
  object: { title: "JSON object", hint: "For the device's configuration daemon. What it does not name stays.",
    steps: ["Sent", "Initiated", "In progress", "Complete"] },
};
const REACHED = {
  changes: { InProgress: 1, Complete: 3 }, whole: { InProgress: 1, CompleteWithReboot: 3 },
  object: { Initiated: 1, InProgress: 2, Complete: 4 },
};
const EXAMPLE = '{\n  "system": {"hostname": "hall-3"},\n  "radios": {"radio0": {"channel": 44}}\n}\n';
const TRIAL_TONES = { waiting: "warn", kept: "good", reverting: "warn", reverted: "bad", rejected: "bad" };

function diffView(rows) {
  const shown = brief(rows);
  if (!rows.some(([kind]) => kind !== " ")) return h("p", { class: "muted" }, "Nothing differs from what was pulled.");
  const names = { "+": "added: ", "-": "removed: " };
  return h("div", { class: "diff", tabindex: "0", role: "group", "aria-label": "What differs" },
    shown.map(([kind, line]) => h("div", { "data-change": kind }, h("span", { class: "sr" }, names[kind] ?? ""),
      `${kind === "~" ? " " : kind} ${line}`)));
}

function status(text) {
  try {
    return JSON.parse(text).status;
  } catch {
    return null;
  }
}

export function configPanel(id) {
  const text = h("textarea", { class: "code", id: "config-text", spellcheck: "false", rows: 16, oninput: () => draw(),
    placeholder: "Pull the device's configuration first, or write lines such as: set system hostname hall-3" });
  const object = h("textarea", { class: "code", id: "config-object", spellcheck: "false", rows: 8, oninput: () => draw() });
  object.value = EXAMPLE;
  const native = h("textarea", { class: "code", spellcheck: "false", rows: 2, placeholder: "set radio0 power 10" });
  const overwrite = check("replaces the whole configuration");
  const differs = h("div", {});
  const hint = h("p", { class: "muted small" });
  const trial = h("div", { role: "status", "aria-live": "polite" });
  const way = steps("The push");
  const out = outcomes();
  const pullOut = outcomes({ quiet: true, trail: false });
  let pulled = null;
  let form = "changes";
  let pushedAt = 0;

  const rows = () => difference(pulled ?? "", text.value);
  const added = () => (pulled === null ? text.value : rows().filter(([kind, line]) => kind === "+" && line.trim())
    .map(([, line]) => `${line}\n`).join(""));

  const draw = () => {
    const isObject = form === "object";
    lines.hidden = isObject;
    json.hidden = !isObject;
    hint.textContent = FORMS[form].hint;
    let wrong = "";
    if (isObject) {
      try {
        const value = JSON.parse(object.value);
        if (value === null || typeof value !== "object" || Array.isArray(value)) wrong = "This is JSON, but not an object.";
      } catch (error) {
        wrong = `Not JSON: ${error.message}`;
      }
    }
    object.setAttribute("aria-invalid", String(Boolean(wrong)));
    push.disabled = Boolean(wrong) || (!isObject && !(form === "changes" ? added() : text.value).trim());
    if (isObject) replace(differs, wrong ? notice("bad", wrong) : null);
    else if (pulled === null) replace(differs, empty("Pull the configuration to see what you change."));
    else {
      const now = rows();
      const count = (wanted) => now.filter(([kind]) => kind === wanted).length;
      const gone = form === "changes" && count("-") > count("+");
      replace(differs, diffView(now), gone ? notice("warn", "Lines that you have removed stay on the device in this form. "
        + 'Write what undoes them ("delete ssid guests"), or push the whole configuration.') : null);
    }
  };
  const pull = async () => {
    const end = await pullOut.begin("config-pull", {});
    if (end.outcome !== "done") return;
    pulled = end.data.config;
    text.value = pulled;
    pullButton.textContent = "Pull again";
    pullButton.className = "";
    draw();
  };
  const asked = () => {
    if (form === "object") {
      return { config: JSON.parse(object.value), native: native.value || null, overwrite: overwrite.input.checked };
    }
    return form === "changes" ? { config: added() } : { config: text.value, overwrite: true };
  };
  const work = async () => {
    const mine = form;
    way.begin(FORMS[mine].steps);
    pushedAt = Date.now() / 1000;
    replace(trial);
    const end = await out.begin("config-push", asked(), { told: (what) => {
      const at = what.kind === "received" && REACHED[mine][status(what.text)];
      if (at) way.reach(at);
    } });
    if (end.outcome !== "done") way.fail();
    else if (mine === "whole") rebooting = "wait";
    else await pull();
  };
  let rebooting = "";
  const follow = () => {
    const now = device(id);
    if (rebooting === "wait" && now.state === "rebooting") rebooting = "down";
    if (rebooting === "down" && now.state !== "rebooting") {
      way.reach(4);
      rebooting = "up";
    }
    if (rebooting === "up" && now.state === "online") {
      way.finish();
      rebooting = "";
      pull();
    }
    if (now.trial.at > pushedAt && pushedAt) {
      replace(trial, notice(TRIAL_TONES[now.trial.outcome] ?? "info", now.trial.text));
      if (["reverted", "rejected"].includes(now.trial.outcome)) way.fail();
    }
  };

  const choices = h("fieldset", {}, h("legend", {}, "Push as"), h("div", { class: "choices" },
    Object.entries(FORMS).map(([name, { title }]) => h("label", { class: "check" },
      h("input", { type: "radio", name: "form", value: name, checked: name === form,
        onchange: () => { form = name; draw(); } }), title))));
  const lines = field("Configuration, one setting a line", text);
  const json = h("div", { class: "stack tight" }, field("Object", object),
    field("Native part, applied behind the object (may be empty)", native), overwrite.element);
  const pullButton = workButton("Pull from the device", pull, "primary");
  const push = workButton("Push", work, "primary", { id: "config-push" }, () => draw());
  const off = on("device", follow);
  draw();
  return {
    element: h("div", { class: "stack" },
      card("Configuration", pullButton, h("div", { class: "stack" }, pullOut.element, choices, hint, lines, json)),
      card("What you are about to change", null, differs),
      card("Push", null, h("div", { class: "stack" }, h("p", { class: "muted" }, "Should the device lose its controller "
        + "by it, it goes back to what it had after ten minutes."), h("div", { class: "row" }, push),
      way.element, out.element, trial))),
    close: off,
  };
}
