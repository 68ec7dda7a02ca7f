// Numbers as a person reads them. All functions take what the server sends
// (numbers, sometimes strings or missing values) and return text; a value
// that is missing or not a number gives "—" rather than "NaN".
//
// Interface:
//   bytes(n)            binary units, as the system reports memory and disks:
//                       1536 -> "1.5 KiB", 1610612736 -> "1.5 GiB"
//   rate(n)             bytes per second: "1.5 MiB/s"
//   duration(seconds)   the two largest units: "3 days 4 hours", "5 minutes"
//   percent(x, digits)  x is a fraction (0.25 -> "25%")
//   hundredths(n)       hundredths of a percent (2550 -> "25.5%")
//   dateTime(date)      local date and time (Intl.DateTimeFormat); accepts a
//                       Date, seconds since 1970 or a date text
//   time(date)          local time of day only
//   number(n, digits)   grouped digits in the person's locale

const DASH = "—";
const numberFormats = new Map();

function toNumber(n) {
  if (typeof n === "number") return n;
  if (typeof n === "bigint") return Number(n);
  if (typeof n === "string" && n.trim() !== "") return Number(n);
  return NaN;
}

export function number(n, digits = 0) {
  const value = toNumber(n);
  if (!Number.isFinite(value)) return DASH;
  let f = numberFormats.get(digits);
  if (!f) {
    f = new Intl.NumberFormat(undefined, { maximumFractionDigits: digits, minimumFractionDigits: 0 });
    numberFormats.set(digits, f);
  }
  return f.format(value);
}

const UNITS = ["bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];

export function bytes(n) {
  let value = toNumber(n);
  if (!Number.isFinite(value) || value < 0) return DASH;
  if (value < 1024) return `${number(value)} ${value === 1 ? "byte" : "bytes"}`;
  let unit = 0;
  while (value >= 1024 && unit < UNITS.length - 1) {
    value /= 1024;
    unit++;
  }
  return `${number(value, value < 10 ? 1 : 0)} ${UNITS[unit]}`;
}

export function rate(n) {
  const value = toNumber(n);
  if (!Number.isFinite(value) || value < 0) return DASH;
  if (value < 1024) return `${number(value)} B/s`;
  return `${bytes(value)}/s`;
}

const SPANS = [
  [86400, "day", "days"],
  [3600, "hour", "hours"],
  [60, "minute", "minutes"],
  [1, "second", "seconds"],
];

export function duration(seconds) {
  let rest = Math.floor(toNumber(seconds));
  if (!Number.isFinite(rest) || rest < 0) return DASH;
  if (rest === 0) return "0 seconds";
  const parts = [];
  for (const [size, one, many] of SPANS) {
    if (rest >= size) {
      const count = Math.floor(rest / size);
      rest -= count * size;
      parts.push(`${number(count)} ${count === 1 ? one : many}`);
    } else if (parts.length > 0) {
      break; // "1 day 5 seconds" reads worse than "1 day"
    }
    if (parts.length === 2) break;
  }
  return parts.join(" ");
}

export function percent(x, digits = 0) {
  const value = toNumber(x);
  if (!Number.isFinite(value)) return DASH;
  return `${number(value * 100, digits)}%`;
}

export function hundredths(n) {
  const value = toNumber(n);
  if (!Number.isFinite(value)) return DASH;
  return `${number(value / 100, 1)}%`;
}

function toDate(date) {
  if (date instanceof Date) return date;
  if (typeof date === "number") return new Date(date * 1000);
  if (typeof date === "string" && date !== "") return new Date(date.replace(/^(\d{4}-\d\d-\d\d) /, "$1T").replace(/ ([+-]\d{2})(\d{2})$/, "$1:$2"));
  return new Date(NaN);
}

const dateTimeFormat = new Intl.DateTimeFormat(undefined, { dateStyle: "medium", timeStyle: "medium" });
const timeFormat = new Intl.DateTimeFormat(undefined, { timeStyle: "medium" });

export function dateTime(date) {
  const d = toDate(date);
  return Number.isNaN(d.getTime()) ? DASH : dateTimeFormat.format(d);
}

export function time(date) {
  const d = toDate(date);
  return Number.isNaN(d.getTime()) ? DASH : timeFormat.format(d);
}
