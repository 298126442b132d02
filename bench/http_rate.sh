#!/usr/bin/env bash
# HTTP request rate of two vorcore programs on this machine, measured with wrk
# (Debian package "wrk") on a cheap GET (the version query), in alternating
# rounds so that both see the same machine. Prints each round and the medians.
#
#   bench/http_rate.sh <vorcore-before> <vorcore-after> [seconds-per-round] [rounds]
#
# Each engine serves one request per connection, so wrk reconnects for every
# request: the figure includes accepting and closing the connection.
set -euo pipefail
before=$(realpath "$1")
after=$(realpath "$2")
seconds=${3:-10}
rounds=${4:-5}
command -v wrk >/dev/null || { echo "wrk is not installed (apt-get install wrk)" >&2; exit 1; }

scratch=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT

# Starts one engine in its own directory; prints its port.
start_engine() {
    local name=$1 binary=$2 dir="$scratch/$1" port=""
    mkdir -p "$dir"
    (cd "$dir" && unset SUDO_USER SUDO_UID && exec "$binary" >console.txt 2>&1) &
    pids+=($!)
    for _ in $(seq 50); do
        port=$(sed -n 's/.*x-www-browser http:\/\/localhost:\([0-9]*\).*/\1/p' "$dir/console.txt" 2>/dev/null)
        [ -n "$port" ] && break
        sleep 0.1
    done
    [ -n "$port" ] || { echo "$name did not start" >&2; exit 1; }
    echo "$port"
}

# Requests per second of one wrk run against a port.
rate() {
    wrk -t1 -c8 -d"${seconds}s" "http://127.0.0.1:$1/tuning/device?id=-1&version=" |
        sed -n 's/^Requests\/sec: *\([0-9.]*\)/\1/p'
}

median() {
    sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

port_before=$(start_engine before "$before")
port_after=$(start_engine after "$after")
sleep 0.5
rate "$port_before" >/dev/null  # warm-up, not counted
rate "$port_after" >/dev/null
: >"$scratch/before.txt"
: >"$scratch/after.txt"
for round in $(seq "$rounds"); do
    b=$(rate "$port_before")
    a=$(rate "$port_after")
    echo "round $round: before $b/s, after $a/s"
    echo "$b" >>"$scratch/before.txt"
    echo "$a" >>"$scratch/after.txt"
done
mb=$(median <"$scratch/before.txt")
ma=$(median <"$scratch/after.txt")
echo "median: before $mb/s, after $ma/s, change $(awk -v b="$mb" -v a="$ma" 'BEGIN { printf "%+.1f %%", (a - b) * 100 / b }')"
for port in "$port_before" "$port_after"; do
    curl -s --max-time 2 "http://127.0.0.1:$port/tuning/device?id=-1&exit" >/dev/null || true
done
