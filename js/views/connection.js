// Connection view: the port list, connect and disconnect, the link state and its record, the access password, and the offer to connect again after the link closed.
import { t } from '../texts.js';
import * as api from '../api.js';
import { $, h, askPassword, guarded, linkWords, showNote, sleep } from '../ui.js';

const PASSWORD_WAIT_MS = 10000;
let root;
let ctxOf = null;
let shownPorts = null;  // the list as last shown
// The port of the last connect and whether the port list showed it then; the reason the
// link closed when the console offers to connect again ('' when it does not).
const last = { port: '', listed: false, lastStatus: 0, offer: '', expect: '' };

function renderPorts(s) {
  const ports = Array.isArray(s.com) ? s.com : [];
  const key = ports.join('\n');
  if (key === shownPorts) return;
  shownPorts = key;
  const select = $('#port-select', root);
  const chosen = select.value;
  select.replaceChildren(...(ports.length ? ports.map((p) => h('option', { value: p, 'data-engine': '' }, p))
    : [h('option', { value: '' }, t('conn.noPorts'))]));
  if (ports.includes(chosen)) select.value = chosen;
}

function render(s) {
  renderPorts(s);
  $('#conn-state', root).textContent = linkWords(s.status);
  $('#conn-state', root).dataset.state = String(s.status);
  $('#disconnect', root).disabled = s.status === 10;
  $('#password', root).disabled = s.status === 10;
}

// ---- Connecting again after the link closed

// A port typed by hand is not in the list: it is offered at once. A listed one is offered
// as soon as the list shows it again (a panel that restarts may leave the bus for a while).
function portBack(s) {
  return !last.listed || (Array.isArray(s.com) && s.com.includes(last.port));
}

function renderOffer(s) {
  const banner = document.getElementById('reconnect');
  if (!last.offer || !last.port) {
    banner.hidden = true;
    banner.replaceChildren();
    return;
  }
  const ready = portBack(s);
  const state = `${last.offer}:${ready}`;
  banner.hidden = false;
  if (banner.dataset.state === state && banner.childElementCount) return;
  banner.dataset.state = state;
  banner.replaceChildren(h('span', {}, t(`reconnect.${last.offer}`)), ' ',
    ready ? h('button', { id: 'reconnect-button', type: 'button', onclick: (e) => guarded(e.currentTarget, () => connectTo(ctxOf, last.port), 'connect') },
      t('reconnect.button', last.port))
      : h('span', { id: 'reconnect-wait' }, t('reconnect.waiting', last.port)));
}

function connected(status) {
  return status >= 2 && status <= 9;
}

// The console says why the link closed and offers to connect again: after a restart or reset
// it sent, or when a link it had opened was lost.
function watchLink(s) {
  const was = last.lastStatus;
  last.lastStatus = s.status;
  if (s.status === 1 && connected(was)) {
    last.offer = last.expect || 'lost';
    last.expect = '';
  } else if (connected(s.status) && last.offer) {
    last.offer = '';
  }
  renderOffer(s);
}

// ---- Jobs


// The port is sent unencoded, as the engine takes it from the target.
function chosenPort() {
  const manual = $('#port-manual', root).value.trim();
  return manual || $('#port-select', root).value;
}

async function connectTo(ctx, port) {
  if (!port) throw new api.ApiError(t('conn.choosePort'));
  if (!port.startsWith('/dev/') || !api.isSendableValue(port)) throw new api.ApiError(t('conn.badPort'));
  // Connecting clears the engine's image: one not yet written is kept in the history first.
  if (!(await ctx.keepUnwritten(t('conn.connect')))) return;
  showNote(t('conn.connecting', port));
  try {
    await api.command(11, `&com=${port}`);
  } catch (error) {
    throw new api.ApiError(`${error.message}: ${port}`);
  }
  const listed = Array.isArray(ctx.store.status?.com) && ctx.store.status.com.includes(port);
  Object.assign(last, { port, listed, offer: '', expect: '' });
  showNote(t('conn.connected', port));
  ctx.store.publish(await api.status());
}

async function disconnect(ctx) {
  if (!(await ctx.keepUnwritten(t('conn.disconnect')))) return;
  await api.command(11);
  last.offer = '';
  last.port = '';
  showNote(t('conn.disconnected'));
  ctx.store.publish(await api.status());
}

// A command that restarts or resets the panel was sent ('restart', 'reset'): the link
// that closes next closes as it must; '' when the command was not sent after all.
export function expectClose(reason) {
  last.expect = reason;
}

// Sends the access password, then asks with "&continue" until the panel has answered.
export async function sendAccessPassword(password) {
  let answer = await api.command(12, `&pass=${password}`);
  const deadline = Date.now() + PASSWORD_WAIT_MS;
  while (answer === 'continue') {
    if (Date.now() > deadline) throw new api.ApiError(t('pass.timeout'));
    await sleep(150);
    answer = await api.command(12, `&pass=${password}&continue`);
  }
}

// The engine's record of the serial traffic, what support asks for (pk7dump reads it).
async function downloadRecord() {
  const { name, bytes } = await api.downloadNamed('linkrecord', 'link.txt');
  api.saveFile(name, bytes);
  showNote(t('conn.recordSaved', name));
}

async function password(ctx) {
  if (!ctx.info.cipher) throw new api.ApiError(t('cipher.missing'));
  const value = await askPassword(t('pass.title'));
  if (value === null) return;
  showNote(t('pass.waiting'));
  try {
    await sendAccessPassword(value);
  } catch (error) {
    // The engine's refusal carries no description of its own.
    throw new api.ApiError(error.message === t('err.command') ? t('pass.wrong') : error.message);
  }
  showNote(t('pass.ok'));
}

export default {
  init(section, ctx) {
    root = section;
    ctxOf = ctx;
    shownPorts = null;
    section.append(
      h('h2', { id: 'h-connection' }, t('view.connection')),
      h('div', { class: 'fields' },
        h('label', { for: 'port-select' }, t('conn.ports')),
        h('select', { id: 'port-select' }),
        h('label', { for: 'port-manual' }, t('conn.manual')),
        h('input', { id: 'port-manual', type: 'text', placeholder: t('conn.manualHint'), autocomplete: 'off', spellcheck: 'false' })),
      h('div', { class: 'buttons' },
        h('button', { id: 'connect', type: 'button', onclick: (e) => guarded(e.currentTarget, () => connectTo(ctx, chosenPort()), 'connect') }, t('conn.connect')),
        h('button', { id: 'disconnect', type: 'button', onclick: (e) => guarded(e.currentTarget, () => disconnect(ctx)) }, t('conn.disconnect')),
        h('button', { id: 'password', type: 'button', hidden: !ctx.info.cipher, onclick: (e) => guarded(e.currentTarget, () => password(ctx)) }, t('conn.password'))),
      ...(ctx.info.cipher ? [] : [h('p', { id: 'cipher-missing', class: 'warning' }, t('cipher.missing'))]),
      h('p', {}, `${t('link.label')}: `, h('strong', { id: 'conn-state' }, t('link.unknown')), ' ',
        h('button', { id: 'link-record', type: 'button', onclick: (e) => guarded(e.currentTarget, downloadRecord) }, t('conn.record'))));
    ctx.store.subscribe(render, 'connection');
    ctx.store.subscribe(watchLink, 'reconnect');
    document.getElementById('reconnect').dataset.state = '';
  },
  async show(ctx) {
    render(await ctx.store.next());
  },
};
