// Logs and events view: read both from the panel with progress, show them page by page, download them.
import { t } from '../texts.js';
import * as api from '../api.js';
import { $, h, follow, guarded, progressBar, setProgress, showNote, table } from '../ui.js';

const PAGE = 20;
let root;
let logFirst = 0;
let logTotal = 0;
let events = [];
let eventFirst = 0;

function linkFailure(s) {
  return s.status === 1 || s.status === 10 ? t(`link.${s.status}`) : '';
}

function logType(code) {
  return code === 'ER' || code === 'MS' ? t(`log.${code}`) : `${t('log.other')} (${code})`;
}

function pager(prefix, first, shown, total, onMove) {
  const last = first + shown;
  return h('div', { class: 'pager' },
    h('button', { type: 'button', id: `${prefix}-prev`, disabled: first === 0, onclick: () => onMove(Math.max(0, first - PAGE)) }, t('page.prev')),
    h('span', { id: `${prefix}-range` }, shown ? t('log.page', first + 1, last, total || '?') : ''),
    h('button', { type: 'button', id: `${prefix}-next`, disabled: total ? last >= total : shown < PAGE, onclick: () => onMove(first + PAGE) }, t('page.next')));
}

async function showLogPage(first) {
  const answer = await api.query(`getlog&record=${first}&count=${PAGE}`);
  const records = answer?.result?.log ?? [];
  logFirst = first;
  $('#log-body', root).replaceChildren(
    table(t('log.title'), [t('log.date'), t('log.time'), t('log.type'), t('log.text')],
      records.map((r) => [r.date, r.time, logType(r.type), r.text]), t('log.empty')),
    pager('log', first, records.length, logTotal, (at) => guarded(null, () => showLogPage(at))));
}

function showEventPage(first) {
  eventFirst = first;
  const page = events.slice(first, first + PAGE);
  $('#ev-body', root).replaceChildren(
    table(t('ev.title'), [t('log.date'), t('log.time'), t('ev.event'), t('ev.text'), t('ev.part'), t('ev.zona'), t('ev.user'), t('ev.ext'), t('ev.rnet'), t('ev.id')],
      page.map((e) => [e.date, e.time, e.event, e.text, e.part, e.zona, e.user, e.ext, e.rnet, e.id]), t('ev.empty')),
    pager('ev', first, page.length, events.length, showEventPage));
}

async function loadEvents() {
  const answer = await api.query('getmessage');
  events = answer?.result ?? [];
  showEventPage(Math.min(eventFirst, Math.max(0, events.length - 1)));
}

async function readLog(ctx) {
  const box = $('#log-progress', root);
  await api.command(81);
  setProgress(box, 0);
  const s = await follow({
    title: t('log.reading'), done: (st) => st.statusready?.rlog === '2' || st.statusready?.rlog === '0',
    progress: (st) => st.progress?.log, failed: linkFailure,
    onStatus: (st) => { ctx.store.publish(st); setProgress(box, st.progress?.log); },
  });
  setProgress(box, 100);
  logTotal = Number(s.progress?.logmax) || 0;
  await showLogPage(0);
  showNote(t('log.done', logTotal));
}

async function readEvents(ctx) {
  const box = $('#ev-progress', root);
  await api.command(91);
  setProgress(box, 0);
  await follow({
    title: t('ev.reading'), done: (st) => st.statusready?.rmsg === '2', progress: (st) => st.progress?.msg,
    failed: linkFailure, onStatus: (st) => { ctx.store.publish(st); setProgress(box, st.progress?.msg); },
  });
  setProgress(box, 100);
  eventFirst = 0;
  await loadEvents();
  showNote(t('ev.done', events.length));
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

export default {
  init(section, ctx) {
    root = section;
    section.append(
      h('h2', { id: 'h-logs' }, t('view.logs')),
      h('section', { 'aria-labelledby': 'h-log' },
        h('h3', { id: 'h-log' }, t('log.title')),
        h('div', { class: 'buttons' },
          button('log-read', t('log.read'), () => readLog(ctx)),
          button('log-stop', t('log.stateCmd'), () => simple(82, 'log.stateCmd')),
          button('log-dl', t('log.clearCmd'), () => simple(83, 'log.clearCmd')),
          button('log-download', t('log.download'), () => downloadFile(84, 'vorlane-log.txt'))),
        progressBar('log-progress', t('log.reading')),
        h('div', { id: 'log-body' })),
      h('section', { 'aria-labelledby': 'h-events' },
        h('h3', { id: 'h-events' }, t('ev.title')),
        h('div', { class: 'buttons' },
          button('ev-read', t('ev.read'), () => readEvents(ctx)),
          button('ev-download', t('ev.download'), () => downloadFile(92, 'vorlane-events.txt'))),
        progressBar('ev-progress', t('ev.reading')),
        h('div', { id: 'ev-body' })));
  },
  async show() {
    await showLogPage(logFirst);
    await loadEvents();
  },
};
