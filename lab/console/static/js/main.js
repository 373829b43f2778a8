// Starts the page: the connection to the lab, and which page the address names.

import { setText, h, replace } from "./dom.js";
import { devicePage } from "./devicepage.js";
import { overviewPage } from "./overviewpage.js";
import * as store from "./store.js";
import { connect } from "./wire.js";

const LINK_WORDS = { live: "live", connecting: "connecting", lost: "the lab does not answer" };
const main = document.getElementById("main");
const crumbs = document.getElementById("crumbs");
let shown = { key: "", lab: "", page: null };

// The address after "#": "/" or "/device/ID/PANEL"; whatever else stands there means the first.
function place() {
  try {
    const [, kind, id, panel] = location.hash.slice(1).split("/").map(decodeURIComponent);
    if (kind === "device" && id) return { kind, id, panel: panel ?? "" };
  } catch (error) {
    if (!(error instanceof URIError)) throw error;
  }
  return { kind: "overview" };
}

function show() {
  if (!store.known.lab) return;
  const where = place();
  const key = where.kind + (where.id ?? "");
  if (shown.key !== key) {
    shown.page?.close();
    shown = { key, lab: store.known.lab, page: where.kind === "device" ? devicePage(where.id) : overviewPage() };
    replace(main, shown.page.element);
    window.scrollTo(0, 0);
  }
  shown.page.show?.(where.panel);
  const name = store.device(where.id)?.name ?? where.id;
  replace(crumbs, where.kind === "device" ? [h("a", { href: "#/" }, "Devices"), ` / ${name}`] : "");
  document.title = where.kind === "device" ? `${name} · Orvanta console` : "Orvanta console";
}

store.on("hello", () => {
  if (shown.lab === store.known.lab) return; // the connection is back: the page goes on
  shown.page?.close();
  shown = { key: "", lab: "", page: null };
  show();
});
window.addEventListener("hashchange", () => {
  show();
  if (document.activeElement === document.body) main.focus({ preventScroll: true });
});
connect({
  hello: store.hello,
  live: store.live,
  link: (state) => {
    const link = document.getElementById("link");
    link.dataset.link = state;
    setText(link, LINK_WORDS[state]);
  },
});
