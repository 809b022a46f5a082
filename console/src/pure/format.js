// How figures, sizes and times are written for people.

const units = ["B", "KiB", "MiB", "GiB", "TiB", "PiB"];

export function bytes(count) {
  if (!Number.isFinite(count)) {
    return "–";
  }
  let value = Math.max(0, count);
  let unit = 0;
  while (value >= 1023.95 && unit < units.length - 1) {
    value /= 1024;
    ++unit;
  }
  const digits = unit === 0 || value >= 99.95 ? 0 : 1;
  return `${value.toFixed(digits)} ${units[unit]}`;
}

export function number(count, language) {
  return Number.isFinite(count) ? new Intl.NumberFormat(language, { maximumFractionDigits: 1 }).format(count) : "–";
}

export function percent(share, language) {
  return new Intl.NumberFormat(language, { style: "percent", maximumFractionDigits: 0 }).format(share);
}

// The two largest units of a time in seconds: "3 d 4 h", "12 s".
export function duration(seconds) {
  const parts = [];
  let rest = Math.max(0, Math.round(seconds));
  for (const [name, length] of [
    ["d", 86400],
    ["h", 3600],
    ["min", 60],
    ["s", 1],
  ]) {
    const count = Math.floor(rest / length);
    rest -= count * length;
    if (count > 0 && parts.length < 2) {
      parts.push(`${count} ${name}`);
    } else if (parts.length > 0) {
      break;
    }
  }
  return parts.length > 0 ? parts.join(" ") : "0 s";
}

export function milliseconds(value) {
  if (!Number.isFinite(value)) {
    return "–";
  }
  return value < 10 ? `${value.toFixed(1)} ms` : value < 10000 ? `${Math.round(value)} ms` : duration(value / 1000);
}

// A moment in the zone and the language of the reader; `moment` is a Date or what makes one.
export function moment(value, language, zone) {
  const date = value instanceof Date ? value : new Date(value);
  return Number.isNaN(date.getTime())
    ? "–"
    : new Intl.DateTimeFormat(language, { dateStyle: "medium", timeStyle: "short", timeZone: zone }).format(date);
}
