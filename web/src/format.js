// Numbers, times and names as people read them.
const numbers = new Intl.NumberFormat(undefined);
export const count = value => numbers.format(value);

// Microseconds: "0.4 ms", "12 ms", "1,234 ms", "12.3 s".
export function duration(us) {
  if (us < 10000) return `${(us / 1000).toFixed(us && us < 1000 ? 2 : us % 1000 ? 1 : 0)} ms`;
  if (us < 10000000) return `${numbers.format(Math.round(us / 1000))} ms`;
  return `${(us / 1000000).toFixed(us < 100000000 ? 1 : 0)} s`;
}

export const milliseconds = ms => `${numbers.format(ms)} ms`;

// Where a statement was run, and from where that code was called.
export const placeText = ({ place, caller }) => (caller ? `${place}, called from ${caller}` : place);

export const share = (part, whole) => (whole > 0 ? `${Math.round(100 * part / whole)}%` : '–');

const clock = new Intl.DateTimeFormat(undefined, { hour: '2-digit', minute: '2-digit', second: '2-digit' });
const date = new Intl.DateTimeFormat(undefined, { year: 'numeric', month: '2-digit', day: '2-digit' });
export const zone = Intl.DateTimeFormat().resolvedOptions().timeZone;

// In the viewer's zone; the date only when it is not today.
export function time(value) {
  const at = new Date(value);
  return date.format(at) === date.format(new Date()) ? clock.format(at) : `${date.format(at)} ${clock.format(at)}`;
}
export const fullTime = value => `${date.format(new Date(value))} ${clock.format(new Date(value))} ${zone}`;

// "WebAction/shop%2Fcart" as people would write it; names of actions escape slashes and spaces.
export function actionName(name) {
  if (!name) return '(no name)';
  try {
    return decodeURIComponent(name);
  } catch {
    return name;
  }
}
