#!/usr/bin/env python3
"""Helpers of tools/demo.sh.

  demo_status.py port PID   the TCP port on which the process listens (nothing if none yet)
  demo_status.py summary    one readable line from the status JSON on standard input;
                            exit status 1 when the input is empty (the engine did not answer)
"""
import json
import os
import sys
import time

LINK_WORDS = {"1": "no link", "2": "port open, panel not ready", "3": "ready", "4": "reading configuration",
              "5": "writing configuration", "6": "reading log", "7": "reading events", "8": "firmware transfer",
              "10": "port closed", "11": ".cry file waits for its password"}


def listening_port(pid):
    inodes = set()
    try:
        for fd in os.listdir("/proc/%s/fd" % pid):
            link = os.readlink("/proc/%s/fd/%s" % (pid, fd))
            if link.startswith("socket:["):
                inodes.add(link[8:-1])
    except OSError:
        return None
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as rows:
                next(rows)
                for row in rows:
                    fields = row.split()
                    if fields[3] == "0A" and fields[9] in inodes:  # 0A: listening
                        return int(fields[1].rsplit(":", 1)[1], 16)
        except OSError:
            continue
    return None


def summary(text):
    try:
        s = json.loads(text)["result"]
    except (ValueError, KeyError, TypeError):
        return "status not readable: " + text[:60]
    status = str(s.get("status"))
    parts = [time.strftime("%H:%M:%S"), "%s (%s)" % (LINK_WORDS.get(status, "status"), status)]

    def add(label, value, unit=""):
        if value:
            parts.append(label + value + unit)

    def joined(*keys):
        return " ".join(str(s.get(k)) for k in keys if s.get(k))

    add("", s.get("devtype"))
    add("power ", joined("power_mode", "power_value", "power_ext"))
    add("GSM ", s.get("gsm"))
    add("server ", s.get("server"))
    add("", s.get("t"), " °C")
    add("panel clock ", joined("date", "time"))
    add("zones ", " ".join("%s:%s" % (z.get("N"), z.get("S")) for z in s.get("lm", [])))
    return " | ".join(parts)


if __name__ == "__main__":
    if sys.argv[1:2] == ["port"] and len(sys.argv) == 3:
        port = listening_port(sys.argv[2])
        if port:
            print(port)
    elif sys.argv[1:] == ["summary"]:
        text = sys.stdin.read()
        if not text:
            sys.exit(1)
        print(summary(text))
    else:
        sys.exit(__doc__)
