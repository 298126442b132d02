// Connection view: the port list, connect and disconnect, the link state, the access password and the link record.
import { t } from '../texts.js';
import * as api from '../api.js';
import { $, h, askPassword, guarded, linkWords, showNote, sleep } from '../ui.js';

const PASSWORD_WAIT_MS = 10000;
let root;
let shownPorts = '';

function renderPorts(s) {
  const ports = Array.isArray(s.com) ? s.com : [];
  const key = ports.join('\n');
  if (key === shownPorts) return;
  shownPorts = key;
  const select = $('#port-select', root);
  const chosen = select.value;
  select.replaceChildren(...(ports.length ? ports.map((p) => h('option', { value: p }, p))
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

// The port is sent unencoded, as the engine takes it from the target.
function chosenPort() {
  const manual = $('#port-manual', root).value.trim();
  return manual || $('#port-select', root).value;
}

async function connect(ctx) {
  const port = chosenPort();
  if (!port) throw new api.ApiError(t('conn.choosePort'));
  if (!port.startsWith('/dev/') || !api.isSendableValue(port)) throw new api.ApiError(t('conn.badPort'));
  // Connecting clears the engine's image: one not yet written is kept in the history first.
  if (!(await ctx.keepUnwritten(t('conn.connect')))) return;
  showNote(t('conn.connecting', port));
  try {
    await api.command(11, `&com=${port}`);
  } catch (error) {
    showNote('');
    throw new api.ApiError(`${error.message}: ${port}`);
  }
  showNote(t('conn.connected', port));
  ctx.store.publish(await api.status());
}

async function disconnect(ctx) {
  if (!(await ctx.keepUnwritten(t('conn.disconnect')))) return;
  await api.command(11);
  showNote(t('conn.disconnected'));
  ctx.store.publish(await api.status());
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

async function password() {
  const value = await askPassword(t('pass.title'));
  if (value === null) return;
  showNote(t('pass.waiting'));
  try {
    await sendAccessPassword(value);
  } catch (error) {
    showNote('');
    // The engine's refusal carries no description of its own.
    throw new api.ApiError(error.message === t('err.command') ? t('pass.wrong') : error.message);
  }
  showNote(t('pass.ok'));
}

export default {
  init(section, ctx) {
    root = section;
    section.append(
      h('h2', { id: 'h-connection' }, t('view.connection')),
      h('div', { class: 'fields' },
        h('label', { for: 'port-select' }, t('conn.ports')),
        h('select', { id: 'port-select' }),
        h('label', { for: 'port-manual' }, t('conn.manual')),
        h('input', { id: 'port-manual', type: 'text', placeholder: t('conn.manualHint'), autocomplete: 'off', spellcheck: 'false' })),
      h('div', { class: 'buttons' },
        h('button', { id: 'connect', type: 'button', onclick: (e) => guarded(e.currentTarget, () => connect(ctx)) }, t('conn.connect')),
        h('button', { id: 'disconnect', type: 'button', onclick: (e) => guarded(e.currentTarget, () => disconnect(ctx)) }, t('conn.disconnect')),
        h('button', { id: 'password', type: 'button', onclick: (e) => guarded(e.currentTarget, password) }, t('conn.password'))),
      h('p', {}, `${t('link.label')}: `, h('strong', { id: 'conn-state' }, t('link.unknown')), ' ',
        h('button', { id: 'link-record', type: 'button', onclick: (e) => guarded(e.currentTarget, downloadRecord) }, t('conn.record'))));
    ctx.store.subscribe(render);
  },
  async show(ctx) {
    render(await ctx.store.next());
  },
};
