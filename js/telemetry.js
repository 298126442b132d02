// What the status polls saw this session: the values that move, as numbers, kept for the charts (bounded).

// An hour at one poll a second. Statuses that come faster (a transfer is followed five times a
// second) are kept at most two a second, so the bound always holds at least 30 minutes.
export const KEEP_MS = 60 * 60 * 1000;
export const MAX_SAMPLES = 3600;
const MIN_GAP_MS = 500;

// The panel's text as a number: "87%" is 87, "-150" is -150; null when it holds no number.
export function number(text) {
  const match = /^\s*(-?\d+(?:\.\d+)?)/.exec(String(text ?? ''));
  return match ? Number(match[1]) : null;
}

// Samples oldest first: {t (ms since 1970), power, gsm, temp, zones: Map(N -> R)}.
const samples = [];
const zoneNumbers = new Set();

// Keeps the values of one status record, stamped with the clock now.
export function record(status, now = Date.now()) {
  if (!status || status.status === 1 || status.status === 10) return;
  if (samples.length && now - samples[samples.length - 1].t < MIN_GAP_MS) return;
  const zones = new Map();
  for (const zone of status.lm ?? []) {
    const value = number(zone.R);
    if (value === null) continue;
    zones.set(Number(zone.N), value);
    zoneNumbers.add(Number(zone.N));
  }
  samples.push({ t: now, power: number(status.power_value), gsm: number(status.gsm), temp: number(status.t), zones });
  const oldest = now - KEEP_MS;
  let drop = Math.max(0, samples.length - MAX_SAMPLES);
  while (drop < samples.length && samples[drop].t < oldest) drop += 1;
  if (drop) samples.splice(0, drop);
}

export const count = () => samples.length;

// The zone numbers seen so far, ascending.
export function zones() {
  return [...zoneNumbers].sort((a, b) => a - b);
}

// Columns for a chart: times in seconds, then one column per value picked from each sample.
export function columns(pickers) {
  const times = samples.map((s) => s.t / 1000);
  return [times, ...pickers.map((pick) => samples.map(pick))];
}

export function clear() {
  samples.length = 0;
  zoneNumbers.clear();
}
