#!/usr/bin/env python3
"""What the link record costs the engine, end to end: the statusdevice rate (measured with wrk,
Debian package "wrk") and the duration of a configuration read from the panel simulator, for an
engine with the record against one built with it switched off, in alternating rounds so that both
see the same machine. Each engine has its own simulator, sending telemetry every 100 ms, so the
record takes lines all the time. Prints each round and the medians.

    cmake -S . -B build-bench-off -DCMAKE_BUILD_TYPE=Release -DVORCORE_BENCH_NO_LINK_RECORD=ON -DVORCORE_TESTS=OFF
    cmake --build build-bench-off --target vorcore
    bench/link_record_cost.py build-bench/vorcore build-bench-off/vorcore build-bench/vorpanel-sim [rounds] [seconds]

Where the machine's spread is wider than the difference sought, --callgrind N runs each engine
once under valgrind's callgrind for the same work (connect, five configuration reads, then N
statusdevice requests one after another, telemetry flowing) and prints the instructions per
request of the whole process, and the instructions spent in the record's own functions (their
self cost: the copies they ask of libc are not counted):

    bench/link_record_cost.py --callgrind 2000 build-bench/vorcore build-bench-off/vorcore build-bench/vorpanel-sim
"""
import http.client
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

READS_PER_ROUND = 5


def get(port, query):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request("GET", "/tuning/device?id=-1&" + query)
    body = connection.getresponse().read().decode("utf-8", "replace")
    connection.close()
    return body


def wait(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"timed out waiting for {what}")
        time.sleep(0.002)


class Engine:
    """One vorcore program in a scratch directory, connected to its own simulator."""

    def __init__(self, name, binary, simulator, scratch, launcher=()):
        self.name = name
        work = os.path.join(scratch, name)
        os.mkdir(work)
        sim_out = open(os.path.join(work, "sim.txt"), "w+")
        self.sim = subprocess.Popen([simulator, "--no-link", "--telemetry-ms", "100"], stdout=sim_out)
        wait(lambda: sim_out.seek(0) == 0 and sim_out.readline().startswith("/dev/"), 5, "the simulator")
        sim_out.seek(0)
        pty = sim_out.readline().strip()
        env = {k: v for k, v in os.environ.items() if k not in ("SUDO_USER", "SUDO_UID")}
        console = os.path.join(work, "console.txt")
        self.work = work
        self.engine = subprocess.Popen([*launcher, os.path.abspath(binary)], cwd=work, env=env,
                                       stdout=open(console, "w"), stderr=subprocess.STDOUT)
        found = []
        def port_shown():
            found[:] = re.findall(r"x-www-browser http://localhost:(\d+)", open(console).read())
            return bool(found)
        wait(port_shown, 60, name + " to listen")
        self.port = int(found[0])
        get(self.port, "cmd=11&com=" + pty)
        wait(lambda: '"status":"3"' in get(self.port, "statusdevice"), 60, name + " to connect")

    def rate(self, seconds):
        out = subprocess.run(["wrk", "-t1", "-c8", f"-d{seconds}s",
                              f"http://127.0.0.1:{self.port}/tuning/device?id=-1&statusdevice"],
                             capture_output=True, text=True).stdout
        return float(re.search(r"Requests/sec:\s*([\d.]+)", out).group(1))

    def read_ms(self):
        """Median of a few reads: from cmd=32 until the status is 3 again (polled every 2 ms)."""
        times = []
        for _ in range(READS_PER_ROUND):
            start = time.monotonic()
            get(self.port, "cmd=32")
            wait(lambda: '"status":"3"' in get(self.port, "statusdevice"), 60, "a configuration read")
            times.append((time.monotonic() - start) * 1000)
        return statistics.median(times)

    def stop(self):
        try:
            get(self.port, "exit")
        except OSError:
            pass
        for process in (self.engine, self.sim):
            process.terminate()
            process.wait()


def callgrind(requests, binaries, simulator):
    """Instructions per statusdevice request under callgrind, and the record's own share."""
    if shutil.which("valgrind") is None:
        sys.exit("valgrind is not installed (apt-get install valgrind)")
    scratch = tempfile.mkdtemp()
    try:
        for name, binary in zip(("on", "off"), binaries):
            out = os.path.join(scratch, name + ".callgrind")
            engine = Engine(name, binary, simulator, scratch,
                            ("valgrind", "--tool=callgrind", "--callgrind-out-file=" + out))
            engine.read_ms()
            for _ in range(requests):
                get(engine.port, "statusdevice")
            engine.stop()
            annotated = subprocess.run(["callgrind_annotate", "--threshold=100", out],
                                       capture_output=True, text=True).stdout
            total = int(re.search(r"([\d,]+) \(100.0%\)\s+PROGRAM TOTALS", annotated).group(1).replace(",", ""))
            own = r"(?:link_record_|RecordedWrite::|\(anonymous namespace\)::(?:append_line|drop_oldest_line|put|ring_ready)\()"
            record = sum(int(n.replace(",", "")) for n in
                         re.findall(r"^\s*([\d,]+) \([^)]*\)\s+\S*?" + own, annotated, re.M))
            print(f"{name}: {total} instructions, {total / requests:.0f} per request; "
                  f"in the record's functions {record} ({record * 100 / total:.2f} %)", flush=True)
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


def main():
    if len(sys.argv) > 1 and sys.argv[1] == "--callgrind":
        callgrind(int(sys.argv[2]), sys.argv[3:5], sys.argv[5])
        return
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    if shutil.which("wrk") is None:
        sys.exit("wrk is not installed (apt-get install wrk)")
    on_binary, off_binary, simulator = sys.argv[1:4]
    rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 5
    seconds = int(sys.argv[5]) if len(sys.argv) > 5 else 5
    scratch = tempfile.mkdtemp()
    engines = []
    try:
        engines = [Engine("on", on_binary, simulator, scratch), Engine("off", off_binary, simulator, scratch)]
        for engine in engines:
            engine.rate(1)  # warm-up, not counted
        results = {"on": {"rate": [], "read": []}, "off": {"rate": [], "read": []}}
        for round_number in range(1, rounds + 1):
            order = engines if round_number % 2 else engines[::-1]
            for engine in order:
                results[engine.name]["rate"].append(engine.rate(seconds))
            for engine in order:
                results[engine.name]["read"].append(engine.read_ms())
            print(f"round {round_number}: statusdevice on {results['on']['rate'][-1]:.0f}/s, "
                  f"off {results['off']['rate'][-1]:.0f}/s; configuration read on "
                  f"{results['on']['read'][-1]:.1f} ms, off {results['off']['read'][-1]:.1f} ms", flush=True)
        for what, unit in (("rate", "/s"), ("read", " ms")):
            on = statistics.median(results["on"][what])
            off = statistics.median(results["off"][what])
            print(f"median {what}: on {on:.1f}{unit}, off {off:.1f}{unit}, change {(on - off) * 100 / off:+.1f} %")
    finally:
        for engine in engines:
            engine.stop()
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()
