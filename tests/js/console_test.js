// The web console end to end: headless Chromium drives js/ served by the real engine, which talks to
// the panel simulator on a pseudo-terminal. Every job of the console is done once through the page.
// Usage: node console_test.js <vorcore> <vorpanel-sim> <source dir> <artifact dir>
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const [vorcore, simulator, source, artifacts] = process.argv.slice(2).map((p) => p && path.resolve(p));
const CHROMIUM = '/usr/bin/chromium';
const PASSWORD = '123456';
const WAIT = 15000;
const counts = { passed: 0, failed: 0 };
const timings = {};

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
    acceptDownloads: true,
    env: { ...process.env, HOME: scratch },
  });
}

// Milliseconds from a view's switch to its data on screen, from the console's own marks.
async function viewTime(page, name) {
  return page.evaluate((view) => {
    const ready = performance.getEntriesByType('mark').filter((m) => m.name.startsWith(`view-ready:${view}:`)).pop();
    const open = ready && performance.getEntriesByName(ready.name.replace('ready', 'open'))[0];
    return ready && open ? Math.round(ready.startTime - open.startTime) : -1;
  }, name);
}

async function openView(page, name, shot = `view-${name}.png`) {
  const before = await page.getAttribute(`#view-${name}`, 'data-shown');
  await page.click(`nav a[data-view-link="${name}"]`);
  await until(async () => (await page.getAttribute(`#view-${name}`, 'data-shown')) !== before, `view ${name}`);
  (timings[`switch to ${name}`] ??= []).push(await viewTime(page, name));
  await page.screenshot({ path: path.join(artifacts, shot) });
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

// ---- The jobs, in an installer's order

async function run(page, port, pty, simLog, scratch) {
  const base = `http://127.0.0.1:${port}`;
  await step('first load shows the connection page with Russian labels', page, async () => {
    await page.goto(`${base}/#connection`);
    await until(() => page.getAttribute('#view-connection', 'data-shown'), 'connection view');
    timings['first load (connection page with data)'] = await page.evaluate(() => Math.round(
      performance.getEntriesByType('mark').find((m) => m.name.startsWith('view-ready:'))?.startTime ?? -1));
    await page.screenshot({ path: path.join(artifacts, 'view-connection.png') });
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

  await step('connect warns that the unwritten configuration is kept in the history; the link becomes ready', page, async () => {
    await openView(page, 'connection');
    await clearErrors(page);
    await page.fill('#port-manual', pty);
    await page.click('#connect');
    await until(() => page.locator('#confirm-dialog').isVisible(), 'the warning');
    const warning = await page.locator('#confirm-text').innerText();
    const started = Date.now();
    await page.click('#confirm-dialog button[value="yes"]');
    await until(async () => (await page.getAttribute('#link-state', 'data-state')) === '3', 'link state 3');
    timings['connect until the panel is ready'] = Date.now() - started;
    const state = await page.locator('#conn-state').innerText();
    return (/Сохранена перед очисткой/.test(warning) && /Записать отличия/.test(warning) && state === 'Прибор готов')
      || `${state}: ${warning}`;
  });

  await step('wrong access password shows an error, the right one is accepted', page, async () => {
    await page.click('#password');
    await password(page, '000000');
    await waitError(page, 'Пароль не принят');
    await page.click('#errors .close');
    await page.click('#password');
    await password(page, PASSWORD);
    await waitNote(page, /Пароль принят/);
  });

  await step('live status shows the telemetry', page, async () => {
    await openView(page, 'status');
    await until(async () => (await page.locator('#st-devtype').innerText()) === 'MS02', 'device type');
    const gsm = await page.locator('#st-gsm').innerText();
    const clock = await page.locator('#st-clock').innerText();
    const zones = await page.locator('#status-body table').filter({ hasText: 'Зоны' }).locator('tbody tr').count();
    await page.screenshot({ path: path.join(artifacts, 'readme.png'), clip: { x: 0, y: 0, width: 1280, height: 620 } });
    return (gsm === '87%' && /^\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d$/.test(clock) && zones === 2) || `${gsm} ${clock} ${zones}`;
  });

  await step('read the configuration with progress', page, async () => {
    await clearErrors(page);
    await openView(page, 'config');
    await page.click('#cfg-read');
    await waitNote(page, /Конфигурация прочитана/);
    const progress = await page.locator('#cfg-progress progress').getAttribute('value');
    return ((await configValue(page, 'zn1')) === '5' && progress === '100') || `zn1=${await configValue(page, 'zn1')} progress=${progress}`;
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
    return (setting && end) || `setting=${setting} end=${end}`;
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
    return ((await configValue(page, 'td')) === 'MS02' && name === 'Зона 3') || `td=${await configValue(page, 'td')} ss3=${name}`;
  });

  await step('the filter asks the engine for matching keys only', page, async () => {
    await page.fill('#cfg-filter', 'zn');
    await until(async () => {
      const keys = await page.locator('#cfg-body tr[data-key]').evaluateAll((rows) => rows.map((r) => r.dataset.key));
      return keys.length === 8 && keys.every((k) => k.includes('zn'));
    }, '8 zone rows');
    await page.fill('#cfg-filter', '');
  });

  const DATE = /\d\d\.\d\d\.\d{4}\s+\d\d:\d\d:\d\d/;
  // Reads a list with its button; the number the note gives and the rows of the first page.
  const readList = async (button, done, body) => {
    await page.click(button);
    const total = Number(done.exec(await waitNote(page, done) && await note(page))[1]);
    return [total, await page.locator(`${body} tbody tr`).allInnerTexts()];
  };
  await step('read the log with progress, page it and download it', page, async () => {
    await clearErrors(page);
    await openView(page, 'logs');
    const [total, rows] = await readList('#log-read', /Журнал прочитан: ([1-9]\d*)/, '#log-body');
    const typed = rows.every((r) => DATE.test(r) && /Ошибка|Сообщение|Предупреждение/.test(r));
    let paged = total <= 20;
    if (!paged) {
      await page.click('#log-next');
      paged = await until(async () => (await page.locator('#log-range').innerText()).startsWith('Записи 21–'), 'second page');
    }
    const file = (await download(page, '#log-download')).toString('utf8').split('\r\n').filter(Boolean);
    return (rows.length === Math.min(total, 20) && typed && paged && file[0] === 'Логи прибора:' && file.length === total + 1)
      || `rows=${rows.length} of ${total} typed=${typed} paged=${paged} file lines=${file.length}`;
  });

  await step('read the events with progress and download them', page, async () => {
    const [total, rows] = await readList('#ev-read', /События прочитаны: ([1-9]\d*)/, '#ev-body');
    const coded = rows.every((r) => DATE.test(r) && /\t[ER]\d+\t/.test(r));
    const described = rows.some((r) => /Тревога|Восстановление|питани/i.test(r));
    const file = (await download(page, '#ev-download')).toString('utf8').split('\r\n').filter(Boolean);
    return (rows.length === Math.min(total, 20) && coded && described && file[0] === 'События прибора:' && file.length === total + 1)
      || `rows=${rows.length} of ${total} coded=${coded} described=${described} file lines=${file.length}`;
  });

  const image = firmwareImage(1300);
  await step('upload firmware to 100 %: the simulator receives the image intact', page, async () => {
    await clearErrors(page);
    await openView(page, 'firmware');
    const file = path.join(scratch, 'firmware.bin');
    // A blank line before the first zero byte would end the request head early: refused.
    fs.writeFileSync(file, Buffer.from('IMAGE\r\n\r\n\0rest'));
    await page.setInputFiles('#fw-file', file);
    await page.click('#fw-upload');
    await waitError(page, 'Файл нельзя передать');
    fs.writeFileSync(file, image);
    await page.setInputFiles('#fw-file', file);
    await page.click('#fw-upload');
    await page.click('#confirm-dialog button[value="yes"]');
    await until(async () => (await page.locator('#fw-result').innerText()) === 'Прошивка загружена успешно', 'firmware result', 30000);
    const percent = await page.locator('#fw-progress progress').getAttribute('value');
    // Blocks for the main processor: kind 132 first, then 4; two header bytes each.
    const blocks = simFrames(simLog).map(unprintable).filter((b) => b[4] === 0x42 && (b[5] === 132 || b[5] === 4));
    const received = Buffer.concat(blocks.map((b) => b.subarray(7)));
    return (percent === '100' && received.equals(image)) || `percent=${percent} received ${received.length} of ${image.length}`;
  });

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

  await step('views fit a tablet width without sideways scrolling', page, async () => {
    await page.setViewportSize({ width: 768, height: 1024 });
    const wide = [];
    for (const name of ['status', 'config', 'tools']) {
      await openView(page, name, `tablet-${name}.png`);
      if (await page.evaluate(() => document.documentElement.scrollWidth > innerWidth)) wide.push(name);
    }
    await page.setViewportSize({ width: 1280, height: 800 });
    return wide.length === 0 || `too wide: ${wide}`;
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

  await step('disconnect closes the port', page, async () => {
    await page.click('#disconnect');
    // The template loaded last was not written: kept in the history, after a warning.
    await page.click('#confirm-dialog button[value="yes"]');
    // The engine clears its image on disconnect: status 1, no device.
    await until(async () => (await page.getAttribute('#link-state', 'data-state')) === '1', 'link state 1');
    return (await page.locator('#link-device').innerText()) === '' || 'device still shown';
  });
}

async function main() {
  if (!vorcore || !artifacts) fail('usage: console_test.js <vorcore> <vorpanel-sim> <source dir> <artifact dir>');
  if (!fs.existsSync(CHROMIUM)) fail(`${CHROMIUM} is not installed (Debian package "chromium")`);
  const { chromium } = await import('playwright-core').catch(() => fail('playwright-core is missing: run "npm ci" in tests/js'));
  fs.mkdirSync(artifacts, { recursive: true });
  const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'vorcore_console_'));
  const work = prepareWorkDir(scratch);
  const simLog = path.join(artifacts, 'vorpanel-sim.log');
  const engineLog = path.join(artifacts, 'vorcore.log');
  const sim = start(simulator, ['--no-link', '--verbose', '--password', PASSWORD, '--cipher', path.join(work, 'cipher.txt')], {}, simLog);
  let engine = null;
  let context = null;
  try {
    const pty = await until(() => readText(simLog).split('\n')[0].startsWith('/dev/') && readText(simLog).split('\n')[0], 'simulator', 5000);
    const env = { ...process.env, PATH: `${scratch}/bin:${process.env.PATH}` };
    delete env.SUDO_USER;
    engine = start(vorcore, [], { cwd: work, env }, engineLog);
    const port = await until(() => enginePort(engineLog), 'engine port', 10000).catch((error) => {
      throw new Error(`${error.message} (engine ${engine.exitCode === null ? 'running' : `ended ${engine.exitCode}`}: ${readText(engineLog).slice(-200)})`);
    });
    context = await launch(chromium, scratch);
    const page = context.pages()[0] ?? await context.newPage();
    page.setDefaultTimeout(WAIT);
    await run(page, port, pty, simLog, scratch);
    for (const [name, ms] of Object.entries(timings)) console.log(`TIME ${name}: ${[ms].flat().join(', ')} ms`);
    fs.writeFileSync(path.join(artifacts, 'timings.json'), `${JSON.stringify(timings, null, 2)}\n`);
  } catch (error) {
    check('test driver runs to the end', false, error.message);
  } finally {
    await context?.close().catch(() => {});
    engine?.kill('SIGKILL');
    sim.kill('SIGTERM');
    spawnSync('rm', ['-rf', scratch]);
  }
  console.log(`${counts.passed} passed, ${counts.failed} failed`);
  process.exit(counts.failed ? 1 : 0);
}

main();
