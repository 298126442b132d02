#!/usr/bin/env python3
"""The engine's HTTP side against nginx, on this machine.

  bench/http_bench.py [--before OLD_VORCORE] [--seconds S] [--rounds N] [--skip-idle] BUILD_DIR

BUILD_DIR holds the vorcore and vorpanel-sim programs to measure. Each engine
runs in a scratch directory with the console's files, a 20 KB script and a
simulated panel connected and ready; a worker polls its status once a second,
as the console does. nginx (Debian package, one worker, keepalive_timeout 0)
serves the same bodies from files. Reported, with the machine:

  rate     requests per second measured with wrk (Debian package), every
           request on its own connection ("Connection: close"), with 1 and 4
           clients, for the version query, the status with the panel ready and
           the 20 KB script: the median of N rounds, the servers taking turns
           within each round so that all see the same machine
  memory   resident memory of each engine before the load and after it, once
           idle for 5 s
  idle     CPU time of each engine over 60 s with only the status poll and the
           panel's telemetry, in % of one core
  connect  command 11 (connect) answered, the median and the slowest of 10,
           and the slowest answer to the status polled meanwhile every 10 ms
"""
import argparse
import http.client
import os
import platform
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

API = "/tuning/device?id=-1&"
SCRIPT_BYTES = 20 * 1024


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def listening_port(pid):
    """The TCP port on which the process listens, read from /proc (None if none yet)."""
    inodes = set()
    try:
        for fd in os.listdir("/proc/%d/fd" % pid):
            link = os.readlink("/proc/%d/fd/%s" % (pid, fd))
            if link.startswith("socket:["):
                inodes.add(link[8:-1])
    except OSError:
        return None
    with open("/proc/net/tcp") as rows:
        next(rows)
        for row in rows:
            fields = row.split()
            if fields[3] == "0A" and fields[9] in inodes:
                return int(fields[1].rsplit(":", 1)[1], 16)
    return None


def get(port, target, timeout=5):
    """(seconds taken, body) of one GET on its own connection."""
    start = time.monotonic()
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    conn.request("GET", target, headers={"Host": "localhost:%d" % port})
    body = conn.getresponse().read()
    conn.close()
    return time.monotonic() - start, body


def wait_until(condition, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.05)
    return False


def script_text():
    """A script of exactly SCRIPT_BYTES bytes."""
    lines, size, n = [], 0, 0
    while size < SCRIPT_BYTES:
        line = "export const line%05d = 'the same bytes from the engine and from nginx';\n" % n
        lines.append(line)
        size += len(line)
        n += 1
    return "".join(lines)[:SCRIPT_BYTES - 1] + "\n"


class Engine:
    """One vorcore program with its own simulated panel, connected and ready."""

    def __init__(self, name, vorcore, sim, scratch, source):
        self.name = name
        self.dir = os.path.join(scratch, name)
        shutil.copytree(os.path.join(source, "js"), os.path.join(self.dir, "js"))
        with open(os.path.join(self.dir, "js", "bench20k.js"), "w") as f:
            f.write(script_text())
        self.sim = subprocess.Popen([sim, "--no-link"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.pty = self.sim.stdout.readline().strip()
        env = {k: v for k, v in os.environ.items() if k not in ("SUDO_USER", "SUDO_UID")}
        self.console = open(os.path.join(self.dir, "console.txt"), "w")
        self.proc = subprocess.Popen([vorcore], cwd=self.dir, env=env, stdout=self.console, stderr=subprocess.STDOUT)
        self.port = None
        if not wait_until(lambda: self._port_known(), 5):
            raise SystemExit("%s did not start" % name)
        self.polling = True
        self.poller = threading.Thread(target=self._poll, daemon=True)
        self.poller.start()

    def _port_known(self):
        self.port = listening_port(self.proc.pid)
        return self.port is not None

    def _poll(self):
        # The console's once-a-second status poll; it also keeps the engine running.
        while self.polling:
            try:
                get(self.port, API + "statusdevice")
            except OSError:
                pass
            time.sleep(1)

    def status(self):
        return get(self.port, API + "statusdevice")[1]

    def connect(self):
        """Seconds until command 11 was answered; waits until the panel is ready."""
        took, body = get(self.port, API + "cmd=11&com=" + self.pty)
        if b'"ok"' not in body:
            raise SystemExit("%s: connect refused: %r" % (self.name, body))
        if not wait_until(lambda: b'"status":"3"' in self.status(), 10):
            raise SystemExit("%s: the panel did not become ready" % self.name)
        return took

    def disconnect(self):
        get(self.port, API + "cmd=11")

    def rss_kib(self):
        with open("/proc/%d/status" % self.proc.pid) as f:
            return int(re.search(r"VmRSS:\s*(\d+)", f.read()).group(1))

    def cpu_seconds(self):
        with open("/proc/%d/stat" % self.proc.pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def targets(self):
        return {"version": API + "version=", "status": API + "statusdevice", "script": "/bench20k.js"}

    def stop(self):
        self.polling = False
        try:
            get(self.port, API + "exit", timeout=2)
        except OSError:
            pass
        for proc in (self.proc, self.sim):
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
        self.sim.kill()
        self.console.close()


class Nginx:
    """nginx with one worker serving the engine's bodies from files."""

    def __init__(self, scratch, bodies):
        self.name = "nginx"
        root = os.path.join(scratch, "nginx", "root")
        os.makedirs(root)
        for name, body in bodies.items():
            with open(os.path.join(root, name), "wb") as f:
                f.write(body)
        self.port = free_port()
        prefix = os.path.join(scratch, "nginx")
        conf = os.path.join(prefix, "nginx.conf")
        temp = "".join("%s_temp_path %s/%s;\n" % (kind, prefix, kind)
                       for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(conf, "w") as f:
            f.write("worker_processes 1;\ndaemon off;\npid %s/nginx.pid;\nerror_log %s/error.log;\n"
                    "events { worker_connections 1024; }\n"
                    "http {\naccess_log off;\nkeepalive_timeout 0;\ndefault_type application/javascript;\n%s"
                    "server { listen 127.0.0.1:%d; root %s; }\n}\n" % (prefix, prefix, temp, self.port, root))
        os.chmod(scratch, 0o755)
        self.proc = subprocess.Popen(["nginx", "-p", prefix, "-e", prefix + "/error.log", "-c", conf],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if not wait_until(lambda: self._answers(), 5):
            raise SystemExit("nginx did not start (see %s/error.log)" % prefix)

    def _answers(self):
        try:
            return get(self.port, "/version")[1] != b""
        except OSError:
            return False

    def targets(self):
        return {"version": "/version", "status": "/status", "script": "/bench20k.js"}

    def stop(self):
        self.proc.send_signal(signal.SIGQUIT)
        try:
            self.proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self.proc.kill()


def wrk_rate(port, target, clients, seconds):
    out = subprocess.run(["wrk", "-t1", "-c%d" % clients, "-d%ds" % seconds, "-H", "Connection: close",
                          "http://127.0.0.1:%d%s" % (port, target)], capture_output=True, text=True).stdout
    rate = re.search(r"Requests/sec:\s*([\d.]+)", out)
    errors = re.search(r"Socket errors: (.*)", out)
    non2xx = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    if not rate or non2xx:
        raise SystemExit("wrk failed on port %d%s:\n%s" % (port, target, out))
    if errors:
        print("    (wrk on %s: socket errors %s)" % (target, errors.group(1)))
    return float(rate.group(1))


def machine():
    model = "unknown CPU"
    with open("/proc/cpuinfo") as f:
        found = re.search(r"model name\s*:\s*(.*)", f.read())
        if found:
            model = found.group(1)
    load = os.getloadavg()
    return "%d cores of %s, %s, load average %.1f %.1f %.1f" % (
        os.cpu_count(), model, platform.release(), load[0], load[1], load[2])


def measure_rates(servers, seconds, rounds):
    print("\nRequests per second, median of %d rounds of %d s (each round: %s in turn)"
          % (rounds, seconds, ", ".join(s.name for s in servers)))
    header = "%-8s %-7s" % ("target", "clients") + "".join("%12s" % s.name for s in servers)
    header += "".join("%14s" % (s.name + "/nginx") for s in servers if s.name != "nginx")
    print(header)
    for target in ("version", "status", "script"):
        for clients in (1, 4):
            for s in servers:  # warm-up, not counted
                wrk_rate(s.port, s.targets()[target], clients, 1)
            rates = {s.name: [] for s in servers}
            for _ in range(rounds):
                for s in servers:
                    rates[s.name].append(wrk_rate(s.port, s.targets()[target], clients, seconds))
            medians = {name: statistics.median(values) for name, values in rates.items()}
            line = "%-8s %-7d" % (target, clients) + "".join("%12.0f" % medians[s.name] for s in servers)
            line += "".join("%13.2fx" % (medians[s.name] / medians["nginx"]) for s in servers if s.name != "nginx")
            print(line, flush=True)
            spread = ", ".join("%s %.0f-%.0f" % (n, min(v), max(v)) for n, v in rates.items())
            print("%16s(ranges: %s)" % ("", spread), flush=True)


def measure_connect(engine):
    """Command 11 answered, 10 times, while the status is polled every 10 ms."""
    slowest_poll = [0.0]
    polling = [True]

    def poll():
        while polling[0]:
            took, _ = get(engine.port, API + "statusdevice")
            slowest_poll[0] = max(slowest_poll[0], took)
            time.sleep(0.01)

    poller = threading.Thread(target=poll)
    poller.start()
    answered = []
    for _ in range(10):
        engine.disconnect()
        time.sleep(0.2)
        answered.append(engine.connect())
    polling[0] = False
    poller.join()
    return statistics.median(answered), max(answered), slowest_poll[0]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", help="build directory holding vorcore and vorpanel-sim")
    parser.add_argument("--before", help="another vorcore program to measure alongside")
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--skip-idle", action="store_true", help="leave out the 60 s idle measurement")
    args = parser.parse_args()
    for tool in ("wrk", "nginx"):
        if shutil.which(tool) is None and not os.path.exists("/usr/sbin/" + tool):
            raise SystemExit("%s is not installed (apt-get install %s)" % (tool, tool))
    os.environ["PATH"] += ":/usr/sbin"
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    build = os.path.abspath(args.build)
    sim = os.path.join(build, "vorpanel-sim")
    scratch = tempfile.mkdtemp(prefix="vorcore_bench_")
    servers = []
    # Stopped from outside (or with Ctrl+C where a background start ignores it), the servers go too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    try:
        engines = [Engine("engine", os.path.join(build, "vorcore"), sim, scratch, source)]
        if args.before:
            engines.append(Engine("before", os.path.abspath(args.before), sim, scratch, source))
        servers += engines
        print("Machine: " + machine())
        connect_first = [e.connect() for e in engines]
        print("First connect answered after " + ", ".join(
            "%s %.0f ms" % (e.name, t * 1000) for e, t in zip(engines, connect_first)))
        rss_before = {e.name: e.rss_kib() for e in engines}
        bodies = {"version": get(engines[0].port, engines[0].targets()["version"])[1],
                  "status": engines[0].status(),
                  "bench20k.js": script_text().encode()}
        servers.append(Nginx(scratch, bodies))
        measure_rates(servers, args.seconds, args.rounds)

        time.sleep(5)
        print("\nResident memory: " + "; ".join(
            "%s %.1f MiB before the load, %.1f MiB after it and 5 s idle"
            % (e.name, rss_before[e.name] / 1024, e.rss_kib() / 1024) for e in engines))
        if not args.skip_idle:
            start = {e.name: e.cpu_seconds() for e in engines}
            time.sleep(60)
            print("Idle CPU over 60 s (status polled once a second, panel telemetry once a second): " + "; ".join(
                "%s %.2f %%" % (e.name, (e.cpu_seconds() - start[e.name]) * 100 / 60) for e in engines))
        for e in engines:
            median, slowest, slowest_poll = measure_connect(e)
            print("Connect (command 11) answered in %.0f ms (median of 10, slowest %.0f ms); "
                  "slowest status answer meanwhile %.0f ms [%s]"
                  % (median * 1000, slowest * 1000, slowest_poll * 1000, e.name))
    finally:
        for s in servers:
            s.stop()
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()
