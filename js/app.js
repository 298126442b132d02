// The console's shell: labels and language, the live status from the polling worker, what the engine can do, and switching between views.
import { language, setLanguage, t, translate } from './texts.js';
import * as api from './api.js';
import * as telemetry from './telemetry.js';
import { $, linkWords, showError, showNote } from './ui.js';
import connection from './views/connection.js';
import status from './views/status.js';
import config from './views/config.js';
import logs from './views/logs.js';
import firmware from './views/firmware.js';
import tools from './views/tools.js';

const views = { connection, status, config, logs, firmware, tools };
const LANGUAGE_KEY = 'vorcore.language';

// The latest status record and who wants to hear about new ones (one listener per name,
// so that a view built again replaces its listener).
const store = {
  status: null,
  listeners: new Map(),
  publish(s) {
    this.status = s;
    telemetry.record(s);
    for (const listener of this.listeners.values()) listener(s);
  },
  subscribe(listener, name = listener) {
    this.listeners.set(name, listener);
  },
  // Asks for the status now (not waiting for the worker's next poll) and shares it.
  async next() {
    const s = await api.status();
    this.publish(s);
    return s;
  },
};

// Written only when it changes, so that a screen reader announces changes, not every poll.
function showLink(s) {
  const state = $('#link-state');
  const words = linkWords(s.status);
  const device = s.devtype ? `· ${s.devtype}` : '';
  if (state.textContent !== words) state.textContent = words;
  state.dataset.state = String(s.status);
  if ($('#link-device').textContent !== device) $('#link-device').textContent = device;
}

let engineLost = false;
const worker = new Worker('/status_worker.js');
worker.onmessage = ({ data }) => {
  if (data.error) {
    if (!engineLost) showError(t('engine.lost', data.error), 'engine');
    engineLost = true;
    return;
  }
  if (engineLost) showNote(t('engine.back'));
  engineLost = false;
  store.publish(data.status);
};
store.subscribe(showLink, 'link');

// What the engine can do: an engine that does not answer engineinfo can do everything.
const info = { cipher: true, history: true };
async function askEngineInfo() {
  try {
    const answer = await api.query('engineinfo');
    info.cipher = answer?.result?.cipher !== '0';
    info.history = answer?.result?.history !== '0';
  } catch {
    // an older engine: nothing to hide
  }
}

const ctx = { store, info };
let current = null;
let switchCount = 0;

// Shows a view and marks, for the load figures, when its data is on screen.
async function open(name) {
  if (!views[name]) name = 'status';
  const number = ++switchCount;
  performance.mark(`view-open:${name}:${number}`);
  for (const section of document.querySelectorAll('[data-view]')) section.hidden = section.dataset.view !== name;
  for (const link of document.querySelectorAll('[data-view-link]')) {
    if (link.dataset.viewLink === name) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
  if (current && current !== name) {
    showNote('');
    $('#main').focus({ preventScroll: true });
  }
  current = name;
  const section = $(`#view-${name}`);
  try {
    await views[name].show(ctx);
  } catch (error) {
    showError(error.message || String(error), `view-${name}`);
  }
  section.dataset.shown = String(number);
  performance.mark(`view-ready:${name}:${number}`);
}

// Labels of the page and of every view in the chosen language; the views keep their data.
function build() {
  document.documentElement.lang = language();
  translate(document);
  document.title = t('app.title');
  $('#lang-select').value = language();
  for (const [name, view] of Object.entries(views)) {
    const section = $(`#view-${name}`);
    section.replaceChildren();
    view.init(section, ctx);
  }
}

function chooseLanguage(name) {
  try {
    localStorage.setItem(LANGUAGE_KEY, name);
  } catch {
    // storage refused (private mode): the choice lasts for this page
  }
  setLanguage(name);
  showNote('');
  build();
  if (store.status) store.publish(store.status);
  if (current) open(current);
}

let remembered = null;
try {
  remembered = localStorage.getItem(LANGUAGE_KEY);
} catch {
  remembered = null;
}
setLanguage(remembered ?? 'ru');
await askEngineInfo();
build();
$('#lang-select').addEventListener('change', (e) => chooseLanguage(e.currentTarget.value));
window.addEventListener('hashchange', () => open(location.hash.slice(1)));
if (location.hash) {
  open(location.hash.slice(1));
} else {
  // A connected panel opens on its status, otherwise on the connection page.
  store.next().then(
    (s) => { location.hash = s.status === 1 || s.status === 10 ? '#connection' : '#status'; },
    (error) => { showError(error.message, 'engine'); location.hash = '#connection'; });
}
