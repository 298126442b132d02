// Logs and events view: the panel's journal and its events, each read with progress, searched, paged and downloaded.
import { t } from '../texts.js';
import { h } from '../ui.js';
import { journalPanel, showJournal } from './journal.js';
import { eventsPanel, showEvents } from './events.js';

export default {
  init(section, ctx) {
    section.append(h('h2', { id: 'h-logs' }, t('view.logs')), journalPanel(ctx), eventsPanel(ctx));
  },
  async show() {
    await Promise.all([showJournal(), showEvents()]);
  },
};
