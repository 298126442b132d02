// Comparing two configuration lists as the engine shows them: a snapshot against the image, a write against the read-back.

// Lines that frame a configuration file or a read; a snapshot's write never sends them.
export const FRAME_KEYS = new Set(['vorlane', 'fe', '!!', 'bc', 'ec', 'sv']);

// key -> values[] of a configuration list ({key, subvalues:[{value}]} elements).
export function settingsOf(list) {
  return new Map((list ?? []).map((e) => [e.key, (e.subvalues ?? []).map((s) => s.value)]));
}

// The keys of a configuration file's setting lines as the engine reads the file: lines
// end with CR LF, zero bytes are skipped, the key is the text before the first minus
// sign in lower case. A snapshot's write sends exactly these settings (where they differ).
export function fileKeys(bytes) {
  const keys = new Set();
  let line = [];
  const take = () => {
    const minus = line.indexOf(45);
    if (minus >= 0) keys.add(String.fromCharCode(...line.slice(0, minus)).replace(/[A-Z]/g, (c) => c.toLowerCase()));
    line = [];
  };
  for (let i = 0; i < bytes.length; i += 1) {
    if (bytes[i] === 13 && bytes[i + 1] === 10) {
      take();
      i += 1;
    } else if (bytes[i] !== 0) {
      line.push(bytes[i]);
    }
  }
  return keys;
}

const same = (a, b) => a.length === b.length && a.every((v, i) => v === b[i]);

// The settings that differ between the image and a snapshot, frame lines left out:
// changed (in both, other values), onlySnapshot, onlyImage; each {key, image, snapshot}.
export function compareSettings(image, snapshot) {
  const result = { changed: [], onlySnapshot: [], onlyImage: [] };
  for (const [key, values] of snapshot) {
    if (FRAME_KEYS.has(key)) continue;
    const held = image.get(key);
    if (!held) result.onlySnapshot.push({ key, image: null, snapshot: values });
    else if (!same(held, values)) result.changed.push({ key, image: held, snapshot: values });
  }
  for (const [key, values] of image) {
    if (!FRAME_KEYS.has(key) && !snapshot.has(key)) result.onlyImage.push({ key, image: values, snapshot: null });
  }
  return result;
}

// The written settings (frame lines left out) and those the panel does not report as
// written, each {key, written, panel}. A setting written empty that the panel does not
// report holds nothing either way.
export function writeMismatches(written, panel) {
  const result = { checked: 0, wrong: [] };
  for (const [key, values] of written) {
    if (FRAME_KEYS.has(key)) continue;
    result.checked += 1;
    const held = panel.get(key);
    if (held ? same(held, values) : values.every((v) => v === '')) continue;
    result.wrong.push({ key, written: values, panel: held ?? null });
  }
  return result;
}
