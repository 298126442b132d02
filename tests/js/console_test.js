// The web console end to end: headless Chromium drives js/ served by the real engine, which talks to
// the panel simulator on a pseudo-terminal. Every job of the console is done once through the page,
// every view is checked in both languages (texts outside the tables, axe-core), and the load figures
// (median of 5, marked by the page) are written to timings.json.
// Usage: node console_test.js <vorcore> <vorpanel-sim> <source dir> <artifact dir>
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const [vorcore, simulator, source, artifacts] = process.argv.slice(2).map((p) => p && path.resolve(p));
const CHROMIUM = '/usr/bin/chromium';
const PASSWORD = '123456';
const WAIT = 15000;
// What one event transfer carries, and a long journal.
const EVENTS = 5080;
const RECORDS = 2000;
// The browser's time zone: event days are the browser's days, not UTC's.
const TIME_ZONE = 'Europe/Moscow';
const counts = { passed: 0, failed: 0 };
const timings = {};
const ROUNDS = 5;

function check(name, ok, detail = '') {
  counts[ok ? 'passed' : 'failed'] += 1;
  console.log(`${ok ? 'PASS' : 'FAIL'} ${name}${ok ? '' : `: ${detail}`}`);
  return ok;
}

// Runs one step; a thrown error (a wait that timed out) fails it with the page's error messages.
async function step(name, page, body) {
  try {
    const detail = await body();
    check(name, detail === undefined || detail === true, detail);
  } catch (error) {
    const shown = page ? await page.locator('#errors').innerText().catch(() => '') : '';
    check(name, false, `${error.message.split('\n')[0]}${shown ? ` | page: ${shown}` : ''}`);
  }
}

async function until(probe, what, ms = WAIT) {
  for (const deadline = Date.now() + ms; ; await new Promise((resolve) => setTimeout(resolve, 50))) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
  }
}

// ---- The programs under test

function fail(message) {
  check('test driver', false, message);
  console.log(`${counts.passed} passed, ${counts.failed} failed`);
  process.exit(1);
}

function start(program, args, options, logFile) {
  const log = fs.openSync(logFile, 'w');
  const child = spawn(program, args, { ...options, stdio: ['ignore', log, log] });
  child.on('error', (error) => fs.appendFileSync(logFile, `spawn: ${error.message}\n`));
  return child;
}

const readText = (file) => (fs.existsSync(file) ? fs.readFileSync(file, 'latin1') : '');

function prepareWorkDir(scratch) {
  const work = path.join(scratch, 'work');
  fs.cpSync(path.join(source, 'js'), path.join(work, 'js'), { recursive: true });
  fs.cpSync(path.join(source, 'devs'), path.join(work, 'devs'), { recursive: true });
  fs.copyFileSync(path.join(source, 'data/cipher-test.txt'), path.join(work, 'cipher.txt'));
  // Images of each type the engine serves as binary: a PNG of 3x2, an icon holding it, an SVG of 7x5.
  const png = Buffer.from('iVBORw0KGgoAAAANSUhEUgAAAAMAAAACCAYAAACddGYaAAAAEUlEQVR4nGM4IcfwH4YZkDkAkksLX/k2mV4AAAAASUVORK5CYII=', 'base64');
  const icon = Buffer.from([0, 0, 1, 0, 1, 0, 3, 2, 0, 0, 1, 0, 32, 0, png.length, 0, 0, 0, 22, 0, 0, 0]);
  fs.mkdirSync(path.join(work, 'js/img'));
  fs.writeFileSync(path.join(work, 'js/img/p.png'), png);
  fs.writeFileSync(path.join(work, 'js/img/f.ico'), Buffer.concat([icon, png]));
  fs.writeFileSync(path.join(work, 'js/img/l.svg'), '<svg xmlns="http://www.w3.org/2000/svg" width="7" height="5"><path d="M0 0h7v5H0"/></svg>');
  // Started as root the engine opens a browser through su: a stand-in keeps it from doing so.
  fs.mkdirSync(path.join(scratch, 'bin'));
  fs.writeFileSync(path.join(scratch, 'bin/su'), '#!/bin/sh\n', { mode: 0o755 });
  return work;
}

// The engine's port, from the browser line it prints once it listens.
const enginePort = (logFile) => Number(/x-www-browser http:\/\/localhost:(\d+)/.exec(readText(logFile))?.[1]) || null;

// The frames the simulator received, as it printed them ("panel << <body>").
const simFrames = (logFile) => readText(logFile).split('\n').filter((l) => l.startsWith('panel << ')).map((l) => l.slice(9));

// Turns the simulator's printable form back into bytes (<xx> is a byte in hex).
const unprintable = (text) => Buffer.from(text.replace(/<START>|<END>|<([0-9a-f]{2})>/g,
  (mark, hex) => String.fromCharCode(hex ? parseInt(hex, 16) : mark === '<START>' ? 0x7e : 0x7f)), 'latin1');

// A firmware image with zero bytes, high bytes and the frame bytes 0x7D-0x7F, whose
// first zero byte comes before any blank line (see the README).
const firmwareImage = (size) => Buffer.from(Array.from({ length: size }, (_, i) => (i === 1 ? 0 : (i * 37 + (i >> 8)) & 0xff)));

// ---- The browser

async function launch(chromium, scratch) {
  return chromium.launchPersistentContext(path.join(scratch, 'profile'), {
    executablePath: CHROMIUM,
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 1280, height: 800 },
    timezoneId: TIME_ZONE,
    acceptDownloads: true,
    env: { ...process.env, HOME: scratch },
  });
}

const median = (runs) => [...runs].sort((a, b) => a - b)[Math.floor(runs.length / 2)];
function record(name, runs) {
  timings[name] = { median_ms: median(runs), runs_ms: runs };
}

// Milliseconds from the newest "<name>-open" mark to its "-ready" mark, as the console marks them.
async function markedTime(page, prefix) {
  return page.evaluate((p) => {
    const ready = performance.getEntriesByType('mark').filter((m) => m.name.startsWith(`${p}-ready:`)).pop();
    const open = ready && performance.getEntriesByName(ready.name.replace('-ready:', '-open:'))[0];
    return ready && open ? Math.round(ready.startTime - open.startTime) : -1;
  }, prefix);
}

async function switchTo(page, name) {
  if (await page.getAttribute(`nav a[data-view-link="${name}"]`, 'aria-current')) await switchTo(page, name === 'tools' ? 'connection' : 'tools');
  const before = await page.getAttribute(`#view-${name}`, 'data-shown');
  await page.click(`nav a[data-view-link="${name}"]`);
  await until(async () => (await page.getAttribute(`#view-${name}`, 'data-shown')) !== before, `view ${name}`);
  return page.evaluate((view) => {
    const ready = performance.getEntriesByType('mark').filter((m) => m.name.startsWith(`view-ready:${view}:`)).pop();
    const open = ready && performance.getEntriesByName(ready.name.replace('ready', 'open'))[0];
    return ready && open ? Math.round(ready.startTime - open.startTime) : -1;
  }, name);
}

async function openView(page, name, shot = `view-${name}.png`) {
  await switchTo(page, name);
  if (shot) await page.screenshot({ path: path.join(artifacts, shot) });
}

// Five switches to the view (from another one each time): the median is the figure.
async function measureView(page, name, label, away = name === 'tools' ? 'connection' : 'tools') {
  const runs = [];
  for (let i = 0; i < ROUNDS; i += 1) {
    await switchTo(page, away);
    runs.push(await switchTo(page, name));
  }
  record(label, runs);
}

const note = (page) => page.locator('#note').innerText();
const errors = (page) => page.locator('#errors').innerText();

const waitNote = (page, pattern, ms = WAIT) => until(async () => pattern.test(await note(page)) || null, `note ${pattern}`, ms);
const waitError = (page, text) => until(async () => (await errors(page)).includes(text) || null, `error "${text}"`);
const clearErrors = (page) => page.evaluate(() => document.querySelector('#errors').replaceChildren());

async function password(page, text, button = 'send') {
  await until(() => page.locator('#password-dialog').isVisible(), 'password dialog');
  await page.fill('#password-field', text);
  await page.click(`#password-dialog button[value="${button}"]`);
}

async function download(page, click) {
  const [file] = await Promise.all([page.waitForEvent('download', { timeout: WAIT }), page.click(click)]);
  return fs.readFileSync(await file.path());
}

async function configValue(page, key) {
  const input = page.locator(`#cfg-body tr[data-key="${key}"] input`).first();
  return (await input.count()) ? input.inputValue() : null;
}

const rowsOf = (page, body) => page.locator(`${body} tbody tr`).allInnerTexts();

// ---- Languages and accessibility

async function setLanguage(page, lang) {
  await page.selectOption('#lang-select', lang);
  await until(async () => (await page.getAttribute('html', 'lang')) === lang, `language ${lang}`);
}

// The page's own text outside the tables (which hold the engine's data), and its labels, each
// as one of the language's texts (with anything in place of {0}...): what is not is left untranslated.
// In English no Cyrillic letter may remain.
async function untranslated(page, lang) {
  return page.evaluate(async (language) => {
    const { tableOf } = await import('/texts.js');
    const patterns = Object.values(tableOf(language)).map((text) => new RegExp(`^${text
      .replace(/[.*+?^${}()|[\]\\]/g, '\\$&').replace(/\\\{\d+\\\}/g, '[\\s\\S]*')}$`));
    const known = (text) => {
      const plain = text.trim().replace(/:$/, '').trim();
      if (!/\p{L}/u.test(plain)) return true;
      if (language === 'en' && /\p{Script=Cyrillic}/u.test(plain)) return false;
      return patterns.some((p) => p.test(plain));
    };
    const engineData = (el) => el.closest('table, [data-engine], script, style, #errors') || (el.closest('[lang]')?.lang ?? language) !== language;
    const found = [];
    const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
    for (let node = walker.nextNode(); node; node = walker.nextNode()) {
      const el = node.parentElement;
      if (!node.textContent.trim() || engineData(el) || !el.checkVisibility()) continue;
      if (!known(node.textContent)) found.push(node.textContent.trim());
    }
    for (const el of document.body.querySelectorAll('[aria-label], [placeholder], [title]')) {
      if (engineData(el) || !el.checkVisibility()) continue;
      for (const name of ['aria-label', 'placeholder', 'title']) {
        const value = el.getAttribute(name);
        if (value && !known(value)) found.push(`${name}=${value}`);
      }
    }
    return [...new Set(found)];
  }, lang);
}

// axe-core on what the page shows: the serious and critical violations, with where they are.
async function axeViolations(page) {
  if (!(await page.evaluate(() => typeof window.axe === 'object'))) {
    await page.addScriptTag({ path: path.join(path.dirname(new URL(import.meta.url).pathname), 'node_modules/axe-core/axe.min.js') });
  }
  return page.evaluate(async () => {
    const result = await window.axe.run(document, { resultTypes: ['violations'] });
    return result.violations.filter((v) => v.impact === 'serious' || v.impact === 'critical')
      .map((v) => `${v.id} (${v.impact}): ${v.nodes.slice(0, 3).map((n) => n.target.join(' ')).join(', ')}`);
  });
}

const VIEWS = ['connection', 'status', 'config', 'logs', 'firmware', 'tools'];
async function everyViewInBothLanguages(page) {
  for (const lang of ['en', 'ru']) {
    await setLanguage(page, lang);
    for (const name of VIEWS) {
      await step(`${name} in ${lang}: no untranslated page text, no serious or critical axe-core violation`, page, async () => {
        await clearErrors(page);
        await openView(page, name, `view-${name}-${lang}.png`);
        const left = await untranslated(page, lang);
        const violations = await axeViolations(page);
        return (left.length === 0 && violations.length === 0) || `untranslated: ${left.join(' | ')}; axe: ${violations.join(' | ')}`;
      });
    }
  }
}

// ---- The jobs, in an installer's order

async function run(page, port, pty, simLog, scratch) {
  const base = `http://127.0.0.1:${port}`;
  await step('first load shows the connection page with Russian labels', page, async () => {
    const runs = [];
    for (let i = 0; i < ROUNDS; i += 1) {
      if (i === 0) await page.goto(`${base}/#connection`);
      else await page.reload();
      await until(() => page.getAttribute('#view-connection', 'data-shown'), 'connection view');
      runs.push(await page.evaluate(() => Math.round(
        performance.getEntriesByType('mark').find((m) => m.name.startsWith('view-ready:'))?.startTime ?? -1)));
    }
    record('first load (connection page with data)', runs);
    const text = await page.locator('body').innerText();
    return /Подключить/.test(text) && /Связь с прибором/.test(text) || text.slice(0, 200);
  });

  await step('the browser decodes the images the engine serves as binary', page, async () => {
    const sizes = await page.evaluate(() => Promise.all(['p.png', 'f.ico', 'l.svg'].map(async (name) => {
      const image = new Image();
      image.src = `/img/${name}`;
      await image.decode();
      return `${image.naturalWidth}x${image.naturalHeight}`;
    })));
    return sizes.join(' ') === '3x2 3x2 7x5' || sizes.join(' ');
  });

  await step('every control has a label and keyboard focus reaches the views', page, async () => {
    const unlabelled = await page.evaluate(() => [...document.querySelectorAll('input, select, button')]
      .filter((el) => !(el.labels?.length || el.getAttribute('aria-label') || el.textContent.trim()))
      .map((el) => el.id || el.outerHTML.slice(0, 60)));
    await page.keyboard.press('Tab');
    await page.keyboard.press('Tab');
    await page.keyboard.press('Tab');
    const focused = await page.evaluate(() => document.activeElement?.getAttribute('href'));
    const lang = await page.getAttribute('html', 'lang');
    return (unlabelled.length === 0 && focused === '#connection' && lang === 'ru') || `${unlabelled} focus=${focused} lang=${lang}`;
  });

  await step('a port that cannot be opened shows the engine\'s message', page, async () => {
    await page.fill('#port-manual', '/dev/ttyUSB-nonexistent');
    await page.click('#connect');
    await waitError(page, 'Ошибка подключения к порту');
  });

  await step('a password with a blank is refused in the form', page, async () => {
    await page.click('#password');
    await password(page, 'a b');
    await until(async () => (await page.locator('#password-problem').innerText()).includes('пробел'), 'refusal');
    await page.click('#password-dialog button[value="cancel"]');
  });

  // Offline preparation: a model template edited with no panel connected, then the connect.
  await step('offline: a model template is loaded and edited before any panel is connected', page, async () => {
    await openView(page, 'config');
    await page.fill('#cfg-model', 'MS02');
    await page.click('#cfg-load-model');
    await waitNote(page, /Загружен шаблон MS02/);
    await page.fill('#cfg-body tr[data-key="cs1"] input', '4321');
    await waitNote(page, /Изменено настроек: 1/);
    await until(async () => (await page.locator('#hist-list tr[data-kind="model"]').count()) === 1, 'model snapshot');
  });

  await step('connect warns that the unwritten configuration is kept; the link becomes ready and the failed connect\'s error goes', page, async () => {
    await openView(page, 'connection');
    const before = await errors(page);
    await page.fill('#port-manual', pty);
    await page.click('#connect');
    await until(() => page.locator('#confirm-dialog').isVisible(), 'the warning');
    const warning = await page.locator('#confirm-text').innerText();
    const started = Date.now();
    await page.click('#confirm-dialog button[value="yes"]');
    await until(async () => (await page.getAttribute('#link-state', 'data-state')) === '3', 'link state 3');
    timings['connect until the panel is ready (one run)'] = { median_ms: Date.now() - started, runs_ms: [Date.now() - started] };
    await waitNote(page, /Порт .* открыт/);
    const state = await page.locator('#conn-state').innerText();
    const after = await errors(page);
    return (/Сохранена перед очисткой/.test(warning) && /Записать отличия/.test(warning) && state === 'Прибор готов'
      && before.includes('Ошибка подключения к порту') && !after.includes('Ошибка подключения к порту'))
      || `${state}: ${warning} | errors before: ${before} | after: ${after}`;
  });

  await step('wrong access password shows an error, the right one replaces it with its acceptance', page, async () => {
    await page.click('#password');
    await password(page, '000000');
    await waitError(page, 'Пароль не принят');
    await page.click('#password');
    await password(page, PASSWORD);
    await waitNote(page, /Пароль принят/);
    return !(await errors(page)).includes('Пароль не принят') || 'the refusal stayed';
  });

  await step('live status shows the telemetry; after 10 s of polling the charts have points, a flat value draws a line, hovering shows time and value', page, async () => {
    await openView(page, 'status');
    await until(async () => (await page.locator('#st-devtype').innerText()) === 'MS02', 'device type');
    const gsm = await page.locator('#st-gsm').innerText();
    const clock = await page.locator('#st-clock').innerText();
    const zones = await page.locator('#status-body table').filter({ hasText: 'Зоны' }).locator('tbody tr').count();
    await until(async () => Number(await page.getAttribute('#chart-power', 'data-points')) >= 10, '10 points', 20000);
    const over = page.locator('#chart-power .u-over');
    const area = await over.boundingBox();
    await page.mouse.move(area.x + area.width * 0.6, area.y + area.height / 2);
    const legend = await page.locator('#chart-power .u-legend').innerText();
    const charts = await page.locator('#status-charts figure').evaluateAll((fs) => fs.map((f) => `${f.id}:${f.dataset.points > 0}`));
    await page.screenshot({ path: path.join(artifacts, 'readme.png'), clip: { x: 0, y: 0, width: 1280, height: 620 } });
    return (gsm === '87%' && /^\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d$/.test(clock) && zones === 2
      && /\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d/.test(legend) && /Питание:?\s*13\b/.test(legend)
      && charts.join(' ') === 'chart-power:true chart-gsm:true chart-temp:true chart-zones:true')
      || `${gsm} ${clock} ${zones} | legend: ${legend} | ${charts}`;
  });

  await step('30 minutes of charted history (injected with a fake clock) show at once; zones are chosen from a list', page, async () => {
    const injected = await page.evaluate(async () => {
      const telemetry = await import('/telemetry.js');
      const realNow = Date.now;
      const end = realNow();
      let fake = end - 30 * 60 * 1000;
      Date.now = () => fake;
      try {
        telemetry.clear();
        for (let i = 0; fake < end; fake += 1000, i += 1) {
          const lm = Array.from({ length: 8 }, (_, z) => ({ N: String(z + 1), S: '1', R: (10 + z + 2 * Math.sin((i + 60 * z) / 120)).toFixed(1) }));
          telemetry.record({ status: 3, power_value: String(12 + (i % 600 < 300 ? 1 : 0)), gsm: `${70 + (i % 20)}%`, t: String(20 + Math.round(3 * Math.sin(i / 300))), lm });
        }
      } finally {
        Date.now = realNow;
      }
      return telemetry.count();
    });
    await measureView(page, 'status', 'switch to Состояние (30 minutes of charted history)');
    const points = Number(await page.getAttribute('#chart-zones', 'data-points'));
    await page.click('#zone-choice summary');
    await page.uncheck('#zone-choice-list input[value="2"]');
    const series = await page.locator('#chart-zones .u-legend .u-series').count();
    await page.screenshot({ path: path.join(artifacts, 'status-charts.png'), fullPage: true });
    return (injected >= 1800 && points >= 1800 && series === 8) || `injected ${injected}, points ${points}, series ${series}`;
  });

  await step('read the configuration: the progress bar goes once the result shows', page, async () => {
    await clearErrors(page);
    await openView(page, 'config');
    await page.click('#cfg-read');
    await waitNote(page, /Конфигурация прочитана/);
    const hidden = await page.locator('#cfg-progress').isHidden();
    return ((await configValue(page, 'zn1')) === '5' && hidden) || `zn1=${await configValue(page, 'zn1')} progress hidden=${hidden}`;
  });

  // The template kept at the connect, against the panel's configuration just read: changed cs1 (the
  // edit), zn3-zn8 and ss1; only in the snapshot rl2 and ss2-ss8.
  const differing = ['cs1', 'rl2', 'ss1', 'ss2', 'ss3', 'ss4', 'ss5', 'ss6', 'ss7', 'ss8', 'zn3', 'zn4', 'zn5', 'zn6', 'zn7', 'zn8'];
  await step('the history keeps the prepared configuration; compare shows what differs', page, async () => {
    const kinds = await page.locator('#hist-list tr[data-kind]').evaluateAll((rows) => rows.map((r) => r.dataset.kind));
    await page.locator('#hist-list tr[data-kind="kept"]').last().locator('button[data-action="compare"]').click();
    await until(() => page.locator('#cmp-counts').isVisible(), 'the comparison');
    const counts = await page.locator('#cmp-counts').innerText();
    const changed = await page.locator('#cmp-changed tbody tr').evaluateAll((rows) => rows.map((r) => r.dataset.key));
    const cs1 = await page.locator('#cmp-changed tr[data-key="cs1"]').innerText();
    await page.locator('#hist').screenshot({ path: path.join(artifacts, 'history-compare.png') });
    await page.fill('#hist-filter', 'ss');
    const filtered = await page.locator('#hist-compare tbody tr').count();
    await page.fill('#hist-filter', '');
    return (kinds.join(' ') === 'read kept kept model' && counts === 'Изменены: 8 · только в снимке: 8 · только в движке: 0'
      && changed.join(' ') === 'cs1 ss1 zn3 zn4 zn5 zn6 zn7 zn8' && /1234\s+4321/.test(cs1) && filtered === 8)
      || `${kinds} | ${counts} | ${changed} | ${cs1} | ${filtered}`;
  });

  await step('write the differences after a confirmation naming the count; the read-back check passes', page, async () => {
    const before = simFrames(simLog).length;
    await page.click('#cmp-write');
    await until(() => page.locator('#confirm-dialog').isVisible(), 'the confirmation');
    const ask = await page.locator('#confirm-text').innerText();
    await page.click('#confirm-dialog button[value="yes"]');
    await waitNote(page, /Проверено: 16 настроек совпадают/, 30000);
    await page.locator('#view-config').screenshot({ path: path.join(artifacts, 'history-check.png') });
    // The settings the simulator received, in the order they went out.
    const sent = simFrames(simLog).slice(before).map(unprintable).map((b) => b.toString('latin1'))
      .filter((f) => /^\d{4}F/.test(f) && !/^\d{4}F(EC|CF-11)$/.test(f))
      .flatMap((f) => f.slice(5).split('\r\n').filter(Boolean).map((line) => line.split('-')[0]));
    return (/Записать в прибор 16 настроек/.test(ask) && sent.join(' ') === differing.join(' ')) || `${ask} | ${sent}`;
  });

  await step('edit a zone and write it: the simulator receives the setting', page, async () => {
    await page.fill('#cfg-body tr[data-key="zn1"] input', '7');
    await waitNote(page, /Изменено настроек: 1/);
    await page.click('#cfg-write');
    await waitNote(page, /Проверено: 1 настроек совпадают/);
    await page.screenshot({ path: path.join(artifacts, 'config-written.png') });
    const frames = simFrames(simLog);
    const setting = frames.some((f) => /F.*zn1-7<0d><0a>/.test(f));
    const end = frames.some((f) => f === '0007FEC');
    return (setting && end && await page.locator('#cfg-progress').isHidden()) || `setting=${setting} end=${end}`;
  });

  let exported = null;
  await step('export config.ini as Windows-1251 bytes', page, async () => {
    exported = await download(page, '#cfg-export');
    fs.writeFileSync(path.join(artifacts, 'config.ini'), exported);
    const text = exported.toString('latin1');
    return (text.startsWith('Vorlane-') && text.includes('zn1-7\r\n')) || text.slice(0, 120);
  });

  await step('import an edited config.ini (LF line ends and blank lines are fixed on the way)', page, async () => {
    const edited = exported.toString('latin1').replace('zn2-5\r\n', 'zn2-3\r\n\r\n').replace(/\r\n/g, '\n');
    const file = path.join(scratch, 'edited.ini');
    fs.writeFileSync(file, Buffer.from(edited, 'latin1'));
    await page.setInputFiles('#cfg-file', file);
    await waitNote(page, /Файл загружен/);
    return ((await configValue(page, 'zn2')) === '3' && (await configValue(page, 'zn1')) === '7') || `zn2=${await configValue(page, 'zn2')}`;
  });

  await step('a .cry file asks for its password; a wrong one and a bad file are reported', page, async () => {
    const bad = path.join(scratch, 'bad.cry');
    fs.writeFileSync(bad, 'short');
    await page.setInputFiles('#cfg-file', bad);
    await waitError(page, 'Файл .cry не принят');
    const good = path.join(scratch, 'site.cry');
    fs.writeFileSync(good, Buffer.concat([Buffer.from('VORLANE\r\n'), Buffer.alloc(22, 1), Buffer.alloc(16, 0x5a)]));
    await page.setInputFiles('#cfg-file', good);
    await password(page, 'wrong');
    await waitError(page, 'Неверный пароль файла .cry');
    await password(page, '', 'cancel');
  });

  await step('load the model template from devs/', page, async () => {
    await clearErrors(page);
    await page.fill('#cfg-model', 'XX99');
    await page.click('#cfg-load-model');
    await waitError(page, 'Шаблона XX99 нет');
    await page.fill('#cfg-model', 'MS02');
    await page.click('#cfg-load-model');
    await waitNote(page, /Загружен шаблон MS02/);
    const name = await page.locator('#cfg-body tr[data-key="ss3"] input').first().inputValue();
    const replaced = !(await errors(page)).includes('Шаблона XX99 нет');
    return ((await configValue(page, 'td')) === 'MS02' && name === 'Зона 3' && replaced) || `td=${await configValue(page, 'td')} ss3=${name} replaced=${replaced}`;
  });

  await step('the filter asks the engine for matching keys only', page, async () => {
    await page.fill('#cfg-filter', 'zn');
    await until(async () => {
      const keys = await page.locator('#cfg-body tr[data-key]').evaluateAll((rows) => rows.map((r) => r.dataset.key));
      return keys.length === 8 && keys.every((k) => k.includes('zn'));
    }, '8 zone rows');
    await page.fill('#cfg-filter', '');
  });

  await journalAndEvents(page);
  await firmware(page, simLog, scratch);
  await restartAndReconnect(page, simLog);

  await step('views fit a tablet width without sideways scrolling', page, async () => {
    await page.setViewportSize({ width: 768, height: 1024 });
    const wide = [];
    for (const name of ['status', 'config', 'logs', 'tools']) {
      await openView(page, name, `tablet-${name}.png`);
      if (await page.evaluate(() => document.documentElement.scrollWidth > innerWidth)) wide.push(name);
    }
    await page.setViewportSize({ width: 1280, height: 800 });
    return wide.length === 0 || `too wide: ${wide}`;
  });

  await step('the load figures of every view (median of 5)', page, async () => {
    await measureView(page, 'connection', 'switch to Подключение');
    await measureView(page, 'config', 'switch to Конфигурация');
    await measureView(page, 'logs', `switch to Журнал и события (${RECORDS} records, ${EVENTS} events)`);
    await measureView(page, 'firmware', 'switch to Прошивка');
    await measureView(page, 'tools', 'switch to Команды');
  });

  await everyViewInBothLanguages(page);

  await step('the language is remembered by the browser', page, async () => {
    await setLanguage(page, 'en');
    await page.reload();
    await until(() => page.getAttribute('#view-tools', 'data-shown'), 'tools view');
    const heading = await page.locator('#h-tools').innerText();
    await setLanguage(page, 'ru');
    return heading === 'Panel commands' || heading;
  });

  await step('disconnect closes the port', page, async () => {
    await openView(page, 'connection');
    await page.click('#disconnect');
    // The engine clears its image on disconnect: status 1, no device.
    await until(async () => (await page.getAttribute('#link-state', 'data-state')) === '1', 'link state 1');
    return ((await page.locator('#link-device').innerText()) === '' && await page.locator('#reconnect').isHidden()) || 'device still shown or a reconnect offered';
  });
}

async function journalAndEvents(page) {
  const DATE = /\d\d\.\d\d\.\d{4}\s+\d\d:\d\d:\d\d/;
  await step(`read ${RECORDS} journal records: newest first, types in words, search, first and last page, the engine's file`, page, async () => {
    await clearErrors(page);
    await openView(page, 'logs');
    await page.click('#log-read');
    await waitNote(page, new RegExp(`Журнал прочитан: ${RECORDS}`), 30000);
    const hidden = await page.locator('#log-progress').isHidden();
    const rows = await rowsOf(page, '#log-body');
    const typed = rows.every((r) => DATE.test(r) && /Ошибка|Информация|Предупреждение/.test(r));
    const times = await page.locator('#log-body tbody tr').evaluateAll((trs) => trs.map((tr) => {
      const [d, t] = [...tr.cells].map((c) => c.textContent);
      return `${d.split('.').reverse().join('')}${t}`;
    }));
    const newest = times.every((x, i) => i === 0 || x <= times[i - 1]);
    await page.click('#log-last');
    const lastRange = await page.locator('#log-range').innerText();
    await page.click('#log-first');
    await page.fill('#log-search', 'GPRS');
    const found = await rowsOf(page, '#log-body');
    const count = await page.locator('#log-count').innerText();
    await page.fill('#log-search', '');
    await page.selectOption('#log-kind', 'ER');
    const errorsOnly = (await rowsOf(page, '#log-body')).every((r) => /Ошибка/.test(r));
    await page.selectOption('#log-kind', '');
    const file = (await download(page, '#log-download')).toString('utf8').split('\r\n').filter(Boolean);
    return (hidden && rows.length === 20 && typed && newest && lastRange === `1981–${RECORDS} из ${RECORDS}`
      && found.length > 0 && found.every((r) => r.includes('GPRS')) && new RegExp(`^Записей: \\d+ из ${RECORDS}$`).test(count)
      && errorsOnly && file[0] === 'Логи прибора:' && file.length === RECORDS + 1)
      || `hidden=${hidden} rows=${rows.length} typed=${typed} newest=${newest} last=${lastRange} found=${found.length} ${count} errors=${errorsOnly} file=${file.length}`;
  });

  await step(`read ${EVENTS} events: newest first, a filter narrows them to the expected count, per day and top codes, the engine's file`, page, async () => {
    await page.click('#ev-read');
    await waitNote(page, new RegExp(`События прочитаны: ${EVENTS}`), 40000);
    const hidden = await page.locator('#ev-progress').isHidden();
    const first = await rowsOf(page, '#ev-body');
    const coded = first.every((r) => DATE.test(r) && /\t[ER]\d+\t/.test(r));
    const newest = first[0]?.endsWith('00006079');
    // Partition 2, alarms (1xx), restorals: the simulator's shapes R110 (6th of 37) and R151
    // (24th); 5,080 events are 137 rounds of 37 and 11 more, so 138 + 137.
    const runs = [];
    for (const [id, value] of [['#ev-part', '2'], ['#ev-class', '1'], ['#ev-letter', 'R']]) {
      if (id === '#ev-part') await page.fill(id, value);
      else await page.selectOption(id, value);
      runs.push(await markedTime(page, 'ev-filter'));
    }
    const count = await page.locator('#ev-count').innerText();
    const narrowed = (await rowsOf(page, '#ev-body')).every((r) => /\tR1(10|51)\t/.test(r));
    await page.uncheck('#ev-newest');
    runs.push(await markedTime(page, 'ev-filter'));
    const oldest = (await rowsOf(page, '#ev-body'))[0];
    await page.check('#ev-newest');
    runs.push(await markedTime(page, 'ev-filter'));
    record(`event filter (${EVENTS} events)`, runs);
    await page.click('#ev-clear');
    await page.click('#ev-last');
    const lastRange = await page.locator('#ev-range').innerText();
    const top = await page.locator('#ev-top tbody tr').count();
    const perDay = await page.locator('#ev-days').isVisible();
    await page.screenshot({ path: path.join(artifacts, 'events.png'), fullPage: true });
    const file = (await download(page, '#ev-download')).toString('utf8').split('\r\n').filter(Boolean);
    return (hidden && coded && newest && count === `Событий: 275 из ${EVENTS}` && narrowed && /00001005$/.test(oldest)
      && lastRange === `5061–${EVENTS} из ${EVENTS}` && top === 10 && perDay && file[0] === 'События прибора:' && file.length === EVENTS + 1)
      || `hidden=${hidden} coded=${coded} newest=${first[0]} ${count} narrowed=${narrowed} oldest=${oldest} last=${lastRange} top=${top} perDay=${perDay} file=${file.length}`;
  });

  await step('a day range keeps the events of those days in the browser\'s time zone', page, async () => {
    // The newest event's day, as the browser (in Moscow, UTC+3) sees it.
    const day = await page.evaluate(() => {
      const cells = document.querySelectorAll('#ev-body tbody tr')[0]?.cells;
      const [d, m, y] = cells[0].textContent.split('.');
      const local = new Date(`${y}-${m}-${d}T${cells[1].textContent}Z`);
      return `${local.getFullYear()}-${String(local.getMonth() + 1).padStart(2, '0')}-${String(local.getDate()).padStart(2, '0')}`;
    });
    await page.click('#ev-first');
    await page.fill('#ev-from', day);
    await page.fill('#ev-to', day);
    const within = await page.locator('#ev-body tbody tr').evaluateAll((trs, wanted) => trs.map((tr) => {
      const [d, m, y] = tr.cells[0].textContent.split('.');
      const local = new Date(`${y}-${m}-${d}T${tr.cells[1].textContent}Z`);
      return `${local.getFullYear()}-${String(local.getMonth() + 1).padStart(2, '0')}-${String(local.getDate()).padStart(2, '0')}` === wanted;
    }), day);
    const count = await page.locator('#ev-count').innerText();
    await page.click('#ev-clear');
    return (within.length > 0 && within.every(Boolean) && /^Событий: \d+ из/.test(count)) || `${day}: ${within} ${count}`;
  });
}

async function firmware(page, simLog, scratch) {
  const image = firmwareImage(8192);
  await step('upload firmware: size, blocks and an estimate while it runs, the bar gone at the end; the simulator receives the image intact', page, async () => {
    await clearErrors(page);
    await openView(page, 'firmware');
    const file = path.join(scratch, 'firmware.bin');
    // A blank line before the first zero byte would end the request head early: refused.
    fs.writeFileSync(file, Buffer.from('IMAGE\r\n\r\n\0rest'));
    await page.setInputFiles('#fw-file', file);
    await page.click('#fw-upload');
    await waitError(page, 'Файл нельзя передать');
    const good = path.join(scratch, 'firmware-8k.bin');
    fs.writeFileSync(good, image);
    await page.setInputFiles('#fw-file', good);
    const size = await until(async () => { const text = await page.locator('#fw-size').innerText(); return text.includes('8192') && text; }, 'the size shown');
    await page.click('#fw-upload');
    await page.click('#confirm-dialog button[value="yes"]');
    const estimate = await until(async () => {
      const pace = await page.locator('#fw-pace').innerText();
      return /осталось примерно \d+ с/.test(pace) && pace;
    }, 'an estimate', 20000);
    await page.screenshot({ path: path.join(artifacts, 'firmware-estimate.png') });
    await until(async () => /^Прошивка загружена успешно за \d+ с$/.test(await page.locator('#fw-result').innerText()), 'firmware result', 30000);
    const gone = await page.locator('#fw-progress').isHidden() && (await page.locator('#fw-pace').innerText()) === '';
    const replaced = !(await errors(page)).includes('Файл нельзя передать');
    // Blocks for the main processor: kind 132 first, then 4; two header bytes each.
    const blocks = simFrames(simLog).map(unprintable).filter((b) => b[4] === 0x42 && (b[5] === 132 || b[5] === 4));
    const received = Buffer.concat(blocks.map((b) => b.subarray(7)));
    return (size === 'Размер: 8192 байт, блоков: 32' && /^Передано блоков: \d+ из 32 · прошло \d+ с · осталось примерно \d+ с$/.test(estimate)
      && gone && replaced && received.equals(image)) || `${size} | ${estimate} | gone=${gone} replaced=${replaced} received ${received.length} of ${image.length}`;
  });
}

async function restartAndReconnect(page, simLog) {
  await step('panel commands: a value check, a confirmation and a sent command', page, async () => {
    await openView(page, 'tools');
    await page.fill('#cmd-23-value', '12345');
    await page.click('#cmd-23');
    await waitError(page, 'Неверное значение');
    const before = simFrames(simLog).length;
    await page.click('#cmd-21');
    await page.click('#confirm-dialog button[value="no"]');
    await page.fill('#cmd-51-value', '2');
    await page.click('#cmd-51');
    await waitNote(page, /отправлена/);
    await until(() => simFrames(simLog).some((f) => f === '0010FKK2-1'), 'KK2-1 at the simulator');
    const restarts = simFrames(simLog).slice(before).filter((f) => f === '0007FRE').length;
    return restarts === 0 || 'restart sent without confirmation';
  });

  await step('after a restart the console says the link closed and offers to connect again to the same port', page, async () => {
    await clearErrors(page);
    await page.click('#cmd-21');
    await page.click('#confirm-dialog button[value="yes"]');
    await waitNote(page, /когда прибор её примет, связь закроется/);
    await until(() => page.locator('#reconnect-button').isVisible(), 'the offer to connect again');
    const offer = await page.locator('#reconnect').innerText();
    await page.screenshot({ path: path.join(artifacts, 'reconnect-offer.png') });
    await page.click('#reconnect-button');
    // The template loaded last was not written: kept in the history, after a warning.
    await until(() => page.locator('#confirm-dialog').isVisible(), 'the warning');
    await page.click('#confirm-dialog button[value="yes"]');
    await until(async () => (await page.getAttribute('#link-state', 'data-state')) === '3', 'link state 3 again');
    await until(() => page.locator('#reconnect').isHidden(), 'the offer gone');
    return (/Прибор перезапускается: связь с ним закрыта/.test(offer) && simFrames(simLog).includes('0007FRE')) || offer;
  });

  await step('download the link record through the page: the session\'s frames, the password masked', page, async () => {
    await openView(page, 'connection');
    const [file] = await Promise.all([page.waitForEvent('download', { timeout: WAIT }), page.click('#link-record')]);
    const name = file.suggestedFilename();
    const saved = path.join(artifacts, 'link-record.txt');
    fs.copyFileSync(await file.path(), saved);
    const text = fs.readFileSync(saved, 'latin1');
    const head = text.startsWith('# vorcore link record 1\n# engine 5.2.22\n');
    const hex = (frame) => Buffer.from(frame, 'latin1').toString('hex');
    const sent = [hex('~0007FSF\x7f'), hex('~0010FCF-11\x7f'), hex('~0007FPL\x7f'), hex('~0007FMH\x7f')].every((h) => text.includes(h));
    const masked = text.includes(hex(`~0023B${'\0'.repeat(18)}\x7f`));
    // pk7dump is built beside the simulator.
    const dump = spawnSync(path.join(path.dirname(simulator), 'pk7dump'), [saved], { encoding: 'utf8' });
    const decoded = dump.status === 0 && dump.stdout.includes('access password (masked)') && / > F \d{4} configuration "zn1-7\\r\\n/.test(dump.stdout);
    return (/^link-\d{8}-\d{6}\.txt$/.test(name) && head && sent && masked && decoded)
      || `name=${name} head=${head} sent=${sent} masked=${masked} pk7dump=${dump.status} ${dump.stderr ?? ''}`;
  });
}

// An engine without a cipher file says so where the password would be asked, instead of refusing it.
async function withoutCipher(context, port) {
  const page = await context.newPage();
  await step('without a cipher file the console says so and offers no access password', page, async () => {
    await page.goto(`http://127.0.0.1:${port}/#connection`);
    await until(() => page.getAttribute('#view-connection', 'data-shown'), 'connection view');
    const message = await page.locator('#cipher-missing').innerText();
    const password = await page.locator('#password').isHidden();
    await page.screenshot({ path: path.join(artifacts, 'no-cipher.png') });
    await page.click('nav a[data-view-link="config"]');
    const label = await page.locator('label[for="cfg-file"]').innerText();
    return (message === 'Нет файла шифра: пароль доступа и файлы .cry недоступны' && password && label === 'Импорт файла config.ini')
      || `${message} | password hidden=${password} | ${label}`;
  });
  await page.close();
}

// The shipped chart library is the pinned package's file, unchanged.
function vendoredLibrary() {
  const shipped = path.join(source, 'js/vendor/uPlot.esm.js');
  const pinned = path.join(path.dirname(new URL(import.meta.url).pathname), 'node_modules/uplot/dist/uPlot.esm.js');
  check('js/vendor/uPlot.esm.js is the pinned uplot package\'s file', fs.existsSync(pinned) && fs.readFileSync(shipped).equals(fs.readFileSync(pinned)),
    `${shipped} differs from ${pinned} (or that is missing)`);
}

async function main() {
  if (!vorcore || !artifacts) fail('usage: console_test.js <vorcore> <vorpanel-sim> <source dir> <artifact dir>');
  if (!fs.existsSync(CHROMIUM)) fail(`${CHROMIUM} is not installed (Debian package "chromium")`);
  const { chromium } = await import('playwright-core').catch(() => fail('playwright-core is missing: run "npm ci" in tests/js'));
  fs.mkdirSync(artifacts, { recursive: true });
  vendoredLibrary();
  const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'vorcore_console_'));
  const work = prepareWorkDir(scratch);
  const bare = path.join(scratch, 'bare');
  fs.mkdirSync(bare);
  fs.cpSync(path.join(source, 'js'), path.join(bare, 'js'), { recursive: true });
  const simLog = path.join(artifacts, 'vorpanel-sim.log');
  const engineLog = path.join(artifacts, 'vorcore.log');
  const bareLog = path.join(artifacts, 'vorcore-no-cipher.log');
  const sim = start(simulator, ['--no-link', '--verbose', '--password', PASSWORD, '--cipher', path.join(work, 'cipher.txt'),
    '--events', String(EVENTS), '--log-records', String(RECORDS)], {}, simLog);
  let engine = null;
  let bareEngine = null;
  let context = null;
  try {
    const pty = await until(() => readText(simLog).split('\n')[0].startsWith('/dev/') && readText(simLog).split('\n')[0], 'simulator', 5000);
    const env = { ...process.env, PATH: `${scratch}/bin:${process.env.PATH}` };
    delete env.SUDO_USER;
    engine = start(vorcore, [], { cwd: work, env }, engineLog);
    const port = await until(() => enginePort(engineLog), 'engine port', 10000).catch((error) => {
      throw new Error(`${error.message} (engine ${engine.exitCode === null ? 'running' : `ended ${engine.exitCode}`}: ${readText(engineLog).slice(-200)})`);
    });
    bareEngine = start(vorcore, [], { cwd: bare, env }, bareLog);
    const barePort = await until(() => enginePort(bareLog), 'second engine port', 10000);
    context = await launch(chromium, scratch);
    const page = context.pages()[0] ?? await context.newPage();
    page.setDefaultTimeout(WAIT);
    await withoutCipher(context, barePort);
    await run(page, port, pty, simLog, scratch);
    for (const [name, figure] of Object.entries(timings)) console.log(`TIME ${name}: median ${figure.median_ms} ms (${figure.runs_ms.join(', ')})`);
    fs.writeFileSync(path.join(artifacts, 'timings.json'), `${JSON.stringify(timings, null, 2)}\n`);
  } catch (error) {
    check('test driver runs to the end', false, error.message);
  } finally {
    await context?.close().catch(() => {});
    engine?.kill('SIGKILL');
    bareEngine?.kill('SIGKILL');
    sim.kill('SIGTERM');
    spawnSync('rm', ['-rf', scratch]);
  }
  console.log(`${counts.passed} passed, ${counts.failed} failed`);
  process.exit(counts.failed ? 1 : 0);
}

main();
