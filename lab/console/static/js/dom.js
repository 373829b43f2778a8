// Makes elements. Everything shown is text from outside: it only ever becomes a text node.

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === "function") element.addEventListener(name.slice(2), value);
    else if (name in { value: 1, checked: 1, disabled: 1, hidden: 1 }) element[name] = value;
    else element.setAttribute(name, value === true ? "" : String(value));
  }
  append(element, children);
  return element;
}

export function append(element, children) {
  for (const child of children.flat(Infinity)) {
    if (child === null || child === undefined || child === false) continue;
    element.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
}

// h("p", {class: "muted"}, "text", otherElement): an element. "onclick" and the like take functions.
export function h(tag, attributes, ...children) {
  return fill(document.createElement(tag), attributes, children);
}

// The same for drawings.
export function svg(tag, attributes, ...children) {
  return fill(document.createElementNS("http://www.w3.org/2000/svg", tag), attributes, children);
}

export function replace(element, ...children) {
  element.replaceChildren();
  append(element, children);
  return element;
}

// Sets a text only where it differs: screen readers and selections are left alone otherwise.
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

let counter = 0;

export function freshId(prefix) {
  counter += 1;
  return `${prefix}-${counter}`;
}
