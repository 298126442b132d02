// Configuration view: read and write the panel's settings, edit them in place, check writes, files, model templates, drives and history.
import { t } from '../texts.js';
import * as api from '../api.js';
import { FRAME_KEYS, settingsOf, writeMismatches } from '../compare.js';
import { $, h, askPassword, confirmAction, fileBytes, follow, guarded, progressBar, setProgress, showError, showNote, withProgress } from '../ui.js';
import { historyPanel, refresh as refreshHistory } from './config_history.js';

// Model files shipped in devs/ (any other name may be typed).
const MODELS = ['MS02'];
const CR_LF = [13, 10];

let root;
let rows = [];              // settings as shown: {key, values[]}
const changed = new Map();  // key -> values[] edited here and not yet sent
let pendingSend = false;    // a file or template was loaded: the engine holds settings to write
let loadedSettings = null;  // key -> values[] of that load: what the next write sends
let filterTimer = 0;
let info = { cipher: true, history: true };  // what the engine can do (engineinfo)

// ---- Encoding rules of the configuration JSON

// Single text settings travel escaped; all others as they stand.
function isTextKey(key) {
  return (key.includes('sr') && /\d/.test(key[2] ?? '')) || key === 'ws' || key === 'wk';
}

// Characters the engine can turn into Windows-1251 (two-byte UTF-8 at most).
const cp1251High = new TextDecoder('windows-1251').decode(Uint8Array.from({ length: 128 }, (_, i) => 128 + i));
function valueProblem(key, value) {
  for (const c of value) {
    const code = c.codePointAt(0);
    if (c === '{' || c === '}' || code < 0x20 || code === 0x7f) return true;
    if (code > 0x7f && (code > 0x7ff || !cp1251High.includes(c))) return true;
    if (!isTextKey(key) && (c === '"' || c === '\\')) return true;
  }
  return false;
}

function escaped(key, value) {
  return isTextKey(key) ? value.replace(/[\\"]/g, (c) => `\\${c}`) : value;
}

// The JSON the engine's configset reader expects, fragment for fragment.
export function configJson(settings) {
  const elements = settings.map(({ key, values }) => `{"key":"${key}","subvalues":[${
    values.map((v, i) => `{"value":"${escaped(key, v)}","index":${i + 1}}`).join(',')}]}`);
  return `{"config":[${elements.join(',')}]}`;
}

// ---- Table

function noteChanges() {
  showNote(t('cfg.changed', changed.size));
}

function onEdit(row, tr) {
  const values = [...tr.querySelectorAll('input')].map((input) => input.value);
  changed.set(row.key, values);
  tr.classList.add('changed');
  noteChanges();
}

function renderTable(highlight = new Set()) {
  const body = $('#cfg-body', root);
  if (rows.length === 0) {
    body.replaceChildren(h('p', { class: 'empty', id: 'cfg-empty' }, t('cfg.empty')));
    return;
  }
  const tbody = h('tbody');
  for (const row of rows) {
    const values = changed.get(row.key) ?? row.values;
    const tr = h('tr', { 'data-key': row.key, class: [changed.has(row.key) && 'changed', highlight.has(row.key) && 'updated'].filter(Boolean).join(' ') || false });
    tr.append(h('th', { scope: 'row' }, row.key),
      h('td', {}, h('div', { class: 'subvalues' }, values.map((value, i) => h('input', {
        type: 'text', value, 'aria-label': t('cfg.value', row.key, i + 1), spellcheck: 'false',
        oninput: () => onEdit(row, tr),
      })))));
    tbody.append(tr);
  }
  body.replaceChildren(h('table', { class: 'config' },
    h('caption', {}, t('cfg.title')),
    h('thead', {}, h('tr', {}, h('th', { scope: 'col' }, t('cfg.key')), h('th', { scope: 'col' }, t('cfg.values')))),
    tbody));
}

function toRows(list) {
  return (list ?? []).map((e) => ({ key: e.key, values: (e.subvalues ?? []).map((s) => s.value) }));
}

async function loadTable(highlight) {
  const mask = $('#cfg-filter', root).value.trim();
  if (!api.isSendableValue(mask)) throw new api.ApiError(t('tools.badValue', mask));
  const answer = await api.query(`configstate=${mask}`);
  rows = toRows(answer?.result?.config);
  renderTable(highlight);
  return rows.length;
}

// ---- Exchanges with the panel

function linkFailure(s) {
  return s.status === 1 || s.status === 10 ? t(`link.${s.status}`) : '';
}

async function readFromPanel(ctx) {
  if (!(await keepUnwritten(t('cfg.read')))) return;
  clearCheck();
  await panelJob(ctx, 32, 4, t('cfg.reading'));
  showNote(t('cfg.readDone', await loadTable()));
  if (info.history) await refreshHistory();
}

// Sends a configuration command and follows its progress while the status shows it busy.
async function panelJob(ctx, command, busyStatus, title) {
  await api.command(command).catch(noDevice);
  await followJob(ctx, busyStatus, title);
}

// Follows a configuration exchange the engine has begun while the status shows it busy.
async function followJob(ctx, busyStatus, title) {
  const box = $('#cfg-progress', root);
  setProgress(box, 0, title);
  await withProgress(box, () => follow({
    title, done: (s) => s.status !== busyStatus, progress: (s) => s.progress?.cfg,
    failed: linkFailure, onStatus: (s) => { ctx.store.publish(s); setProgress(box, s.progress?.cfg); },
  }));
  changed.clear();
  pendingSend = false;
  loadedSettings = null;
}

function noDevice(error) {
  throw new api.ApiError(error.message === t('err.command') ? t('cfg.noDevice') : error.message);
}

// The edits typed here, refused whole when one value cannot be sent.
function edits() {
  const settings = [...changed].map(([key, values]) => ({ key, values }));
  for (const { key, values } of settings) {
    const bad = values.find((v) => valueProblem(key, v));
    if (bad !== undefined) throw new api.ApiError(t('cfg.badValue', bad));
  }
  return settings;
}

// Hands the edits typed here to the engine's image (without writing them), so that
// the snapshot the engine keeps before replacing or clearing the image holds them.
async function pushEdits() {
  const settings = edits();
  if (settings.length) await api.upload('configset', configJson(settings));
  changed.clear();
}

// Before an action that clears the engine's image (connect, disconnect, read): an image
// not yet written is kept in the history, and the installer is told how to write it.
async function keepUnwritten(action) {
  if (changed.size === 0 && !pendingSend) return true;
  edits();
  if (!(await confirmAction(t(info.history ? 'cfg.keepAsk' : 'cfg.loseAsk', action)))) return false;
  await pushEdits();
  pendingSend = false;
  loadedSettings = null;
  return true;
}

// A load waiting to be written whose settings the engine no longer holds: the image
// was cleared since (a connect, a lost link) and kept in the history.
async function loadCleared() {
  if (!pendingSend || !loadedSettings) return false;
  const held = settingsOf((await api.query('configstate='))?.result?.config);
  if ([...loadedSettings.keys()].every((key) => FRAME_KEYS.has(key) || held.has(key))) return false;
  pendingSend = false;
  loadedSettings = null;
  return true;
}

async function writeToPanel(ctx) {
  const settings = edits();
  if (await loadCleared()) throw new api.ApiError(t('cfg.imageCleared'));
  if (settings.length === 0 && !pendingSend) throw new api.ApiError(t('cfg.nothing'));
  // What this write sends: the settings of the last load, then the edits over them.
  const written = new Map(pendingSend ? loadedSettings ?? [] : []);
  for (const { key, values } of settings) written.set(key, values);
  clearCheck();
  if (settings.length) await api.upload('configset', configJson(settings));
  await panelJob(ctx, 31, 5, t('cfg.writing'));
  await checkWrite(ctx, written);
}

function renderCheck(text, wrong = []) {
  const rows = wrong.map((w) => h('tr', { 'data-key': w.key }, h('th', { scope: 'row' }, w.key),
    h('td', {}, w.written.join(' · ')), h('td', {}, w.panel ? w.panel.join(' · ') : t('hist.none'))));
  $('#cfg-check', root).replaceChildren(h('p', { class: wrong.length ? 'bad' : 'good' }, text),
    ...(rows.length ? [h('table', { class: 'compare' }, h('caption', {}, t('cfg.checkTable')),
      h('thead', {}, h('tr', {}, ['cfg.key', 'cfg.checkWritten', 'cfg.checkPanel'].map((k) => h('th', { scope: 'col' }, t(k))))),
      h('tbody', {}, rows))] : []));
}

function clearCheck() {
  $('#cfg-check', root).replaceChildren();
}

// After every write, unless turned off: the configuration read back from the panel,
// each written setting compared with what the panel now reports.
async function checkWrite(ctx, written) {
  if (!$('#cfg-verify', root).checked) {
    const count = [...written.keys()].filter((key) => !FRAME_KEYS.has(key)).length;
    renderCheck(t('cfg.writeDone', count));
    showNote(t('cfg.writeDone', count));
  } else {
    await panelJob(ctx, 32, 4, t('cfg.checking'));
    const panel = settingsOf((await api.query('configstate='))?.result?.config);
    const { checked, wrong } = writeMismatches(written, panel);
    const text = wrong.length ? t('cfg.checkBad', wrong.length, checked) : t('cfg.checkOk', checked);
    renderCheck(text, wrong);
    if (wrong.length) showError(text);
    else showNote(text);
  }
  await loadTable();
  if (info.history) await refreshHistory();
}

async function fetchUpdates() {
  const answer = await api.query('updatestatus');
  const keys = new Set((answer?.result ?? []).map((e) => e.key));
  await loadTable(keys);
  showNote(t('cfg.updated', keys.size));
}

// ---- Files

async function exportFile() {
  // Windows-1251 text labelled UTF-8: kept as the bytes it is.
  const bytes = await api.post('cmd=2');
  api.saveFile('config.ini', bytes);
  showNote(t('cfg.exported', bytes.length));
}

// A configuration file must have CR LF line ends and, sent in one request, no empty
// line (the engine would take it for the end of the request head).
export function normalisedConfigFile(bytes) {
  const out = [];
  let line = [];
  const flush = () => {
    while (line.length && line[line.length - 1] === 13) line.pop();
    if (line.length) out.push(...line, ...CR_LF);
    line = [];
  };
  for (const byte of bytes) {
    if (byte === 10) flush();
    else line.push(byte);
  }
  flush();
  return Uint8Array.from(out);
}

async function openCryFile(ctx) {
  for (;;) {
    const password = await askPassword(t('pass.cryTitle'));
    if (password === null) return false;
    try {
      await api.command(12, `&pass=${password}`);
      return true;
    } catch (error) {
      showError(error.message === t('err.command') ? t('pass.cryWrong') : error.message);
    }
    ctx.store.publish(await api.status());
  }
}

async function importFile(ctx, input) {
  const file = input.files[0];
  if (!file) return;
  input.value = '';
  await pushEdits();
  const cry = file.name.toLowerCase().endsWith('.cry');
  if (cry && !info.cipher) throw new api.ApiError(t('cipher.missing'));
  const bytes = cry ? await fileBytes(file) : normalisedConfigFile(await fileBytes(file));
  if (api.uploadProblem(bytes)) throw new api.ApiError(t('err.upload'));
  if (cry) {
    // The engine recognises the container by a lower-case ".cry" in the target.
    await api.upload('cmd=4&file=upload.cry', api.bytesAsText(bytes));
    const s = await api.status();
    ctx.store.publish(s);
    if (s.status !== 11) throw new api.ApiError(t('cfg.cryRejected'));
    if (!(await openCryFile(ctx))) return;
    showNote(t('pass.cryOk'));
  } else {
    await api.upload('cmd=4', api.bytesAsText(bytes));
  }
  const count = await loaded();
  if (count === 0) throw new api.ApiError(t('cfg.importEmpty'));
  showNote(t('cfg.imported', count));
}

// A file, template or snapshot replaced the engine's image: all of it waits to be written.
async function loaded() {
  clearCheck();
  changed.clear();
  pendingSend = true;
  loadedSettings = settingsOf((await api.query('configstate='))?.result?.config);
  const count = await loadTable();
  if (info.history) await refreshHistory();
  return count;
}

async function loadModel() {
  const model = $('#cfg-model', root).value.trim();
  if (!/^[A-Za-z0-9]+$/.test(model)) throw new api.ApiError(t('cfg.badModel'));
  await pushEdits();
  try {
    await api.command(1, `&devtype=${model}`);
  } catch (error) {
    throw new api.ApiError(error.message === t('err.command') ? t('cfg.modelMissing', model) : error.message);
  }
  await loaded();
  showNote(t('cfg.modelLoaded', model));
}

async function refreshDisks() {
  const answer = await api.query('getdisk');
  const disks = answer?.result?.disks ?? [];
  $('#cfg-disk', root).replaceChildren(...(disks.length
    ? disks.map((d) => h('option', { value: d.name }, d.label ? `${d.label} (${d.name})` : d.name))
    : [h('option', { value: '' }, t('cfg.noDisks'))]));
}

async function saveToDisk() {
  const drive = $('#cfg-disk', root).value;
  if (!drive) throw new api.ApiError(t('cfg.noDisks'));
  await api.command(5, `&drive=${encodeURIComponent(drive)}`);
  showNote(t('cfg.savedDisk', drive));
}

function button(id, label, action) {
  return h('button', { id, type: 'button', onclick: (e) => guarded(e.currentTarget, action) }, label);
}

export default {
  init(section, ctx) {
    root = section;
    info = ctx.info;
    const fileInput = h('input', { id: 'cfg-file', type: 'file', accept: info.cipher ? '.ini,.cry,.txt' : '.ini,.txt',
      onchange: (e) => guarded(null, () => importFile(ctx, e.currentTarget), 'cfg-file') });
    section.append(
      h('h2', { id: 'h-config' }, t('cfg.title')),
      h('div', { class: 'buttons' },
        button('cfg-read', t('cfg.read'), () => readFromPanel(ctx)),
        button('cfg-write', t('cfg.write'), () => writeToPanel(ctx)),
        button('cfg-export', t('cfg.export'), exportFile),
        h('label', { class: 'file', for: 'cfg-file' }, t(info.cipher ? 'cfg.import' : 'cfg.importIni')), fileInput,
        h('label', { class: 'check' }, h('input', { id: 'cfg-verify', type: 'checkbox', checked: true }), t('cfg.verify'))),
      progressBar('cfg-progress', t('cfg.reading')),
      h('div', { id: 'cfg-check', role: 'status' }),
      h('div', { id: 'cfg-update', class: 'banner', hidden: true, role: 'status' },
        h('span', {}, t('cfg.update')), button('cfg-get-update', t('cfg.getUpdate'), fetchUpdates)),
      h('div', { class: 'fields' },
        h('label', { for: 'cfg-model' }, t('cfg.model')),
        h('input', { id: 'cfg-model', type: 'text', list: 'cfg-models', value: MODELS[0], autocomplete: 'off', spellcheck: 'false' }),
        h('datalist', { id: 'cfg-models' }, MODELS.map((m) => h('option', { value: m }))),
        button('cfg-load-model', t('cfg.loadModel'), loadModel),
        h('label', { for: 'cfg-disk' }, t('cfg.disk')),
        h('select', { id: 'cfg-disk' }),
        button('cfg-disks', t('cfg.refreshDisks'), refreshDisks),
        button('cfg-save-disk', t('cfg.saveDisk'), saveToDisk)),
      h('div', { class: 'fields' },
        h('label', { for: 'cfg-filter' }, t('cfg.filter')),
        h('input', { id: 'cfg-filter', type: 'search', placeholder: t('cfg.filterHint'), autocomplete: 'off', spellcheck: 'false',
          oninput: () => { clearTimeout(filterTimer); filterTimer = setTimeout(() => guarded(null, () => loadTable(), 'cfg-filter'), 300); } })),
      ...(info.cipher ? [] : [h('p', { class: 'warning' }, t('cipher.missing'))]),
      info.history ? historyPanel({
        follow: (busy, title) => { clearCheck(); return followJob(ctx, busy, title); },
        checkWrite: (written) => checkWrite(ctx, written),
        loaded,
      }) : h('p', { id: 'hist-missing', class: 'warning' }, t('hist.missing')),
      h('div', { id: 'cfg-body' }));
    ctx.store.subscribe((s) => { $('#cfg-update', root).hidden = s.update !== true; }, 'config');
    ctx.keepUnwritten = keepUnwritten;
  },
  async show() {
    await loadTable();
    guarded(null, refreshDisks, 'cfg-disks');
    if (info.history) guarded(null, refreshHistory, 'hist');
  },
};
