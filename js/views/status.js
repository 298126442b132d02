// Status view: the panel's live telemetry, redrawn with every status the worker brings.
import { t } from '../texts.js';
import { $, h, linkWords, table } from '../ui.js';

let root;

function field(label, value, id) {
  return h('div', {}, h('dt', {}, label), h('dd', { id: `st-${id}` }, value === '' || value == null ? '—' : String(value)));
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
  const lists = h('div', { class: 'lists' },
    table(t('st.parts'), [t('st.n'), t('st.state')], (s.part ?? []).map((p) => [p.N, p.S])),
    table(t('st.zones'), [t('st.n'), t('st.state'), t('st.value')], (s.lm ?? []).map((z) => [z.N, z.S, z.R])),
    table(t('st.exts'), [t('st.n'), t('st.state'), t('st.tamperCol')],
      (s.ext ?? []).filter((e) => e.S !== '0' || e.T).map((e) => [e.N, extState(e.S), e.T || '—'])),
    table(t('st.oks'), [t('st.n'), t('st.state')], (s.ok ?? []).map((o) => [o.N, o.S])));
  $('#status-body', root).replaceChildren(fields, lists);
}

export default {
  init(section, ctx) {
    root = section;
    section.append(h('h2', { id: 'h-status' }, t('st.title')), h('div', { id: 'status-body', 'aria-live': 'off' }));
    ctx.store.subscribe((s) => { if (!section.hidden) render(s); });
  },
  async show(ctx) {
    render(ctx.store.status ?? await ctx.store.next());
  },
};
