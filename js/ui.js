// Small DOM helpers shared by the views: elements, tables, messages, dialogs, progress and status following.
import { t } from './texts.js';
import * as api from './api.js';

// h('p', {class: 'x'}, 'text', child...): an element with attributes and children.
export function h(tag, attributes = {}, ...children) {
  const el = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === false || value == null) continue;
    if (name.startsWith('on')) el.addEventListener(name.slice(2), value);
    else el.setAttribute(name, value === true ? '' : value);
  }
  el.append(...children.flat().filter((c) => c != null));
  return el;
}

export const $ = (selector, root = document) => root.querySelector(selector);

// The status number in words.
export function linkWords(number) {
  const key = `link.${number}`;
  return t(key) === key ? t('link.other', number) : t(key);
}

// A table with a caption, column headings and rows of cells (text or elements).
export function table(caption, headings, rows, emptyText = t('st.empty')) {
  if (rows.length === 0) return h('p', { class: 'empty' }, `${caption}: ${emptyText}`);
  return h('table', {},
    h('caption', {}, caption),
    h('thead', {}, h('tr', {}, headings.map((text) => h('th', { scope: 'col' }, text)))),
    h('tbody', {}, rows.map((cells) => h('tr', {}, cells.map((cell) => h('td', {}, cell))))));
}

// ---- Messages: an error belongs to the job (a button's id) that caused it and stays until
// closed or until the next outcome of the same job; notes replace each other.

export function clearJob(job) {
  if (!job) return;
  for (const item of document.querySelectorAll('#errors li')) if (item.dataset.job === job) item.remove();
}

export function showError(text, job = '') {
  const list = $('#errors');
  clearJob(job);
  const item = h('li', { class: 'error', 'data-job': job || false }, h('span', {}, text),
    h('button', { type: 'button', class: 'close', 'aria-label': t('msg.close'), onclick: () => item.remove() }, '×'));
  list.append(item);
  while (list.children.length > 5) list.firstElementChild.remove();
}

let noteCount = 0;
export function showNote(text) {
  noteCount += 1;
  $('#note').textContent = text;
}

// Runs an action with its button disabled; any error is shown, never dropped. The job (by
// default the button's id) owns its messages: a new run removes its earlier error, a failure
// shows the new one and takes away the note the job itself put up ("connecting…").
export async function guarded(button, action, job = button?.id ?? '') {
  if (button) button.disabled = true;
  clearJob(job);
  const notesBefore = noteCount;
  try {
    return await action();
  } catch (error) {
    if (noteCount !== notesBefore) showNote('');
    showError(error instanceof api.ApiError ? error.message : t('err.engine', error.message || error), job);
    return undefined;
  } finally {
    if (button) button.disabled = false;
  }
}

// ---- Dialogs

function openDialog(dialog) {
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => resolve(dialog.returnValue), { once: true });
    dialog.showModal();
  });
}

export async function confirmAction(text) {
  const dialog = $('#confirm-dialog');
  $('#confirm-text', dialog).textContent = text;
  dialog.returnValue = '';
  return (await openDialog(dialog)) === 'yes';
}

// Asks for a password; null when cancelled. Refuses, with a message, what the API cannot carry.
export async function askPassword(title) {
  const dialog = $('#password-dialog');
  const field = $('#password-field', dialog);
  const problem = $('#password-problem', dialog);
  $('#password-title', dialog).textContent = title;
  field.value = '';
  problem.textContent = '';
  dialog.returnValue = '';
  for (;;) {
    if ((await openDialog(dialog)) !== 'send') return null;
    const value = field.value;
    if (value === '') problem.textContent = t('pass.empty');
    else if (!api.isSendableValue(value)) problem.textContent = t('pass.badChar');
    else return value;
    dialog.returnValue = '';
  }
}

// ---- Progress: shown while a transfer runs, hidden once its result is on screen.

export function progressBar(id, label) {
  return h('div', { class: 'progress', id, hidden: true },
    h('label', { for: `${id}-bar` }, label),
    h('progress', { id: `${id}-bar`, max: 100, value: 0 }),
    h('span', { class: 'percent', 'aria-hidden': 'true' }, '0%'));
}

export function setProgress(box, percent, label) {
  const value = Math.max(0, Math.min(100, Number(percent) || 0));
  box.hidden = false;
  if (label) $('label', box).textContent = label;
  $('progress', box).value = value;
  $('.percent', box).textContent = `${value}%`;
}

export function endProgress(box) {
  box.hidden = true;
}

// Runs a transfer with its progress bar, which goes away whatever the outcome.
export async function withProgress(box, transfer) {
  try {
    return await transfer();
  } finally {
    endProgress(box);
  }
}

// ---- Following a long exchange through the status record

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Polls the status until done(status) is true; progress(status) gives a figure that
// must keep moving, else after stallMs the operation is reported as stalled.
// failed(status) returns an error text to stop with.
export async function follow({ title, done, progress = () => 0, failed = () => '', onStatus, periodMs = 200, stallMs = 20000 }) {
  let last = null;
  let lastChange = Date.now();
  for (;;) {
    const s = await api.status();
    onStatus?.(s);
    const error = failed(s);
    if (error) throw new api.ApiError(error);
    if (done(s)) return s;
    const figure = `${progress(s)}/${s.status}`;
    if (figure !== last) {
      last = figure;
      lastChange = Date.now();
    } else if (Date.now() - lastChange > stallMs) {
      throw new api.ApiError(t('err.stalled', title, Math.round(stallMs / 1000)));
    }
    await sleep(periodMs);
  }
}

// Reads a chosen file as bytes.
export async function fileBytes(file) {
  return new Uint8Array(await file.arrayBuffer());
}

// ---- Paging and measuring

// First, previous, next and last page of `total` items, PAGE at a time, and the range shown.
export function pager(prefix, first, size, shown, total, onMove) {
  const last = Math.max(0, Math.floor((total - 1) / size) * size);
  const move = (id, label, to, disabled) => h('button', { type: 'button', id: `${prefix}-${id}`, disabled, onclick: () => onMove(to) }, label);
  return h('div', { class: 'pager' },
    move('first', t('page.first'), 0, first === 0),
    move('prev', t('page.prev'), Math.max(0, first - size), first === 0),
    h('span', { id: `${prefix}-range` }, shown ? t('page.range', first + 1, first + shown, total) : ''),
    move('next', t('page.next'), first + size, first + size >= total),
    move('last', t('page.last'), last, first >= last));
}

// Marks, for the load figures, when a step began and when its result was on screen.
let marks = 0;
export async function timed(name, step) {
  const number = ++marks;
  performance.mark(`${name}-open:${number}`);
  try {
    return await step();
  } finally {
    performance.mark(`${name}-ready:${number}`);
  }
}
