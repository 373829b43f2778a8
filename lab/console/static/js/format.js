// Times, sizes and numbers as people read them.

export function clock(at, tenths = true) {
  const when = new Date(at * 1000);
  const two = (number) => String(number).padStart(2, "0");
  const text = `${two(when.getHours())}:${two(when.getMinutes())}:${two(when.getSeconds())}`;
  return tenths ? `${text}.${Math.floor(when.getMilliseconds() / 100)}` : text;
}

export function date(at) {
  return at > 0 ? new Date(at * 1000).toLocaleString() : "-";
}

export function duration(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  if (whole < 60) return `${whole} s`;
  if (whole < 3600) return `${Math.floor(whole / 60)} min ${whole % 60} s`;
  if (whole < 86400) return `${Math.floor(whole / 3600)} h ${Math.floor(whole / 60) % 60} min`;
  return `${Math.floor(whole / 86400)} d ${Math.floor(whole / 3600) % 24} h`;
}

export function since(at) {
  return at > 0 ? duration(Date.now() / 1000 - at) : "-";
}

export function bytes(number) {
  const units = ["bytes", "KiB", "MiB", "GiB", "TiB"];
  let size = number;
  let unit = 0;
  while (Math.abs(size) >= 1024 && unit < units.length - 1) {
    size /= 1024;
    unit += 1;
  }
  return `${unit && Math.abs(size) < 100 ? size.toFixed(1) : Math.round(size)} ${units[unit]}`;
}

// A measured value with its unit, short.
export function measure(value, unit) {
  if (value === null || value === undefined) return "-";
  if (typeof value !== "number") return String(value);
  if (unit === "bytes") return bytes(value);
  if (unit === "bytes/s") return `${bytes(value)}/s`;
  const shown = Number.isInteger(value) ? value.toLocaleString("en") : value.toFixed(Math.abs(value) < 10 ? 2 : 1);
  return unit && !["number", "text", "counter"].includes(unit) ? `${shown} ${unit}` : shown;
}

// JSON text with indents; what is not JSON stays as it is.
export function pretty(text) {
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}
