#!/usr/bin/env python3
"""curl and headless Chromium read every answer of the running engine. Usage: clients_test.py <vorcore>"""
import os, pathlib, re, struct, subprocess, sys, tempfile, time, zlib

API = "/tuning/device?id=-1&"
JSON = "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n"
BINARY = "\r\nContent-Transfer-Encoding: binary;"
counts = {"passed": 0, "failed": 0}


def check(name, ok, detail=""):
    counts["passed" if ok else "failed"] += 1
    print(("PASS " if ok else "FAIL ") + name + ("" if ok else ": %r" % (detail,)))


def answer(head, body):
    head = "HTTP/1.1 200 OK\r\nConnection: close\r\n" + head + "Content-Length: %d\r\n\r\n" % len(body)
    return head.encode() + body


# An RGBA PNG of one colour: its signature and zero bytes show that the body travels as binary.
def png_image(width, height, rgba):
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    rows = zlib.compress(b"".join(b"\x00" + bytes(rgba) * width for _ in range(height)))
    header = chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0))
    return b"\x89PNG\r\n\x1a\n" + header + chunk(b"IDAT", rows) + chunk(b"IEND", b"")


ICO_PNG = png_image(5, 4, [255, 128, 0, 255])  # the icon holds one PNG image
SVG = b'<svg xmlns="http://www.w3.org/2000/svg" width="7" height="5"><path d="M0 0h7v5H0" fill="#0a0"/></svg>'
INDEX_HTML = b"""<!DOCTYPE html><script src="/app.js"></script><pre>no script</pre>
<img id="png" src="/img/panel.png"><img id="ico" src="/favicon.ico"><img id="svg" src="/img/logo.svg">"""
# Reports the engine's version and, for each image, the size and one pixel that only a decoded image has.
APP_JS = b"""onload = async () => {
  const version = (await (await fetch('/tuning/device?id=-1&version=')).json()).result.version;
  document.querySelector('pre').textContent = [`version=${version}`, ...['png', 'ico', 'svg'].map(id => {
    const image = document.getElementById(id), context = document.createElement('canvas').getContext('2d');
    context.drawImage(image, 0, 0);
    return `${id}=${image.naturalWidth}x${image.naturalHeight} ${context.getImageData(1, 1, 1, 1).data}`;
  })];
};"""
FILES = {"index.html": (INDEX_HTML, "Content-Type: text/html; charset=UTF-8\r\n"), "app.js": (APP_JS, JSON),
         "css/main.css": (b"pre { color: #123; }", "Content-Type: text/css; charset=UTF-8\r\n"),
         "img/panel.png": (png_image(3, 2, [200, 30, 0, 255]), "Content-Type: image/png" + BINARY),
         "favicon.ico": (struct.pack("<3H4B2H2I", 0, 1, 1, 5, 4, 0, 0, 1, 32, len(ICO_PNG), 22) + ICO_PNG,
                         "Content-Type: image/x-icon" + BINARY),
         "img/logo.svg": (SVG, "Content-Type: image/svg+xml" + BINARY)}
STATUS = ('{"result":{"devtype":"","status":"1","statusready":{"rcfg":"0","rmsg":"0","rlog":"0","rupd":"0"},'
          '"progress":{"cfg":"0","msg":"0","log":"0","logmax":"0","upd":"0"},"update":false,'
          '"com":["/dev/ttyUSB0","/dev/ttyACM0"],"sim":"","gsm":"","server":"","power_mode":"",'
          '"power_value":"","power_ext":"","tamper":"","t":"","balance":"","modem":"","xcpu":"",'
          '"learnkey":"","part":[],"ext":[],"ok":[],"lm":[],"ident":"","date":"","time":"",'
          '"temp_server":{"ip":"","port":""}}}')
OK = answer(JSON, b'{"result":"ok","description":""}')


def curl(port, target, *extra):
    """Head and body as curl printed them, or its exit code; retried while the engine is not yet listening."""
    command = ["curl", "-sS", "-D", "-", "--max-time", "5", "--retry", "3", "--retry-connrefused", *extra,
               "http://localhost:%d%s" % (port, target)]
    done = subprocess.run(command, capture_output=True, timeout=30)
    return done.stdout if done.returncode == 0 else done.returncode


def check_curl(port):
    config = '{"config":[{"key":"ws","subvalues":[{"value":"Склад 1","index":1}]}]}'
    cases = [("/" + name, (), answer(head, data)) for name, (data, head) in FILES.items()] + [
        (API + "statusdevice", (), answer(JSON, STATUS.encode())),
        (API + "version=1.0", (), answer(JSON, b'{ "result":{"version":"5.2.22"} }')),
        (API + "nosuchquery", (), b"HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n"),
        (API + "exit", ("-H", "Origin: null"), b"HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n"),
        (API + "configset", ("-H", "Content-Type: application/json", "--data-binary", config), OK),
        # Deliberate: a static file that cannot be read is answered with no bytes at all (curl: empty reply).
        ("/img/missing.png", (), 52)]
    for target, extra, reply in cases:
        got = curl(port, target, *extra)
        check("curl %s %s" % (target, " ".join(extra[:2])), got == reply, got)


def check_chromium(port, root):
    if not os.path.exists("/usr/bin/chromium"):
        return check("chromium is installed (Debian package chromium)", False, "/usr/bin/chromium is missing")
    command = ["/usr/bin/chromium", "--headless", "--no-sandbox", "--dump-dom", "--virtual-time-budget=5000",
               "--user-data-dir=" + root + "/profile", "http://localhost:%d/" % port]
    # Its own session, so that the browser is ended with all of its helper processes.
    browser = subprocess.Popen(command, env=dict(os.environ, HOME=root), stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        dom = browser.communicate(timeout=30)[0].decode("utf-8", "replace")
    finally:
        subprocess.run(["kill", "-KILL", "--", "-%d" % browser.pid], stderr=subprocess.DEVNULL)
        browser.wait()
    report = "version=5.2.22,png=3x2 200,30,0,255,ico=5x4 255,128,0,255,svg=7x5 0,170,0,255"
    check("chromium runs the page's script and decodes its images", "<pre>%s</pre>" % report in dom, dom)


def run(binary, root):
    fakes = {"bin/su": b"#!/bin/sh\n", "bin/ls": b"#!/bin/sh\nprintf '/dev/ttyUSB0\\n/dev/ttyACM0\\n'\n"}
    for name, data in [("work/js/" + name, data) for name, (data, _) in FILES.items()] + list(fakes.items()):
        path = pathlib.Path(root, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        path.chmod(0o755)  # the fake commands must run; the page's files don't mind
    env = dict(os.environ, PATH=root + "/bin:" + os.environ["PATH"], SUDO_USER="installer")
    with open(root + "/console.txt", "w+b") as console:
        engine = subprocess.Popen([binary], cwd=root + "/work", env=env, stdout=console, stderr=console)
        try:
            deadline, port = time.monotonic() + 5, None
            while port is None and time.monotonic() < deadline:
                time.sleep(0.05)
                port = re.search(rb"bind port (\d+)\.\.\.\nsu ", pathlib.Path(console.name).read_bytes())
            port = int(port.group(1)) if port else 0
            check_curl(port)
            check_chromium(port, root)
            check("exit answers, status 0", curl(port, API + "exit") == OK and engine.wait(timeout=5) == 0)
        finally:
            engine.kill()
            engine.wait()


if __name__ == "__main__":
    try:
        with tempfile.TemporaryDirectory(prefix="vorcore_clients_") as scratch:
            run(os.path.abspath(sys.argv[1]), scratch)
    except (OSError, subprocess.SubprocessError) as error:
        check("test driver runs to the end", False, error)
    print("%d passed, %d failed" % (counts["passed"], counts["failed"]))
    sys.exit(1 if counts["failed"] else 0)
