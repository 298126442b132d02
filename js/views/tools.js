// Tools view: the panel commands an installer uses, each with its value check and, where it restarts
// or resets the panel, a confirmation.
import { t } from '../texts.js';
import * as api from '../api.js';
import { confirmAction, guarded, h, showNote } from '../ui.js';
import { expectClose } from './connection.js';

// n: command number; key: its parameter; lengths: allowed value lengths (null: any, 1 to 200);
// closes: the panel restarts or resets, and the link closes once it has acknowledged.
export const COMMANDS = [
  { n: 21, confirm: true, closes: 'restart' },
  { n: 22, confirm: true, closes: 'reset' },
  { n: 23, key: 'pass', lengths: [6] },
  { n: 41, key: 'speed', lengths: [1] },
  { n: 42 },
  { n: 43, key: 'ext', lengths: [0, 1, 2] },
  { n: 44, key: 'ext', lengths: [0, 1, 2] },
  { n: 45, key: 'radio', lengths: [1, 2] },
  { n: 46 },
  { n: 51, key: 'ok', lengths: [1] },
  { n: 52, key: 'ok', lengths: [1] },
  { n: 61, key: 'zona', lengths: [1] },
  { n: 62, key: 'zona', lengths: [1] },
  { n: 63, key: 'part', lengths: [1] },
  { n: 100, key: 'text', lengths: null },
];

function valueFits(command, value) {
  if (!api.isSendableValue(value)) return false;
  return command.lengths ? command.lengths.includes(value.length) : value.length > 0 && value.length <= 200;
}

async function run(command, input) {
  const label = t(`cmd.${command.n}`);
  const value = input ? input.value.trim() : '';
  if (input && !valueFits(command, value)) throw new api.ApiError(t('tools.badValue', label));
  if (command.confirm && !(await confirmAction(t('tools.ask', label)))) return;
  // The panel acknowledges a restart or reset, then the engine closes the link.
  if (command.closes) expectClose(command.closes);
  try {
    await api.command(command.n, command.key ? `&${command.key}=${value}` : '');
  } catch (error) {
    if (command.closes) expectClose('');
    throw error;
  }
  showNote(command.closes ? t('tools.closing', label) : t('tools.sent', label));
}

function row(command) {
  const label = t(`cmd.${command.n}`);
  const input = command.key
    ? h('input', { id: `cmd-${command.n}-value`, type: 'text', autocomplete: 'off', spellcheck: 'false',
      'aria-label': t('cmd.value', label), maxlength: command.lengths ? Math.max(...command.lengths) : 200 })
    : null;
  const button = h('button', { type: 'submit', id: `cmd-${command.n}`, 'aria-label': t('tools.runFor', label) }, t('tools.run'));
  return h('form', { class: 'command', onsubmit: (e) => { e.preventDefault(); guarded(button, () => run(command, input)); } },
    h('span', { class: 'label', id: `cmd-${command.n}-label` }, label), input ?? h('span'), button);
}

export default {
  init(section) {
    section.append(h('h2', { id: 'h-tools' }, t('tools.title')), h('div', { class: 'commands' }, COMMANDS.map(row)));
  },
  async show() {},
};
