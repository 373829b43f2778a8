// Firmware: an upgrade through all its stages, and the support archive.

import { outcomes, workButton } from "../action.js";
import { append, h, replace, setText } from "../dom.js";
import { bytes } from "../format.js";
import { card, check, facts, field, notice, select, sortable } from "../parts.js";
import { steps } from "../steps.js";
import { device, known, on } from "../store.js";
import { read } from "../wire.js";

const STAGES = ["Asked for", "Downloading", "Writing the flash", "In the flash"];
const AFTER = ["Rebooting", "Registered with it"];
const REACHED = { Initiated: 1, OnGoing: 1, InProgress: 2, UpdateComplete: 4, Rebooting: 4 };

function stage(text) {
  try {
    return REACHED[JSON.parse(text).status];
  } catch {
    return undefined;
  }
}

function banks(id) {
  const element = h("div", {});
  const values = [h("span", {}), h("span", {})];
  const draw = () => ["active", "inactive"].forEach((name, at) => setText(values[at], device(id).versions[name] ?? "-"));
  append(element, [facts([["Running", values[0]], ["In the second bank", values[1]]])]);
  draw();
  return { element, draw };
}

function upgrade(id) {
  const out = outcomes();
  const way = steps("The upgrade");
  const now = banks(id);
  const version = h("input", { type: "text", value: "4.3.0" });
  const url = h("input", { type: "text", placeholder: "https://... of an image; empty: one is made of the version" });
  const reboot = check("reboot into it", { checked: true });
  const fault = select([["", "nothing"]]);
  const said = h("p", { class: "muted small", role: "status" });
  read("api/firmware").then((about) => append(fault, about.faults.map((one) =>
    h("option", { value: one.name }, `${one.name}: ${one.meaning}`))), (error) => out.show("bad", error.message));
  const go = workButton("Upgrade", async () => {
    const wish = { auto_reboot: reboot.input.checked, fault: fault.value || null };
    if (url.value.trim()) wish.url = url.value.trim();
    else wish.version = version.value.trim();
    way.begin(wish.auto_reboot ? [...STAGES, ...AFTER] : STAGES);
    setText(said, "");
    const end = await out.begin("upgrade", wish, { told: (what) => {
      const at = what.kind === "received" ? stage(what.text) : undefined;
      if (at !== undefined) way.reach(at);
      if (what.kind === "note") setText(said, what.text);
      if (what.kind === "event" && what.text.includes("up again")) way.reach(5);
    } });
    setText(said, "");
    if (end.outcome === "done") way.finish();
    else way.fail();
  }, "primary");
  return {
    element: card("Firmware upgrade", null, h("div", { class: "stack" }, now.element,
      h("div", { class: "row end" }, field("Version", version), field("URL", url, { grow: true }), reboot.element),
      h("div", { class: "row end" }, field("What goes wrong", fault), go), way.element, said, out.element)),
    close: on("device", now.draw),
  };
}

function archive() {
  const out = outcomes();
  const found = h("div", { class: "stack", hidden: true });
  const files = sortable("Files of the archive", [{ name: "name", title: "File" },
    { name: "size", title: "Size", number: true, show: bytes }], "name");
  const go = workButton("Fetch", async () => {
    const end = await out.begin("support-archive", {});
    found.hidden = end.outcome !== "done";
    if (end.outcome !== "done") return;
    const { name, members } = end.data;
    replace(found, h("p", {}, h("a", { class: "button", href: `api/uploads/${encodeURIComponent(name)}`, download: name },
      `Download ${name}`)), files.element);
    files.update(members.map(([file, size]) => ({ name: file, size })));
  }, "primary");
  return card("Support archive", go, h("div", { class: "stack" }, h("p", { class: "muted" }, "The device packs its logs, "
    + "state, configuration and network, without secrets, and uploads them."), out.element, found));
}

export function firmwarePanel(id) {
  const part = known.commands.has("upgrade") ? upgrade(id) : null;
  return {
    element: h("div", { class: "stack" }, part?.element ?? notice("info", "This lab cannot upgrade."),
      known.commands.has("support-archive") ? archive() : null),
    close: () => part?.close(),
  };
}
