// What differs between two texts, line by line.

const LONGEST = 2000; // lines; beyond that the middle is shown as replaced

function table(a, b) {
  const width = b.length + 1;
  const longest = new Uint16Array((a.length + 1) * width);
  for (let i = a.length - 1; i >= 0; i -= 1) {
    for (let j = b.length - 1; j >= 0; j -= 1) {
      longest[i * width + j] = a[i] === b[j] ? longest[(i + 1) * width + j + 1] + 1
        : Math.max(longest[(i + 1) * width + j], longest[i * width + j + 1]);
    }
  }
  return (i, j) => longest[i * width + j];
}

// Rows [" ", "+" or "-", line]: what both have, what only the new or only the old text has.
export function difference(oldText, newText) {
  const [a, b] = [oldText, newText].map((text) => text.replace(/\n$/, "").split("\n").slice(0, LONGEST));
  const common = table(a, b);
  const rows = [];
  let [i, j] = [0, 0];
  while (i < a.length || j < b.length) {
    if (i < a.length && j < b.length && a[i] === b[j]) {
      rows.push([" ", a[i]]);
      i += 1;
      j += 1;
    } else if (i < a.length && (j >= b.length || common(i + 1, j) >= common(i, j + 1))) {
      rows.push(["-", a[i]]);
      i += 1;
    } else {
      rows.push(["+", b[j]]);
      j += 1;
    }
  }
  return rows;
}

// The same with long stretches of equal lines left out, `around` lines of them kept.
export function brief(rows, around = 2) {
  const near = rows.map((_, at) => rows.slice(Math.max(0, at - around), at + around + 1).some(([kind]) => kind !== " "));
  const shown = [];
  rows.forEach((row, at) => {
    if (near[at]) shown.push(row);
    else if (!shown.length || shown[shown.length - 1][0] !== "~") shown.push(["~", "…"]);
  });
  return shown;
}
