// What the page knows of the lab, kept up to date, and whom to tell of changes.

const MOST = 3000;
export const known = {
  lab: "", devices: [], commands: new Set(), messages: [], happenings: [], states: [],
};
const listeners = new Map();

// Calls `listener` for each item of this kind from now on; "hello" means that all is new. The
// function that is returned ends it.
export function on(kind, listener) {
  if (!listeners.has(kind)) listeners.set(kind, new Set());
  listeners.get(kind).add(listener);
  return () => listeners.get(kind).delete(listener);
}

function tell(kind, item) {
  for (const listener of listeners.get(kind) ?? []) listener(item);
}

export function hello(all) {
  known.lab = all.lab;
  known.devices = all.devices;
  known.commands = new Set(all.commands);
  known.messages = all.messages;
  known.happenings = all.happenings;
  known.states = all.states;
  tell("hello");
  tell("device");
}

const lists = { message: "messages", happening: "happenings", state: "states" };

export function live(items, missed) {
  for (const { kind, item } of items) {
    const list = known[lists[kind]];
    if (list) {
      if (list.length && item.id <= list[list.length - 1].id) continue; // hello had it already
      list.push(item);
      if (list.length > MOST) list.splice(0, list.length - MOST);
    }
    if (kind === "device") known.devices = [item];
    tell(kind, item);
  }
  if (missed) tell("missed", missed);
  tell("batch");
}

export function device(id) {
  return known.devices.find((one) => one.id === id);
}
