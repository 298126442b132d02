// The journal panel of the logs view: read with progress, newest first, type in words, a text search, pages, the engine's file.
import { t } from '../texts.js';
import * as api from '../api.js';
import { journalMatches, prepareJournal, sorted } from '../events_model.js';
import { $, h, follow, guarded, pager, progressBar, setProgress, showNote, table, timed, withProgress } from '../ui.js';

const PAGE = 20;
let box;
let records = [];     // the whole journal as the engine holds it, prepared
let loaded = false;
let shown = [];       // filtered and sorted
let first = 0;

export function linkFailure(s) {
  return s.status === 1 || s.status === 10 ? t(`link.${s.status}`) : '';
}

function logType(code) {
  return code === 'ER' || code === 'MS' ? t(`log.${code}`) : `${t('log.other')} (${code})`;
}

function filter() {
  return { kind: $('#log-kind', box).value, text: $('#log-search', box).value.trim() };
}

function renderPage() {
  const page = shown.slice(first, first + PAGE);
  $('#log-count', box).textContent = t('log.count', shown.length, records.length);
  $('#log-body', box).replaceChildren(
    table(t('log.title'), [t('log.date'), t('log.time'), t('log.type'), t('log.text')],
      page.map((r) => [r.date, r.time, logType(r.type), r.text]), t('log.empty')),
    pager('log', first, PAGE, page.length, shown.length, (at) => { first = at; renderPage(); }));
}

export function apply() {
  const f = filter();
  shown = sorted(records.filter((r) => journalMatches(r, f)), $('#log-newest', box).checked);
  first = 0;
  renderPage();
}

// The whole journal in one answer (count 0: to the end), kept until the next read.
async function load() {
  const answer = await api.query('getlog&record=0&count=0');
  records = prepareJournal(answer?.result?.log);
  loaded = true;
  apply();
}

async function read(ctx) {
  const bar = $('#log-progress', box);
  await api.command(81);
  setProgress(bar, 0);
  await withProgress(bar, () => follow({
    title: t('log.reading'), done: (st) => st.statusready?.rlog === '2' || st.statusready?.rlog === '0',
    progress: (st) => st.progress?.log, failed: linkFailure,
    onStatus: (st) => { ctx.store.publish(st); setProgress(bar, st.progress?.log); },
  }));
  await load();
  showNote(t('log.done', records.length));
}

async function downloadFile(n, name) {
  api.saveFile(name, await api.download(`cmd=${n}&file=${name}`));
}

async function simple(n, label) {
  await api.command(n);
  showNote(t('tools.sent', t(label)));
}

function button(id, label, action) {
  return h('button', { id, type: 'button', onclick: (e) => guarded(e.currentTarget, action) }, label);
}

const measuredApply = () => timed('log-filter', apply);

export function journalPanel(ctx) {
  box = h('section', { 'aria-labelledby': 'h-log' },
    h('h3', { id: 'h-log' }, t('log.title')),
    h('div', { class: 'buttons' },
      button('log-read', t('log.read'), () => read(ctx)),
      button('log-stop', t('log.stateCmd'), () => simple(82, 'log.stateCmd')),
      button('log-dl', t('log.clearCmd'), () => simple(83, 'log.clearCmd')),
      button('log-download', t('log.download'), () => downloadFile(84, 'vorlane-log.txt'))),
    progressBar('log-progress', t('log.reading')),
    h('div', { class: 'fields filters' },
      h('label', { for: 'log-kind' }, t('log.type')),
      h('select', { id: 'log-kind', onchange: measuredApply },
        h('option', { value: '' }, t('filter.any')),
        ['MS', 'other', 'ER'].map((k) => h('option', { value: k }, t(`log.${k}`)))),
      h('label', { for: 'log-search' }, t('log.search')),
      h('input', { id: 'log-search', type: 'search', autocomplete: 'off', spellcheck: 'false', oninput: measuredApply }),
      h('label', { class: 'check' }, h('input', { id: 'log-newest', type: 'checkbox', checked: true, onchange: measuredApply }), t('list.newest'))),
    h('p', { id: 'log-count', role: 'status' }),
    h('div', { id: 'log-body' }));
  return box;
}

// On every visit the journal is asked again only while none was loaded: a read replaces it.
export async function showJournal() {
  if (!loaded) await load();
  else apply();
}
