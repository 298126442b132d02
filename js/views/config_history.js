// The configuration view's history panel: the engine's snapshots, compare with the image, write the differences, open, download.
import { t } from '../texts.js';
import * as api from '../api.js';
import { compareSettings, fileKeys, settingsOf } from '../compare.js';
import { $, h, confirmAction, guarded, showNote } from '../ui.js';

let box;
let jobs;               // what the configuration view lends: {panelJob, checkWrite, loaded, loadTable}
let comparison = null;  // the compare on screen: {snapshot, result}

// "20261124-163415-120-..." is a UTC stamp: shown in the browser's time zone.
export function localTime(name) {
  const m = /^(\d{4})(\d\d)(\d\d)-(\d\d)(\d\d)(\d\d)-(\d{3})/.exec(name);
  if (!m) return name;
  const d = new Date(Date.UTC(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +m[6], +m[7]));
  const two = (n) => String(n).padStart(2, '0');
  return `${two(d.getDate())}.${two(d.getMonth() + 1)}.${d.getFullYear()} ${two(d.getHours())}:${two(d.getMinutes())}:${two(d.getSeconds())}`;
}

const kindWords = (kind) => t(`hist.kind.${kind}`);
const shown = (values) => (values ? values.join(' · ') : t('hist.none'));

function actionButton(label, snapshot, action) {
  return h('button', { type: 'button', 'data-action': label, 'aria-label': t(`hist.${label}For`, localTime(snapshot.name)),
    onclick: (e) => guarded(e.currentTarget, () => action(snapshot)) }, t(`hist.${label}`));
}

function renderList(list) {
  const body = $('#hist-list', box);
  if (list.length === 0) {
    body.replaceChildren(h('p', { class: 'empty' }, t('hist.empty')));
    return;
  }
  const rows = list.map((s) => h('tr', { 'data-name': s.name, 'data-kind': s.kind },
    h('td', {}, localTime(s.name)), h('td', {}, kindWords(s.kind)), h('td', {}, s.model || '—'), h('td', {}, s.settings),
    h('td', {}, h('div', { class: 'row-actions' },
      actionButton('compare', s, compare), actionButton('write', s, writeDifferences),
      actionButton('open', s, open), actionButton('download', s, download)))));
  body.replaceChildren(h('table', { class: 'history' },
    h('caption', {}, t('hist.caption')),
    h('thead', {}, h('tr', {}, ['hist.when', 'hist.kind', 'hist.model', 'hist.settings', 'hist.actions']
      .map((key) => h('th', { scope: 'col' }, t(key))))),
    h('tbody', {}, rows)));
}

export async function refresh() {
  const answer = await api.query('history');
  renderList(answer?.result?.history ?? []);
}

// ---- Compare

// The snapshot's settings are its file's lines (not the entries a load completes), shown
// with the values its JSON gives; so the compare counts what its write would send.
async function differences(snapshot) {
  const [image, saved, bytes] = await Promise.all([api.query('configstate='),
    api.query(`historyconfig=${snapshot.name}`), api.download(`historyfile=${snapshot.name}`)]);
  if (saved?.result === 'error') throw new api.ApiError(saved.description || t('err.command'));
  const lines = fileKeys(bytes);
  const settings = new Map([...settingsOf(saved?.result?.config)].filter(([key]) => lines.has(key)));
  return compareSettings(settingsOf(image?.result?.config), settings);
}

function groupTable(id, caption, items, filter) {
  const rows = items.filter((d) => d.key.includes(filter));
  if (rows.length === 0) return null;
  return h('table', { id, class: 'compare' },
    h('caption', {}, caption),
    h('thead', {}, h('tr', {}, ['hist.key', 'hist.inImage', 'hist.inSnapshot'].map((key) => h('th', { scope: 'col' }, t(key))))),
    h('tbody', {}, rows.map((d) => h('tr', { 'data-key': d.key },
      h('th', { scope: 'row' }, d.key), h('td', {}, shown(d.image)), h('td', {}, shown(d.snapshot))))));
}

function renderComparison() {
  const area = $('#hist-compare', box);
  if (!comparison) {
    area.replaceChildren();
    return;
  }
  const { snapshot, result } = comparison;
  const filter = $('#hist-filter', box)?.value.trim() ?? '';
  const toWrite = result.changed.length + result.onlySnapshot.length;
  const tables = [
    groupTable('cmp-changed', t('hist.changed', result.changed.length), result.changed, filter),
    groupTable('cmp-only-snapshot', t('hist.onlySnapshot', result.onlySnapshot.length), result.onlySnapshot, filter),
    groupTable('cmp-only-image', t('hist.onlyImage', result.onlyImage.length), result.onlyImage, filter),
  ].filter(Boolean);
  area.replaceChildren(...[
    h('h4', {}, t('hist.compareTitle', localTime(snapshot.name), kindWords(snapshot.kind))),
    h('p', { id: 'cmp-counts' }, t('hist.counts', result.changed.length, result.onlySnapshot.length, result.onlyImage.length)),
    result.onlyImage.length ? h('p', { class: 'hint' }, t('hist.onlyImageNote')) : null,
    h('div', { class: 'buttons' },
      h('button', { id: 'cmp-write', type: 'button', disabled: toWrite === 0,
        onclick: (e) => guarded(e.currentTarget, () => writeDifferences(snapshot)) }, t('hist.writeCount', toWrite)),
      h('button', { id: 'cmp-close', type: 'button', onclick: () => { comparison = null; renderComparison(); } }, t('hist.close'))),
    ...(tables.length ? tables : [h('p', { class: 'empty' }, toWrite + result.onlyImage.length ? t('hist.filtered') : t('hist.same'))]),
  ].filter(Boolean));
}

async function compare(snapshot) {
  comparison = { snapshot, result: await differences(snapshot) };
  renderComparison();
  $('#hist-compare', box).scrollIntoView({ block: 'nearest' });
}

// ---- Actions

async function writeDifferences(snapshot) {
  const result = await differences(snapshot);
  const written = [...result.changed, ...result.onlySnapshot];
  if (written.length === 0) {
    showNote(t('hist.nothing'));
    return;
  }
  if (!(await confirmAction(t('hist.writeAsk', written.length, localTime(snapshot.name))))) return;
  const answer = await api.query(`historywrite=${snapshot.name}`);
  if (answer?.result !== 'ok') throw new api.ApiError(answer?.description || t('cfg.noDevice'));
  comparison = null;
  renderComparison();
  await jobs.follow(5, t('cfg.writing'));
  // Only what was sent is checked, with the values the snapshot holds.
  await jobs.checkWrite(new Map(written.map((d) => [d.key, d.snapshot])));
}

async function open(snapshot) {
  const bytes = await api.download(`historyfile=${snapshot.name}`);
  if (api.uploadProblem(bytes)) throw new api.ApiError(t('err.upload'));
  await api.upload('cmd=4', api.bytesAsText(bytes));
  await jobs.loaded();
  showNote(t('hist.opened', localTime(snapshot.name)));
}

async function download(snapshot) {
  api.saveFile(snapshot.name, await api.download(`historyfile=${snapshot.name}`));
}

export function historyPanel(lent) {
  jobs = lent;
  box = h('section', { id: 'hist', 'aria-labelledby': 'h-hist' },
    h('h3', { id: 'h-hist' }, t('hist.title')),
    h('div', { class: 'fields' },
      h('label', { for: 'hist-filter' }, t('hist.filter')),
      h('input', { id: 'hist-filter', type: 'search', placeholder: t('cfg.filterHint'), autocomplete: 'off', spellcheck: 'false', oninput: renderComparison })),
    h('div', { id: 'hist-list' }),
    h('div', { id: 'hist-compare', 'aria-live': 'polite' }));
  return box;
}
