// Firmware view: upload an image to the main processor or the coprocessor and follow it to its outcome, with its blocks, time and an estimate.
import { t } from '../texts.js';
import * as api from '../api.js';
import { $, confirmAction, endProgress, fileBytes, follow, guarded, h, progressBar, setProgress, showNote, sleep, withProgress } from '../ui.js';

// Each byte may travel as two, and the engine takes at most 16 MiB in one request.
const MAX_IMAGE = 8 * 1024 * 1024;
const BLOCK = 256;
const START_WAIT_MS = 5000;
let root;

export const blocksOf = (size) => Math.ceil(size / BLOCK);

// The engine's figure is blocks acknowledged × 100 / (size / 256): the blocks it stands for.
export function blocksDone(size, percent) {
  const whole = Math.max(1, Math.floor(size / BLOCK));
  return Math.max(0, Math.min(blocksOf(size), Math.round((Number(percent) || 0) * whole / 100)));
}

// Seconds left at the pace of the blocks acknowledged so far; null before the first.
export function secondsLeft(size, done, elapsedMs) {
  if (done < 1) return null;
  return Math.max(0, Math.round((elapsedMs / 1000) * (blocksOf(size) - done) / done));
}

const seconds = (ms) => Math.round(ms / 1000);

function showPace(size, percent, started) {
  const done = blocksDone(size, percent);
  const elapsed = Date.now() - started;
  const left = secondsLeft(size, done, elapsed);
  $('#fw-pace', root).textContent = t('fw.pace', done, blocksOf(size), seconds(elapsed),
    left === null ? t('fw.estimating') : t('fw.left', left));
}

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

function chosenFile() {
  const file = $('#fw-file', root).files[0];
  $('#fw-size', root).textContent = file ? t('fw.size', file.size, blocksOf(file.size)) : '';
  return file;
}

async function transfer(ctx, file, image, box) {
  const n = $('#fw-coproc', root).checked ? 73 : 71;
  setProgress(box, 0);
  await api.upload(`cmd=${n}`, api.bytesAsText(image));
  const started = Date.now();
  await waitForStart(ctx);
  const s = await follow({
    title: t('fw.progress'), done: (st) => st.statusready?.rupd === '2' || st.statusready?.rupd === '4',
    progress: (st) => st.progress?.upd, periodMs: 250,
    failed: (st) => (st.status === 1 || st.status === 10 ? t('fw.failed') : ''),
    onStatus: (st) => {
      ctx.store.publish(st);
      setProgress(box, st.progress?.upd);
      showPace(file.size, st.progress?.upd, started);
    },
  });
  if (s.statusready.rupd === '4') throw new api.ApiError(t('fw.failed'));
  return Date.now() - started;
}

async function upload(ctx) {
  const file = chosenFile();
  if (!file) throw new api.ApiError(t('fw.noFile'));
  if (file.size > MAX_IMAGE) throw new api.ApiError(t('fw.tooBig'));
  const image = await fileBytes(file);
  if (api.uploadProblem(image)) throw new api.ApiError(t('err.upload'));
  if (!(await confirmAction(t('fw.ask', file.name, file.size)))) return;
  const box = $('#fw-progress', root);
  try {
    const took = await withProgress(box, () => transfer(ctx, file, image, box));
    const text = t('fw.okIn', seconds(took));
    showNote(text);
    $('#fw-result', root).textContent = text;
  } finally {
    $('#fw-pace', root).textContent = '';
  }
}

export default {
  init(section, ctx) {
    root = section;
    section.append(
      h('h2', { id: 'h-firmware' }, t('fw.title')),
      h('div', { class: 'fields' },
        h('label', { for: 'fw-file' }, t('fw.file')),
        h('input', { id: 'fw-file', type: 'file', onchange: chosenFile }),
        h('span', { id: 'fw-size' })),
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
      h('p', { id: 'fw-pace', 'aria-live': 'off' }),
      h('p', { id: 'fw-result', role: 'status' }));
  },
  async show(ctx) {
    const s = await ctx.store.next();
    const box = $('#fw-progress', root);
    if (s.status === 8) setProgress(box, s.progress?.upd);
    else if (box) endProgress(box);
  },
};
