// The events panel of the logs view: read with progress, filters by letter, class, numbers and days, newest first, pages, events per day and the most frequent codes.
import { t } from '../texts.js';
import * as api from '../api.js';
import { CLASSES, dayOfInput, eventMatches, perDay, prepareEvents, sorted, topCodes } from '../events_model.js';
import { dayBars, dropChart } from '../charts.js';
import { $, h, follow, guarded, pager, progressBar, setProgress, showNote, table, timed, withProgress } from '../ui.js';
import { linkFailure } from './journal.js';

const PAGE = 20;
const NUMBERS = ['part', 'zona', 'user', 'ext'];
let box;
let events = [];      // the engine's list, prepared
let loaded = false;
let shown = [];       // filtered and sorted
let first = 0;
let chart = null;

function filter() {
  const value = (id) => $(`#ev-${id}`, box).value.trim();
  return {
    letter: value('letter'), cls: value('class'),
    part: value('part'), zona: value('zona'), user: value('user'), ext: value('ext'),
    from: dayOfInput(value('from')), to: dayOfInput(value('to')),
  };
}

function renderPage() {
  const page = shown.slice(first, first + PAGE);
  $('#ev-body', box).replaceChildren(
    table(t('ev.title'), [t('log.date'), t('log.time'), t('ev.event'), t('ev.text'), t('ev.part'), t('ev.zona'), t('ev.user'), t('ev.ext'), t('ev.rnet'), t('ev.id')],
      page.map((e) => [e.date, e.time, e.event, e.text, e.part, e.zona, e.user, e.ext, e.rnet, e.id]), t('ev.empty')),
    pager('ev', first, PAGE, page.length, shown.length, (at) => { first = at; renderPage(); }));
}

function renderSummary() {
  const days = perDay(shown);
  const area = $('#ev-days', box);
  area.hidden = days[0].length === 0;
  if (days[0].length === 0) {
    dropChart(chart);
    chart = null;
  } else if (chart) {
    chart.setData(days);
  } else {
    chart = dayBars($('.chart', area), t('chart.events'), days);
  }
  $('#ev-top', box).replaceChildren(table(t('ev.top'), [t('ev.event'), t('ev.text'), t('ev.times')],
    topCodes(shown).map((c) => [c.event, c.text, String(c.count)]), t('ev.empty')));
}

export function apply() {
  const f = filter();
  shown = sorted(events.filter((e) => eventMatches(e, f)), $('#ev-newest', box).checked);
  first = 0;
  $('#ev-count', box).textContent = t('ev.count', shown.length, events.length);
  renderPage();
  renderSummary();
}

async function load() {
  const answer = await api.query('getmessage');
  events = prepareEvents(answer?.result);
  loaded = true;
  apply();
}

async function read(ctx) {
  const bar = $('#ev-progress', box);
  await api.command(91);
  setProgress(bar, 0);
  await withProgress(bar, () => follow({
    title: t('ev.reading'), done: (st) => st.statusready?.rmsg === '2', progress: (st) => st.progress?.msg,
    failed: linkFailure, onStatus: (st) => { ctx.store.publish(st); setProgress(bar, st.progress?.msg); },
  }));
  await load();
  showNote(t('ev.done', events.length));
}

async function download() {
  api.saveFile('vorlane-events.txt', await api.download('cmd=92&file=vorlane-events.txt'));
}

function clearFilters() {
  for (const el of box.querySelectorAll('.filters select, .filters input:not([type=checkbox])')) el.value = '';
  return timed('ev-filter', apply);
}

const measuredApply = () => timed('ev-filter', apply);

function numberField(key) {
  return [h('label', { for: `ev-${key}` }, t(`ev.${key}`)),
    h('input', { id: `ev-${key}`, type: 'number', min: 0, max: 255, inputmode: 'numeric', class: 'number', oninput: measuredApply })];
}

export function eventsPanel(ctx) {
  dropChart(chart);
  chart = null;
  box = h('section', { 'aria-labelledby': 'h-events' },
    h('h3', { id: 'h-events' }, t('ev.title')),
    h('div', { class: 'buttons' },
      h('button', { id: 'ev-read', type: 'button', onclick: (e) => guarded(e.currentTarget, () => read(ctx)) }, t('ev.read')),
      h('button', { id: 'ev-download', type: 'button', onclick: (e) => guarded(e.currentTarget, download) }, t('ev.download'))),
    progressBar('ev-progress', t('ev.reading')),
    h('fieldset', { class: 'fields filters' },
      h('legend', {}, t('filter.title')),
      h('label', { for: 'ev-letter' }, t('ev.letter')),
      h('select', { id: 'ev-letter', onchange: measuredApply },
        h('option', { value: '' }, t('filter.any')), h('option', { value: 'E' }, t('ev.letterE')), h('option', { value: 'R' }, t('ev.letterR'))),
      h('label', { for: 'ev-class' }, t('ev.class')),
      h('select', { id: 'ev-class', onchange: measuredApply },
        h('option', { value: '' }, t('filter.any')), CLASSES.map((c) => h('option', { value: c }, t(`ev.class${c}`)))),
      NUMBERS.flatMap(numberField),
      h('label', { for: 'ev-from' }, t('ev.from')),
      h('input', { id: 'ev-from', type: 'date', onchange: measuredApply }),
      h('label', { for: 'ev-to' }, t('ev.to')),
      h('input', { id: 'ev-to', type: 'date', onchange: measuredApply }),
      h('label', { class: 'check' }, h('input', { id: 'ev-newest', type: 'checkbox', checked: true, onchange: measuredApply }), t('list.newest')),
      h('button', { id: 'ev-clear', type: 'button', onclick: (e) => guarded(e.currentTarget, clearFilters) }, t('filter.clear')),
      h('p', { class: 'hint' }, t('ev.daysHint'))),
    h('p', { id: 'ev-count', role: 'status' }),
    h('div', { id: 'ev-body' }),
    h('div', { class: 'summary' },
      h('figure', { id: 'ev-days', 'aria-labelledby': 'ev-days-title', hidden: true },
        h('figcaption', { id: 'ev-days-title' }, t('ev.perDay')), h('div', { class: 'chart' })),
      h('div', { id: 'ev-top' })));
  return box;
}

export async function showEvents() {
  if (!loaded) await load();
  else apply();
}
