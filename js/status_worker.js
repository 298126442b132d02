// Polls the engine's live status about once a second from a worker, whose timers a
// background tab does not slow down; the polling also keeps the engine running.
const TARGET = '/tuning/device?id=-1&statusdevice';
const PERIOD_MS = 1000;
const RETRY_MS = 300;
let failures = 0;

async function poll() {
  try {
    const response = await fetch(TARGET, { cache: 'no-store' });
    if (!response.ok) throw new Error(`HTTP ${response.status}`);
    const answer = JSON.parse(await response.text());
    answer.result.status = Number(answer.result.status);
    postMessage({ status: answer.result });
    failures = 0;
  } catch (error) {
    // One failed connection is retried soon; a second one in a row is reported.
    failures += 1;
    if (failures > 1) postMessage({ error: String(error.message || error) });
  }
  setTimeout(poll, failures ? RETRY_MS : PERIOD_MS);
}

poll();
