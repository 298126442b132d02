// The engine's JSON API as the console uses it: queries, commands, raw POST bodies and file downloads.
import { t } from './texts.js';

export const API = '/tuning/device?id=-1&';

export class ApiError extends Error {}

// A query that changes nothing may be asked again when its connection failed: a
// connection the browser opened ahead of time can be closed by the engine unused.
function mayRepeat(target, options) {
  return !options.method && !target.includes('cmd=');
}

async function send(target, options = {}) {
  let response;
  for (let attempt = 0; !response; attempt += 1) {
    try {
      response = await fetch(target, { cache: 'no-store', ...options });
    } catch (error) {
      if (attempt >= 2 || !mayRepeat(target, options)) throw new ApiError(t('err.noAnswer'));
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
  }
  if (!response.ok) throw new ApiError(t('err.http', response.status));
  return response;
}

function parseJson(text) {
  try {
    return JSON.parse(text);
  } catch {
    throw new ApiError(`${t('err.badAnswer')}: ${text.slice(0, 120)}`);
  }
}

// A GET query after the API prefix; the parsed JSON, or null for an empty answer.
export async function query(text) {
  const body = await (await send(API + text)).text();
  return body === '' ? null : parseJson(body);
}

// The live status record (the "result" of statusdevice).
export async function status() {
  const answer = await query('statusdevice');
  if (!answer || typeof answer.result !== 'object') throw new ApiError(t('err.badAnswer'));
  answer.result.status = Number(answer.result.status);
  return answer.result;
}

// A device command: resolves to "ok" or "continue", throws the engine's description on "error".
export async function command(n, params = '') {
  const answer = await query(`cmd=${n}${params}`);
  if (answer?.result === 'ok' || answer?.result === 'continue') return answer.result;
  throw new ApiError(answer?.description || t('err.command'));
}

// Values are taken from the target as they stand (only drive= is decoded), so a value
// that the browser would percent-encode or that would end the parameter cannot be sent.
export function isSendableValue(text) {
  return /^[\x21-\x7e]*$/.test(text) && !/[&#"'<>]/.test(text);
}

// The engine reads a POST body as text in which every byte is the UTF-8 form of
// its own code point (0x00-0xFF), and turns it back into bytes.
export function bytesAsText(bytes) {
  let text = '';
  for (let i = 0; i < bytes.length; i += 8192) {
    text += String.fromCharCode.apply(null, bytes.subarray(i, i + 8192));
  }
  return text;
}

// The engine looks for the end of the request head in everything it reads first, up to
// the first zero byte: a blank line or a "Content-Length:" line before it in the body
// would cut or resize the upload. Such a body is refused rather than sent damaged.
export function uploadProblem(bytes) {
  let end = bytes.indexOf(0);
  if (end < 0) end = bytes.length;
  const head = bytesAsText(bytes.subarray(0, end));
  return head.includes('\r\n\r\n') || /Content-(Length|Type):/.test(head);
}

// POSTs a body given as text (sent as UTF-8); the answer as bytes.
export async function post(text, body = '') {
  const response = await send(API + text, {
    method: 'POST',
    headers: { 'Content-Type': 'text/plain; charset=UTF-8' },
    body,
  });
  return new Uint8Array(await response.arrayBuffer());
}

// POSTs an upload and checks the acknowledgement (the outcome shows later in the status).
export async function upload(text, body) {
  const answer = parseJson(new TextDecoder().decode(await post(text, body)));
  if (answer?.result !== 'ok') throw new ApiError(answer?.description || t('err.command'));
}

// A GET whose answer is a file: its bytes, as sent (no charset conversion).
export async function download(text) {
  return new Uint8Array(await (await send(API + text)).arrayBuffer());
}

// A GET whose answer is a file: its bytes and the name the engine gives it (else `fallback`).
export async function downloadNamed(text, fallback) {
  const response = await send(API + text);
  const name = /filename=([^;\s]+)/.exec(response.headers.get('Content-Disposition') ?? '')?.[1] ?? fallback;
  return { name, bytes: new Uint8Array(await response.arrayBuffer()) };
}

// Hands bytes to the browser as a file download.
export function saveFile(name, bytes) {
  const url = URL.createObjectURL(new Blob([bytes], { type: 'application/octet-stream' }));
  const link = document.createElement('a');
  link.href = url;
  link.download = name;
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(url), 10000);
}
