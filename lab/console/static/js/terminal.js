// Output as a terminal shows it: it follows the end, unless somebody has scrolled up.

import { h, replace } from "./dom.js";

const MOST_PIECES = 4000;
// What moves a real terminal's cursor or hides text shows as a mark here; breaks and tabs stay.
// eslint-disable-next-line no-control-regex
const CONTROL = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u202a-\u202e\u2066-\u2069]/g;

export function terminal(label) {
  const element = h("div", { class: "terminal", role: "log", tabindex: "0", "aria-label": label });
  const write = (text, kind = "") => {
    const atEnd = element.scrollTop + element.clientHeight >= element.scrollHeight - 8;
    element.append(h("span", { class: kind || null }, text.replace(/\r\n/g, "\n").replace(CONTROL, "\ufffd")));
    while (element.childNodes.length > MOST_PIECES) element.firstChild.remove();
    if (atEnd) element.scrollTop = element.scrollHeight;
  };
  // A line of its own, whatever the output before it ended with.
  const line = (text, kind) => {
    const last = element.lastChild?.textContent ?? "\n";
    write(`${last.endsWith("\n") ? "" : "\n"}${text}\n`, kind);
  };
  return { element, write, line, clear: () => replace(element) };
}
