#!/usr/bin/env bash
# Starts the panel simulator and the engine side by side, connects them the way
# the console does, prints the console's address (and opens it where there is a
# desktop), and shows the panel's live status in one line until Ctrl+C.
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

# Stops both programs and ends with the simulator's own words, when it has
# ended or never opened its terminal.
simulator_failed() {
    echo "The panel simulator did not start or has stopped: $(head -n 3 "$sim_log" | tr '\n' ' ')"
    stop_all
    exit 1
}

# As root the simulator also appears as /dev/ttyUSB-SIM, like a plugged-in panel.
"$build/vorpanel-sim" >"$sim_log" 2>&1 &
sim_pid=$!
# Its first line is its terminal's path; anything else is its error.
pty=""
for _ in $(seq 50); do
    pty=$(head -n 1 "$sim_log" 2>/dev/null)
    [ -c "$pty" ] && break
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.1
done
if [ ! -c "$pty" ] || ! kill -0 "$sim_pid" 2>/dev/null; then
    simulator_failed
fi
if [ "$(readlink /dev/ttyUSB-SIM 2>/dev/null)" = "$pty" ]; then
    pty=/dev/ttyUSB-SIM
fi
echo "Panel simulator on $pty"

(cd "$run_dir" && exec "$build/vorcore") >"$engine_log" 2>&1 &
engine_pid=$!
# The port is read from the engine's own listening socket, not from its log:
# another engine may hold a port that this one only tried.
for _ in $(seq 50); do
    port=$(python3 "$here/tools/demo_status.py" port "$engine_pid")
    [ -n "$port" ] && break
    kill -0 "$engine_pid" 2>/dev/null || break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "The engine did not start; see $engine_log"
    stop_all
    exit 1
fi

echo "Connecting the engine to the simulator..."
curl -s "http://127.0.0.1:$port/tuning/device?id=-1&cmd=11&com=$pty" >/dev/null
console_url="http://localhost:$port/"
echo
echo "    Console: $console_url"
echo
# Run as root under sudo the engine starts the invoking user's browser itself;
# otherwise the desktop's opener does, where there is a desktop.
engine_opens=""
[ "$(id -u)" = 0 ] && [ -n "${SUDO_USER:-}" ] && engine_opens=yes
if [ -z "$engine_opens" ] && [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && command -v xdg-open >/dev/null; then
    xdg-open "$console_url" >/dev/null 2>&1 &
fi
echo "Live status every 2 s (Ctrl+C ends both programs):"
while true; do
    kill -0 "$sim_pid" 2>/dev/null || { echo; simulator_failed; }
    if ! line=$(curl -s --max-time 3 "http://127.0.0.1:$port/tuning/device?id=-1&statusdevice" |
        python3 "$here/tools/demo_status.py" summary); then
        # A busy engine (a connect waits up to 2 s for stty) is asked again.
        if kill -0 "$engine_pid" 2>/dev/null; then
            sleep 1
            continue
        fi
        # The engine ends by itself after the exit query or 15 s without a
        # request; that is a normal end, a crash is not.
        if wait "$engine_pid"; then
            engine_pid=""
            echo
            echo "The engine has ended."
            stop_all
            exit 0
        fi
        echo
        echo "The engine has stopped; see $engine_log"
        stop_all
        exit 1
    fi
    if [ -t 1 ]; then printf '\r\033[K%s' "$line"; else echo "$line"; fi
    sleep 2
done
