#!/usr/bin/env python3
"""How long a configuration read from the panel simulator takes with and without the
configuration history, in alternating rounds so that both see the same machine.

    bench/history_read.py <build dir> [settings] [rounds]

Each round starts one simulator holding the standard configuration plus `settings`
further settings (default 1000), and two engines in turn: one with its history (the
read then writes two snapshots: the image kept before the read clears it, and the
read), one whose working directory holds a plain file named "history" (no history).
Each engine connects, waits for the panel to be ready, then reads the configuration
(cmd=32) and the time until the status shows the read ended (3 again) is taken.
Prints each round and the medians.
"""
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

PREFIX = "/tuning/device?id=-1&"


def wait_for(probe, seconds, what):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = probe()
        if value:
            return value
        time.sleep(0.02)
    raise RuntimeError("timed out waiting for " + what)


def get(port, query):
    with urllib.request.urlopen("http://127.0.0.1:%d%s%s" % (port, PREFIX, query), timeout=10) as answer:
        return answer.read().decode("utf-8", "replace")


def read_once(vorcore, pty, work, with_history):
    """One engine in `work`: connects, reads once; the read's duration in seconds."""
    os.makedirs(os.path.join(work, "bin"))
    with open(os.path.join(work, "bin", "su"), "w") as su:
        su.write("#!/bin/sh\n")
    os.chmod(os.path.join(work, "bin", "su"), 0o755)
    if not with_history:
        open(os.path.join(work, "history"), "w").close()
    env = dict(os.environ, PATH=os.path.join(work, "bin") + ":" + os.environ["PATH"])
    env.pop("SUDO_USER", None)
    env.pop("SUDO_UID", None)
    console = open(os.path.join(work, "console.txt"), "w")
    engine = subprocess.Popen([vorcore], cwd=work, env=env, stdout=console, stderr=subprocess.STDOUT)
    try:
        port = int(wait_for(lambda: re.search(r"localhost:(\d+)", open(os.path.join(work, "console.txt")).read()),
                            5, "the engine's port").group(1))
        get(port, "cmd=11&com=" + pty)
        wait_for(lambda: '"status":"3"' in get(port, "statusdevice"), 10, "the panel")
        started = time.monotonic()
        get(port, "cmd=32")
        wait_for(lambda: '"status":"3"' in get(port, "statusdevice"), 120, "the end of the read")
        took = time.monotonic() - started
        snapshots = get(port, "history").count('"name"')
        if with_history and snapshots < 1:
            raise RuntimeError("the read left no snapshot")
        get(port, "exit")
        engine.wait(5)
        return took
    finally:
        if engine.poll() is None:
            engine.kill()
            engine.wait()
        console.close()


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    build = os.path.abspath(sys.argv[1])
    settings = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    vorcore, simulator = os.path.join(build, "vorcore"), os.path.join(build, "vorpanel-sim")
    scratch = tempfile.mkdtemp(prefix="vorcore_history_read_")
    sim_out = open(os.path.join(scratch, "sim.txt"), "w")
    sim = subprocess.Popen([simulator, "--no-link", "--telemetry-ms", "300", "--settings", str(settings)],
                           stdout=sim_out, stderr=subprocess.STDOUT)
    times = {True: [], False: []}
    try:
        pty = wait_for(lambda: open(os.path.join(scratch, "sim.txt")).readline().strip(), 5, "the simulator")
        for n in range(rounds):
            order = (True, False) if n % 2 == 0 else (False, True)
            for with_history in order:
                work = os.path.join(scratch, "round%d-%s" % (n, "with" if with_history else "without"))
                times[with_history].append(read_once(vorcore, pty, work, with_history))
            print("round %d: with history %.3f s, without %.3f s" % (n + 1, times[True][-1], times[False][-1]))
        print("median of %d rounds, %d further settings: with history %.3f s, without %.3f s"
              % (rounds, settings, statistics.median(times[True]), statistics.median(times[False])))
    finally:
        sim.terminate()
        sim.wait()
        sim_out.close()
        shutil.rmtree(scratch)


if __name__ == "__main__":
    main()
