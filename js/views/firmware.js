// Firmware view: upload an image to the main processor or the coprocessor and follow it to its outcome.
import { t } from '../texts.js';
import * as api from '../api.js';
import { $, confirmAction, fileBytes, follow, guarded, h, progressBar, setProgress, showNote, sleep } from '../ui.js';

// Each byte may travel as two, and the engine takes at most 16 MiB in one request.
const MAX_IMAGE = 8 * 1024 * 1024;
const START_WAIT_MS = 5000;
let root;

// The upload is acknowledged before the engine queues it: wait until the transfer shows as running.
async function waitForStart(ctx) {
  const deadline = Date.now() + START_WAIT_MS;
  for (;;) {
    const s = await api.status();
    ctx.store.publish(s);
    if (s.status === 8 || s.statusready?.rupd === '1') return;
    if (Date.now() > deadline) throw new api.ApiError(t('fw.failed'));
    await sleep(40);
  }
}

async function upload(ctx) {
  const file = $('#fw-file', root).files[0];
  if (!file) throw new api.ApiError(t('fw.noFile'));
  if (file.size > MAX_IMAGE) throw new api.ApiError(t('fw.tooBig'));
  const image = await fileBytes(file);
  if (api.uploadProblem(image)) throw new api.ApiError(t('err.upload'));
  if (!(await confirmAction(t('fw.ask', file.name, file.size)))) return;
  const n = $('#fw-coproc', root).checked ? 73 : 71;
  const box = $('#fw-progress', root);
  setProgress(box, 0);
  await api.upload(`cmd=${n}`, api.bytesAsText(image));
  await waitForStart(ctx);
  const s = await follow({
    title: t('fw.progress'), done: (st) => st.statusready?.rupd === '2' || st.statusready?.rupd === '4',
    progress: (st) => st.progress?.upd, periodMs: 250,
    failed: (st) => (st.status === 1 || st.status === 10 ? t('fw.failed') : ''),
    onStatus: (st) => { ctx.store.publish(st); setProgress(box, st.progress?.upd); },
  });
  if (s.statusready.rupd === '4') throw new api.ApiError(t('fw.failed'));
  setProgress(box, 100);
  showNote(t('fw.ok'));
  $('#fw-result', root).textContent = t('fw.ok');
}

export default {
  init(section, ctx) {
    root = section;
    section.append(
      h('h2', { id: 'h-firmware' }, t('fw.title')),
      h('div', { class: 'fields' },
        h('label', { for: 'fw-file' }, t('fw.file')),
        h('input', { id: 'fw-file', type: 'file' })),
      h('fieldset', {},
        h('legend', {}, t('fw.target')),
        h('label', {}, h('input', { type: 'radio', name: 'fw-target', id: 'fw-main', checked: true }), ` ${t('fw.main')}`),
        h('label', {}, h('input', { type: 'radio', name: 'fw-target', id: 'fw-coproc' }), ` ${t('fw.coproc')}`)),
      h('div', { class: 'buttons' },
        h('button', { id: 'fw-upload', type: 'button', onclick: (e) => guarded(e.currentTarget, () => {
          $('#fw-result', root).textContent = '';
          return upload(ctx);
        }) }, t('fw.upload'))),
      progressBar('fw-progress', t('fw.progress')),
      h('p', { id: 'fw-result', role: 'status' }));
  },
  async show(ctx) {
    const s = await ctx.store.next();
    if (s.status === 8) setProgress($('#fw-progress', root), s.progress?.upd);
  },
};
