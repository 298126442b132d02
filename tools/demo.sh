#!/usr/bin/env bash
# Starts the panel simulator and the engine side by side, connects them the way
# the browser does, and shows the panel's live status until Ctrl+C.
set -u
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$build" && pwd)
run_dir="$build/run"

# The engine's working directory: browser files, model files, cipher data.
mkdir -p "$run_dir/js" "$run_dir/devs"
[ -d "$here/js" ] && cp -r "$here/js/." "$run_dir/js/"
[ -d "$here/devs" ] && cp -r "$here/devs/." "$run_dir/devs/"
[ -f "$run_dir/cipher.txt" ] || cp "$here/data/cipher-test.txt" "$run_dir/cipher.txt"

sim_log="$run_dir/vorpanel-sim.log"
engine_log="$run_dir/vorcore.log"
sim_pid=""
engine_pid=""
port=""

stop_all() {
    if [ -n "$port" ]; then
        curl -s --max-time 2 "http://127.0.0.1:$port/tuning/device?id=-1&exit" >/dev/null 2>&1
    fi
    [ -n "$engine_pid" ] && kill "$engine_pid" 2>/dev/null
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null
    wait 2>/dev/null
    echo
    echo "Stopped. Console output: $engine_log and $sim_log"
}
trap 'stop_all; exit 0' INT TERM

# As root the simulator also appears as /dev/ttyUSB-SIM, like a plugged-in panel.
"$build/vorpanel-sim" >"$sim_log" 2>&1 &
sim_pid=$!
for _ in $(seq 50); do
    pty=$(head -n 1 "$sim_log" 2>/dev/null)
    [ -n "$pty" ] && break
    sleep 0.1
done
if [ -z "${pty:-}" ]; then
    echo "The panel simulator did not start; see $sim_log"
    stop_all
    exit 1
fi
if [ "$(readlink /dev/ttyUSB-SIM 2>/dev/null)" = "$pty" ]; then
    pty=/dev/ttyUSB-SIM
fi
echo "Panel simulator on $pty"

(cd "$run_dir" && exec "$build/vorcore") >"$engine_log" 2>&1 &
engine_pid=$!
for _ in $(seq 50); do
    port=$(sed -n 's/^bind port \([0-9]*\)\.\.\.$/\1/p' "$engine_log" | tail -n 1)
    if [ -n "$port" ] && curl -s --max-time 1 "http://127.0.0.1:$port/tuning/device?id=-1&version=" >/dev/null 2>&1; then
        break
    fi
    port=""
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "The engine did not start; see $engine_log"
    stop_all
    exit 1
fi
echo "Engine listening on http://localhost:$port"

echo "Connecting (the engine prepares the port for 2 s)..."
curl -s "http://127.0.0.1:$port/tuning/device?id=-1&cmd=11&com=$pty"
echo
echo "Live status every 2 s (Ctrl+C ends both programs):"
while true; do
    sleep 2
    if ! curl -s --max-time 3 "http://127.0.0.1:$port/tuning/device?id=-1&statusdevice"; then
        echo "The engine has stopped; see $engine_log"
        stop_all
        exit 1
    fi
    echo
done
