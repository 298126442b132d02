// Status view: the panel's live telemetry, redrawn with every status the worker brings, and time charts of the values that move.
import { t } from '../texts.js';
import { $, h, linkWords, table } from '../ui.js';
import * as telemetry from '../telemetry.js';
import { dropChart, timeChart } from '../charts.js';

const DEFAULT_ZONES = 8;
let root;
let chosenZones = null;     // zone numbers to chart; null: the first eight seen
let charts = [];            // {chart, key, box, figure, series, pickers}
let chartedZones = '';      // the zone numbers the zone chart was built for

function field(label, value, id) {
  return h('div', {}, h('dt', {}, label), h('dd', { id: `st-${id}`, 'data-engine': '' }, value === '' || value == null ? '—' : String(value)));
}

function power(s) {
  return [s.power_mode, s.power_value, s.power_ext].filter((v) => v !== '' && v != null).join(' · ');
}

function extState(code) {
  const key = `ext.${code}`;
  return t(key) === key ? code : `${t(key)} (${code})`;
}

function render(s) {
  const server = s.temp_server ?? {};
  const fields = h('dl', { class: 'facts' },
    field(t('st.devtype'), s.devtype, 'devtype'),
    field(t('st.status'), linkWords(s.status), 'status'),
    field(t('st.power'), power(s), 'power'),
    field(t('st.gsm'), s.gsm, 'gsm'),
    field(t('st.sim'), s.sim, 'sim'),
    field(t('st.server'), s.server, 'server'),
    field(t('st.t'), s.t, 't'),
    field(t('st.balance'), s.balance, 'balance'),
    field(t('st.clock'), [s.date, s.time].filter(Boolean).join(' '), 'clock'),
    field(t('st.tamper'), s.tamper, 'tamper'),
    field(t('st.modem'), s.modem, 'modem'),
    field(t('st.xcpu'), s.xcpu, 'xcpu'),
    field(t('st.learnkey'), s.learnkey, 'learnkey'),
    field(t('st.ident'), s.ident, 'ident'),
    field(t('st.tempServer'), server.ip ? `${server.ip}:${server.port}` : '', 'temp-server'));
  $('#st-status', fields).removeAttribute('data-engine');
  const lists = h('div', { class: 'lists' },
    table(t('st.parts'), [t('st.n'), t('st.state')], (s.part ?? []).map((p) => [p.N, p.S])),
    table(t('st.zones'), [t('st.n'), t('st.state'), t('st.value')], (s.lm ?? []).map((z) => [z.N, z.S, z.R])),
    table(t('st.exts'), [t('st.n'), t('st.state'), t('st.tamperCol')],
      (s.ext ?? []).filter((e) => e.S !== '0' || e.T).map((e) => [e.N, extState(e.S), e.T || '—'])),
    table(t('st.oks'), [t('st.n'), t('st.state')], (s.ok ?? []).map((o) => [o.N, o.S])));
  $('#status-body', root).replaceChildren(fields, lists);
}

// ---- Charts

function zonesToChart() {
  const seen = telemetry.zones();
  return chosenZones ? seen.filter((n) => chosenZones.has(n)) : seen.slice(0, DEFAULT_ZONES);
}

function chartKinds() {
  const zones = zonesToChart();
  return [
    { key: 'power', title: t('chart.power'), series: [{ label: t('chart.powerValue') }], pickers: [(s) => s.power] },
    { key: 'gsm', title: t('chart.gsm'), series: [{ label: t('chart.gsmValue') }], pickers: [(s) => s.gsm] },
    { key: 'temp', title: t('chart.temp'), series: [{ label: t('chart.tempValue') }], pickers: [(s) => s.temp] },
    { key: 'zones', title: t('chart.zones'), series: zones.map((n) => ({ label: t('chart.zone', n) })),
      pickers: zones.map((n) => (s) => s.zones.get(n) ?? null) },
  ];
}

// A chart with no value at all says so instead of drawing an empty box.
function hasValues(data) {
  return data.slice(1).some((column) => column.some((v) => v != null));
}

function buildCharts() {
  for (const c of charts) dropChart(c.chart);
  charts = [];
  const area = $('#status-charts', root);
  area.replaceChildren();
  chartedZones = zonesToChart().join(',');
  for (const kind of chartKinds()) {
    const box = h('div', { class: 'chart' });
    const figure = h('figure', { id: `chart-${kind.key}`, 'aria-labelledby': `chart-${kind.key}-title` },
      h('figcaption', { id: `chart-${kind.key}-title` }, kind.title), box, h('p', { class: 'empty', hidden: true }, t('chart.noValues')));
    area.append(figure);
    charts.push({ ...kind, box, figure, chart: null });
  }
  drawCharts();
}

function drawCharts() {
  if (zonesToChart().join(',') !== chartedZones) {
    buildCharts();
    return;
  }
  for (const c of charts) {
    const data = telemetry.columns(c.pickers);
    const shown = c.series.length > 0 && hasValues(data);
    c.figure.dataset.points = String(shown ? data[0].length : 0);
    $('p.empty', c.figure).hidden = shown;
    c.box.hidden = !shown;
    if (!shown) continue;
    if (c.chart) c.chart.setData(data);
    else c.chart = timeChart(c.box, c.series, data);
  }
  renderZoneChoice();
}

// Which zones the zone chart shows: the first eight by default, any of those seen by choice.
function renderZoneChoice() {
  const seen = telemetry.zones();
  const list = $('#zone-choice-list', root);
  if (list.dataset.seen === seen.join(',')) return;
  list.dataset.seen = seen.join(',');
  const charted = new Set(zonesToChart());
  list.replaceChildren(...seen.map((n) => h('label', {},
    h('input', { type: 'checkbox', value: String(n), checked: charted.has(n), onchange: chooseZones }), ` ${t('chart.zone', n)}`)));
}

function chooseZones() {
  const boxes = [...root.querySelectorAll('#zone-choice-list input')];
  chosenZones = new Set(boxes.filter((b) => b.checked).map((b) => Number(b.value)));
  drawCharts();
}

export default {
  init(section, ctx) {
    root = section;
    for (const c of charts) dropChart(c.chart);
    charts = [];
    chartedZones = '';
    section.append(h('h2', { id: 'h-status' }, t('st.title')),
      h('div', { id: 'status-body', 'aria-live': 'off' }),
      h('section', { 'aria-labelledby': 'h-charts' },
        h('h3', { id: 'h-charts' }, t('chart.title')),
        h('p', { class: 'hint' }, t('chart.hint')),
        h('div', { id: 'status-charts', class: 'charts' }),
        h('details', { id: 'zone-choice' },
          h('summary', {}, t('chart.chooseZones')),
          h('fieldset', {}, h('legend', {}, t('chart.zones')), h('div', { id: 'zone-choice-list', class: 'zone-list' })))));
    ctx.store.subscribe((s) => {
      if (section.hidden) return;
      render(s);
      drawCharts();
    }, 'status');
  },
  async show(ctx) {
    render(ctx.store.status ?? await ctx.store.next());
    if (charts.length === 0) buildCharts();
    else drawCharts();
  },
};
