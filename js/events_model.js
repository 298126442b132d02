// The panel's events and journal as the console sorts, filters and counts them; pure functions of the engine's lists.

// Classes of the Contact ID codes the panel's events follow.
export const CLASSES = ['1', '2', '3', '4', 'other'];

export function codeClass(code) {
  const first = String(code).length === 3 ? String(code)[0] : '';
  return ['1', '2', '3', '4'].includes(first) ? first : 'other';
}

// "dd.mm.yyyy" and "hh:mm:ss" in UTC (as the engine writes them) as seconds since 1970; NaN when malformed.
export function utcSeconds(date, time) {
  const d = /^(\d\d)\.(\d\d)\.(\d{4})$/.exec(date ?? '');
  const t = /^(\d\d):(\d\d):(\d\d)$/.exec(time ?? '');
  if (!d || !t) return NaN;
  return Date.UTC(+d[3], +d[2] - 1, +d[1], +t[1], +t[2], +t[3]) / 1000;
}

// The start of the browser's local day that holds `seconds`, in seconds.
export function dayStart(seconds) {
  const d = new Date(seconds * 1000);
  return new Date(d.getFullYear(), d.getMonth(), d.getDate()).getTime() / 1000;
}

// An <input type="date"> value ("yyyy-mm-dd") as the start of that local day, in seconds; null when empty.
export function dayOfInput(value) {
  const m = /^(\d{4})-(\d\d)-(\d\d)$/.exec(value ?? '');
  return m ? new Date(+m[1], +m[2] - 1, +m[3]).getTime() / 1000 : null;
}

// The engine's event list with what the filters need: {...event, at, day (local), letter, code, cls, order}.
export function prepareEvents(list) {
  return (list ?? []).map((e, order) => {
    const letter = String(e.event ?? '').slice(0, 1);
    const code = String(e.event ?? '').slice(1);
    const at = utcSeconds(e.date, e.time);
    return { ...e, at, day: dayStart(at), letter, code, cls: codeClass(code), order };
  });
}

// The journal's records with their time and type: {...record, at, kind ('MS', 'ER' or 'other'), order}.
export function prepareJournal(list) {
  return (list ?? []).map((r, order) => ({
    ...r, at: utcSeconds(r.date, r.time), kind: r.type === 'MS' || r.type === 'ER' ? r.type : 'other', order,
  }));
}

// Newest first (by time, then by place in the panel's list), or oldest first.
export function sorted(items, newestFirst) {
  const out = items.slice();
  out.sort((a, b) => ((a.at - b.at) || (a.order - b.order)) * (newestFirst ? -1 : 1));
  return out;
}

const numberFits = (wanted, value) => wanted === '' || Number(wanted) === Number(value);

// filter: {letter, cls, part, zona, user, ext, from, to}; '' or null means any. from and to are
// local day starts in seconds; `to` includes its whole day.
export function eventMatches(e, f) {
  if (f.letter && e.letter !== f.letter) return false;
  if (f.cls && e.cls !== f.cls) return false;
  if (!numberFits(f.part, e.part) || !numberFits(f.zona, e.zona) || !numberFits(f.user, e.user) || !numberFits(f.ext, e.ext)) return false;
  if (f.from != null && !(e.day >= f.from)) return false;
  if (f.to != null && !(e.day <= f.to)) return false;
  return true;
}

// filter: {kind, text}; the text is found in the message, any case.
export function journalMatches(r, f) {
  if (f.kind && r.kind !== f.kind) return false;
  return !f.text || String(r.text ?? '').toLowerCase().includes(f.text.toLowerCase());
}

// Events per local day: [day starts, counts], days without events included as 0.
export function perDay(events) {
  const counts = new Map();
  for (const e of events) {
    if (Number.isNaN(e.day)) continue;
    counts.set(e.day, (counts.get(e.day) ?? 0) + 1);
  }
  if (counts.size === 0) return [[], []];
  const days = [...counts.keys()].sort((a, b) => a - b);
  const xs = [];
  const ys = [];
  for (let d = days[0]; d <= days[days.length - 1]; d = dayStart(d + 36 * 3600)) {
    xs.push(d);
    ys.push(counts.get(d) ?? 0);
  }
  return [xs, ys];
}

// The `limit` most frequent event codes (letter and number): [{event, text, count}], most first.
export function topCodes(events, limit = 10) {
  const counts = new Map();
  for (const e of events) {
    const seen = counts.get(e.event);
    if (seen) seen.count += 1;
    else counts.set(e.event, { event: e.event, text: e.text, count: 1 });
  }
  return [...counts.values()].sort((a, b) => b.count - a.count || a.event.localeCompare(b.event)).slice(0, limit);
}
