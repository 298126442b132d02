#!/usr/bin/env python3
# Real clients against the running engine: curl and headless Chromium must read every answer.
#
# Usage: clients_test.py <path of vorcore> <source dir>
#
# The engine runs in a scratch working directory with a small browser
# application under js/. A fake "su" first in PATH records the browser launch
# instead of starting a browser, and a fake "ls" gives a fixed serial port list
# so that the status answer can be compared byte for byte.

import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import zlib

ENGINE_VERSION = "5.2.22"
SUDO_USER = "installer"
FAKE_PORTS = ["/dev/ttyUSB0", "/dev/ttyACM0"]
API = "/tuning/device?id=-1&"
CHROMIUM = "/usr/bin/chromium"
STAMP = r"\d\d:\d\d:\d\d\.\d\d\d "

OK_HEAD = "HTTP/1.1 200 OK\r\nConnection: close\r\n"
NOT_FOUND = b"HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n"
FORBIDDEN = b"HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n"
JSON_OK = b'{"result":"ok","description":""}'


class Results:
    def __init__(self):
        self.passed = 0
        self.failed = 0
        self.skipped = 0

    def check(self, name, ok, detail=""):
        if ok:
            self.passed += 1
            print("PASS " + name)
            return True
        self.failed += 1
        print("FAIL " + name + (": " + detail if detail else ""))
        return False

    def skip(self, name, why):
        self.skipped += 1
        print("SKIP " + name + ": " + why)

    def closing_line(self):
        line = "%d passed, %d failed" % (self.passed, self.failed)
        if self.skipped:
            line += ", %d skipped" % self.skipped
        return line


# ---------------------------------------------------------------------------
# The browser application: small files of every type the engine serves.

def png_image(width, height):
    """An RGBA PNG; its signature and zero bytes test that the body is sent as binary."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    rows = b"".join(b"\x00" + bytes([200, 30, 0, 255]) * width for _ in range(height))
    header = struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows))
            + chunk(b"IEND", b""))


def ico_image(width, height):
    """A classic icon: one 32-bit bitmap with its AND mask."""
    pixels = bytes([0, 128, 255, 255]) * width * height
    mask_row = (width + 31) // 32 * 4
    mask = b"\x00" * mask_row * height
    info = struct.pack("<IiiHHIIiiII", 40, width, height * 2, 1, 32, 0, len(pixels) + len(mask), 0, 0, 0, 0)
    image = info + pixels + mask
    directory = struct.pack("<HHH", 0, 1, 1) + struct.pack("<BBBBHHII", width, height, 0, 0, 1, 32, len(image), 22)
    return directory + image


SVG = ('<svg xmlns="http://www.w3.org/2000/svg" width="7" height="5">'
       '<rect width="7" height="5" fill="#0a0"/></svg>\n').encode()

# No <meta charset>: the Russian text only reads right if the engine's
# Content-Type header carries the charset.
INDEX_HTML = """<!DOCTYPE html>
<html><head><title>vorcore</title>
<link rel="stylesheet" href="/css/main.css">
<link rel="icon" href="/favicon.ico">
<script src="/app.js"></script>
</head><body>
<h1 id="heading">Настройка прибора</h1>
<div id="probe">probe</div>
<img id="png" src="/img/panel.png" alt="">
<img id="ico" src="/favicon.ico" alt="">
<img id="svg" src="/img/logo.svg" alt="">
<iframe id="scenario" src="/scenario/index.html"></iframe>
<pre id="report">script did not run</pre>
</body></html>
""".encode()

SCENARIO_HTML = """<!DOCTYPE html>
<html><head><title>scenario</title></head>
<body><h1 id="title">Сценарии</h1></body></html>
""".encode()

CSS = b"#probe { width: 33px; }\n"

# Runs after every resource has loaded; writes one "key=value" line per
# finding into #report, so that a failed read shows which answer it was.
APP_JS = """'use strict';
const API = '/tuning/device?id=-1&';

async function get_json(query, options) {
  const answer = await fetch(API + query, options);
  return answer.json();
}

// Size and one pixel of a loaded image: only an image that really decoded has them.
function decoded(image) {
  const canvas = document.createElement('canvas');
  canvas.width = image.naturalWidth;
  canvas.height = image.naturalHeight;
  if (!image.complete || !canvas.width || !canvas.height) return 'not decoded';
  const context = canvas.getContext('2d');
  context.drawImage(image, 0, 0);
  const [r, g, b, a] = context.getImageData(1, 1, 1, 1).data;
  return canvas.width + 'x' + canvas.height + ' rgba(' + [r, g, b, a].join(',') + ')';
}

async function findings() {
  const lines = ['script=проверка', 'charset=' + document.characterSet];
  const version = await get_json('version=');
  lines.push('version=' + version.result.version);
  const status = await get_json('statusdevice');
  lines.push('status=' + status.result.status);
  lines.push('com=' + status.result.com.join(','));
  const config = {config: [{key: 'ws', subvalues: [{value: 'Склад 1', index: 1}]}]};
  const posted = await get_json('configset', {method: 'POST', headers: {'Content-Type': 'application/json'},
                                              body: JSON.stringify(config)});
  lines.push('configset=' + posted.result);
  const unknown = await fetch(API + 'nosuchquery');
  lines.push('unknown=' + unknown.status);
  lines.push('css=' + getComputedStyle(document.getElementById('probe')).width);
  for (const id of ['png', 'ico', 'svg']) lines.push(id + '=' + decoded(document.getElementById(id)));
  const scenario = document.getElementById('scenario').contentDocument;
  lines.push('scenario=' + scenario.getElementById('title').textContent);
  return lines.join('\\n');
}

window.addEventListener('load', () => {
  const report = document.getElementById('report');
  findings().then(text => { report.textContent = text; },
                  error => { report.textContent = 'error: ' + error; });
});
""".encode()

STATIC_FILES = {
    "index.html": INDEX_HTML,
    "scenario/index.html": SCENARIO_HTML,
    "css/main.css": CSS,
    "app.js": APP_JS,
    "img/panel.png": png_image(3, 2),
    "favicon.ico": ico_image(5, 4),
    "img/logo.svg": SVG,
}


def write_file(path, data, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(data)
    os.chmod(path, mode)


def make_work_tree(root, source_dir):
    work = os.path.join(root, "work")
    for name, data in STATIC_FILES.items():
        write_file(os.path.join(work, "js", name), data)
    cipher = os.path.join(source_dir, "data", "cipher-test.txt")
    if os.path.exists(cipher):
        shutil.copyfile(cipher, os.path.join(work, "cipher.txt"))
    bin_dir = os.path.join(root, "bin")
    su_log = os.path.join(root, "su.log")
    write_file(os.path.join(bin_dir, "su"),
               ('#!/bin/sh\nprintf \'%%s\\n\' "$@" >> "%s"\n' % su_log).encode(), 0o755)
    listing = "".join(port + "\n" for port in FAKE_PORTS)
    write_file(os.path.join(bin_dir, "ls"), ("#!/bin/sh\nprintf '%s'\n" % listing).encode(), 0o755)
    return work, bin_dir, su_log


# ---------------------------------------------------------------------------
# The engine process

class Engine:
    def __init__(self, binary, root, work, bin_dir):
        self.console_path = os.path.join(root, "console.txt")
        env = dict(os.environ)
        env["PATH"] = bin_dir + os.pathsep + env.get("PATH", "/usr/bin:/bin")
        env["SUDO_USER"] = SUDO_USER
        self.console_file = open(self.console_path, "wb")
        self.process = subprocess.Popen([binary], cwd=work, env=env, stdin=subprocess.DEVNULL,
                                        stdout=self.console_file, stderr=subprocess.STDOUT)

    def console(self):
        with open(self.console_path, "rb") as text:
            return text.read().decode("utf-8", "replace")

    def wait_for_port(self, seconds):
        """The port of the last "bind port N..." line, once the browser launch shows it was bound."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            lines = self.console().splitlines()
            if any(line.startswith("su ") for line in lines):
                ports = [m.group(1) for m in (re.fullmatch(r"bind port (\d+)\.\.\.", l) for l in lines) if m]
                return int(ports[-1]) if ports else 0
            if self.process.poll() is not None:
                return 0
            time.sleep(0.05)
        return 0

    def wait_exit(self, seconds):
        try:
            return self.process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            return None

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.console_file.close()


# ---------------------------------------------------------------------------
# curl

def curl(port, target, extra=(), body=None):
    """Runs curl once; returns (exit code, everything it printed: head then body)."""
    command = ["curl", "-sS", "-D", "-", "--max-time", "5"] + list(extra)
    if body is not None:
        command += ["--data-binary", "@-"]
    command.append("http://localhost:%d%s" % (port, target))
    done = subprocess.run(command, input=body if body is not None else b"", stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=15)
    return done.returncode, done.stdout


def curl_when_listening(port, target):
    """The engine starts listening just after the browser launch: retry a refused connection briefly."""
    deadline = time.monotonic() + 3
    while True:
        code, out = curl(port, target)
        if code != 7 or time.monotonic() > deadline:
            return code, out
        time.sleep(0.05)


def answer(head_lines, body):
    return (OK_HEAD + head_lines + "Content-Length: %d\r\n\r\n" % len(body)).encode() + body


def html_answer(body):
    return answer("Content-Type: text/html; charset=UTF-8\r\n", body)


def css_answer(body):
    return answer("Content-Type: text/css; charset=UTF-8\r\n", body)


def json_answer(body):
    return answer("Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n", body)


# Image heads carry the transfer encoding and the length on one line.
def image_answer(kind, body):
    return answer("Content-Type: %s\r\nContent-Transfer-Encoding: binary;" % kind, body)


def expected_status_json():
    com = ",".join('"%s"' % port for port in FAKE_PORTS)
    return ('{"result":{"devtype":"","status":"1",'
            '"statusready":{"rcfg":"0","rmsg":"0","rlog":"0","rupd":"0"},'
            '"progress":{"cfg":"0","msg":"0","log":"0","logmax":"0","upd":"0"},'
            '"update":false,"com":[' + com + '],'
            '"sim":"","gsm":"","server":"","power_mode":"","power_value":"","power_ext":"","tamper":"",'
            '"t":"","balance":"","modem":"","xcpu":"","learnkey":"",'
            '"part":[],"ext":[],"ok":[],"lm":[],"ident":"","date":"","time":"",'
            '"temp_server":{"ip":"","port":""}}}').encode()


def describe(code, out, expected):
    return "curl exit %d\n  got:      %r\n  expected: %r" % (code, out[:400], expected[:400])


def check_curl(results, name, port, target, expected, extra=(), body=None):
    code, out = curl(port, target, extra, body)
    results.check("curl " + name, code == 0 and out == expected, describe(code, out, expected))


def check_with_curl(results, engine, port):
    version = ('{ "result":{"version":"%s"} }' % ENGINE_VERSION).encode()
    code, out = curl_when_listening(port, API + "version=")
    results.check("curl version query", code == 0 and out == json_answer(version),
                  describe(code, out, json_answer(version)))
    check_curl(results, "version query ignores the sent version", port, API + "version=1.0.0", json_answer(version))

    static = [
        ("root page", "/", html_answer(INDEX_HTML)),
        ("index.html", "/index.html", html_answer(INDEX_HTML)),
        ("scenario page", "/scenario/index.html", html_answer(SCENARIO_HTML)),
        ("css", "/css/main.css", css_answer(CSS)),
        ("script", "/app.js", json_answer(APP_JS)),
        ("png", "/img/panel.png", image_answer("image/png", STATIC_FILES["img/panel.png"])),
        ("ico", "/favicon.ico", image_answer("image/x-icon", STATIC_FILES["favicon.ico"])),
        ("svg", "/img/logo.svg", image_answer("image/svg+xml", SVG)),
    ]
    for name, target, expected in static:
        check_curl(results, "static " + name, port, target, expected)

    check_curl(results, "statusdevice", port, API + "statusdevice", json_answer(expected_status_json()))

    unknown = API + "nosuchquery"
    check_curl(results, "unknown query is 404", port, unknown, NOT_FOUND)
    logged = re.search("^" + STAMP + re.escape("GET UNKNOWN QUERY: " + unknown) + "$", engine.console(), re.M)
    results.check("unknown query is logged", logged is not None, engine.console()[-400:])

    check_curl(results, "cross-site request is refused", port, API + "version=", FORBIDDEN,
               extra=["-H", "Sec-Fetch-Site: cross-site"])
    refused = re.findall("^" + STAMP + "Request refused, Sec-Fetch-Site: cross-site$", engine.console(), re.M)
    results.check("cross-site refusal is logged", len(refused) == 1, engine.console()[-400:])

    config = '{"config":[{"key":"ws","subvalues":[{"value":"Склад 1","index":1}]}]}'.encode()
    check_curl(results, "POST configset", port, API + "configset", json_answer(JSON_OK),
               extra=["-H", "Content-Type: application/json"], body=config)

    # Deliberate: a static file that cannot be read is answered with no bytes at all.
    code, out = curl(port, "/img/missing.png")
    results.check("curl missing static file gets the empty answer", code == 52 and out == b"",
                  "curl exit %d, %r" % (code, out[:200]))


# ---------------------------------------------------------------------------
# Headless Chromium

EXPECTED_REPORT = [
    "script=проверка",
    "charset=UTF-8",
    "version=" + ENGINE_VERSION,
    "status=1",
    "com=" + ",".join(FAKE_PORTS),
    "configset=ok",
    "unknown=404",
    "css=33px",
    "png=3x2 rgba(200,30,0,255)",
    "ico=5x4 rgba(255,128,0,255)",
    "svg=7x5 rgba(0,170,0,255)",
    "scenario=Сценарии",
]


def run_chromium(port, root):
    profile = tempfile.mkdtemp(prefix="profile_", dir=root)
    env = dict(os.environ)
    env["HOME"] = root
    command = [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--user-data-dir=" + profile, "--virtual-time-budget=5000", "--dump-dom",
               "http://localhost:%d/" % port]
    # Its own session, so that a hung browser is ended with all of its helper processes.
    browser = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        dom, _ = browser.communicate(timeout=30)
        return browser.returncode, dom.decode("utf-8", "replace")
    except subprocess.TimeoutExpired:
        browser.kill()
        browser.communicate()
        return None, ""
    finally:
        end_process_group(browser.pid)


def end_process_group(group):
    """Ends the helpers still left in a process group this test started."""
    try:
        os.killpg(group, signal.SIGKILL)
    except ProcessLookupError:
        pass


def check_with_chromium(results, engine, port, root):
    if not os.path.exists(CHROMIUM):
        results.skip("chromium", CHROMIUM + " is not installed; the browser checks did not run")
        return
    code, dom = run_chromium(port, root)
    if not results.check("chromium loads the page and exits", code == 0, "exit %r" % code):
        return
    results.check("chromium decodes the page as UTF-8", "Настройка прибора" in dom, dom[:400])
    found = re.search(r'<pre id="report">(.*?)</pre>', dom, re.S)
    report = found.group(1).split("\n") if found else []
    for line in EXPECTED_REPORT:
        results.check("chromium page reads " + line, line in report, "report: %r" % report)
    refused = re.findall("^" + STAMP + "Request refused", engine.console(), re.M)
    results.check("engine refuses none of the page's requests", len(refused) == 1, engine.console()[-800:])


# ---------------------------------------------------------------------------

def check_browser_launch(results, su_log, port):
    expected = "%s\n-c\nx-www-browser http://localhost:%d\n" % (SUDO_USER, port)
    recorded = ""
    if os.path.exists(su_log):
        with open(su_log) as log:
            recorded = log.read()
    results.check("browser launch goes through su", recorded == expected, "%r, expected %r" % (recorded, expected))


def check_exit(results, engine, port):
    code, out = curl(port, API + "exit")
    results.check("curl exit query", code == 0 and out == json_answer(JSON_OK), describe(code, out, json_answer(JSON_OK)))
    status = engine.wait_exit(5)
    results.check("engine exits with 0 within 5 s", status == 0, "exit status %r" % status)
    results.check("engine closes its listening socket", engine.console().endswith("close listen socket\n"),
                  engine.console()[-400:])


def run(results, binary, source_dir, root):
    work, bin_dir, su_log = make_work_tree(root, source_dir)
    engine = Engine(binary, root, work, bin_dir)
    try:
        port = engine.wait_for_port(5)
        if not results.check("engine binds a port", port > 0, engine.console()):
            return
        check_with_curl(results, engine, port)
        check_with_chromium(results, engine, port, root)
        check_browser_launch(results, su_log, port)
        check_exit(results, engine, port)
    finally:
        engine.kill()
        if results.failed:
            print("---- engine console ----\n" + engine.console())


def main():
    if len(sys.argv) != 3:
        print("usage: clients_test.py <vorcore binary> <source dir>")
        return 2
    binary, source_dir = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    results = Results()
    started = time.monotonic()
    root = tempfile.mkdtemp(prefix="vorcore_clients_")
    try:
        run(results, binary, source_dir, root)
    except (OSError, subprocess.SubprocessError) as error:
        results.check("test driver runs to the end", False, repr(error))
    finally:
        shutil.rmtree(root, ignore_errors=True)
    print("time %.1f s" % (time.monotonic() - started))
    print(results.closing_line())
    return 1 if results.failed else 0


if __name__ == "__main__":
    sys.exit(main())
