#!/usr/bin/env bash
# The Debian package as a site meets it: install with apt-get, the demo run
# from the installed files only, an upgrade that keeps a site's own model files,
# the launcher's line when every port is taken, then removal and purge that
# leave nothing behind but the site's cipher file.
# Run as root where vorcore is not installed: install_check.sh <vorcore_*.deb>
set -u
deb=$(readlink -f "${1:?usage: install_check.sh <vorcore_*.deb>}")
work=$(mktemp -d)
failures=0
trap 'rm -rf "$work"' EXIT

pass() { echo "PASS $*"; }
fail() {
    echo "FAIL $*"
    failures=$((failures + 1))
}
expect() { # description, command...
    local what=$1
    shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}
# Waits up to N tenths of a second for the command to succeed.
wait_for() {
    local tenths=$1 _
    shift
    for _ in $(seq "$tenths"); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

if [ "$(id -u)" != 0 ]; then
    echo "FAIL the package check installs a package: run it as root"
    exit 1
fi
if dpkg-query -W -f='${Status}' vorcore 2>/dev/null | grep -q installed; then
    echo "FAIL vorcore is installed already: purge it before the check"
    exit 1
fi
for tool in apt-get curl unshare ip python3; do
    command -v "$tool" >/dev/null || { echo "FAIL the check needs $tool"; exit 1; }
done
export DEBIAN_FRONTEND=noninteractive

# ---- Install: the files where an administrator expects them.
(cd "$(dirname "$deb")" && apt-get install -y -qq "./$(basename "$deb")" >"$work/apt.log" 2>&1)
installed() { dpkg-query -W -f='${Status}' vorcore 2>/dev/null | grep -q "install ok installed"; }
expect "apt-get install ./$(basename "$deb")" installed
dpkg -L vorcore | sort >"$work/files"
for path in /usr/bin/vorcore /usr/bin/vorpanel-sim /usr/bin/pk7dump /usr/bin/vorcore-console /usr/share/vorcore/js/index.html \
    /usr/share/vorcore/devs/MS02.ini /usr/share/vorcore/cipher-test.txt /usr/share/doc/vorcore/copyright \
    /usr/share/doc/vorcore/changelog.Debian.gz /usr/share/doc/vorcore/README.md \
    /usr/share/doc/vorcore/docs/api.md /usr/share/applications/vorcore.desktop; do
    [ -f "$path" ] || fail "installed: $path"
done
while read -r program; do
    [ -f "/usr/share/man/man1/$(basename "$program").1.gz" ] || fail "manual page of $program"
done < <(grep '^/usr/bin/.' "$work/files")
expect "working folder owned by root, writable by root only" \
    test "$(stat -c '%U %G %a' /var/lib/vorcore /var/lib/vorcore/devs | sort -u)" = "root root 755"
expect "working folder links to the console and the site's cipher file" \
    test "$(readlink /var/lib/vorcore/js) $(readlink /var/lib/vorcore/cipher.txt)" = \
    "/usr/share/vorcore/js /etc/vorcore/cipher.txt"
expect "working folder holds the shipped model files" \
    cmp -s /usr/share/vorcore/devs/MS02.ini /var/lib/vorcore/devs/MS02.ini

# ---- Upgrade: a shipped model file is renewed, a site's own is kept.
echo "edited" >/var/lib/vorcore/devs/MS02.ini
echo "site model" >/var/lib/vorcore/devs/SITE01.ini
(cd "$(dirname "$deb")" && apt-get install -y -qq --reinstall "./$(basename "$deb")" >>"$work/apt.log" 2>&1)
expect "upgrade renews the shipped model file" cmp -s /usr/share/vorcore/devs/MS02.ini /var/lib/vorcore/devs/MS02.ini
expect "upgrade keeps a site's model file" test "$(cat /var/lib/vorcore/devs/SITE01.ini)" = "site model"

# The site's cipher file: kept through purge. A stand-in when there is none.
site_cipher=/etc/vorcore/cipher.txt
own_cipher=""
if [ ! -e "$site_cipher" ]; then
    install -m 0600 /usr/share/vorcore/cipher-test.txt "$site_cipher"
    own_cipher=yes
fi
cipher_sum=$(sha256sum <"$site_cipher")

# ---- The demo from the installed files only: a bare environment, outside any source tree.
demo_log="$work/demo.log"
(cd "$work" && exec env -i PATH=/usr/bin:/bin HOME="$work" vorcore-console --demo --no-browser) >"$demo_log" 2>&1 &
launcher=$!
console_line() { grep -q "console at http://localhost:[0-9]*/" "$demo_log"; }
if ! wait_for 200 console_line; then
    fail "demo: no console address within 20 s"
    cat "$demo_log"
else
    port=$(grep -o "console at http://localhost:[0-9]*/" "$demo_log" | grep -o "[0-9]*" | head -n 1)
    demo_dir=$(sed -n 's/^vorcore-console: demo in \(.*\) (removed at the end)$/\1/p' "$demo_log")
    api="http://127.0.0.1:$port/tuning/device?id=-1&"
    engine_pid=""
    for pid in $(pgrep -x vorcore); do
        [ "$(readlink "/proc/$pid/cwd")" = "$demo_dir" ] && engine_pid=$pid
    done
    expect "demo: the engine is /usr/bin/vorcore in the demo's own folder" \
        test "$(readlink "/proc/$engine_pid/exe" 2>/dev/null)" = /usr/bin/vorcore
    expect "demo: version query" test "$(curl -s --max-time 5 "${api}version=")" = \
        "{ \"result\":{\"version\":\"$(dpkg-query -W -f='${Version}' vorcore)\"} }"
    curl -s --max-time 5 -o "$work/index.html" "http://127.0.0.1:$port/"
    expect "demo: / is the installed console's page" cmp -s "$work/index.html" /usr/share/vorcore/js/index.html
    status_ready() { curl -s --max-time 3 "${api}statusdevice" | grep -q '"status":"3"'; }
    expect "demo: the simulated panel reaches status 3" wait_for 200 status_ready
    curl -s --max-time 5 "${api}exit" >/dev/null
    launcher_ended() { ! kill -0 "$launcher" 2>/dev/null; }
    expect "demo: the launcher ends with the engine" wait_for 200 launcher_ended
    wait "$launcher"
    expect "demo: exit status 0" test $? = 0
    expect "demo: its folder is removed" test ! -e "$demo_dir"
    expect "demo: no simulator left" test -z "$(pgrep -f "^/usr/bin/vorpanel-sim --no-link$")"
fi
kill "$launcher" 2>/dev/null

# ---- Every port taken (in a network namespace of its own): one line says so.
# shellcheck disable=SC2016  # the inner script's own variables
unshare -n bash -c '
    ip link set lo up
    python3 -c "
import socket, sys, time
held = []
for port in range(8080, 8100):
    s = socket.socket(); s.bind((\"127.0.0.1\", port)); s.listen(); held.append(s)
print(\"held\", flush=True)
time.sleep(30)" >"$0/held" & holder=$!
    for _ in $(seq 50); do [ -s "$0/held" ] && break; sleep 0.1; done
    timeout 20 vorcore-console --demo --no-browser >"$0/ports.log" 2>&1
    echo $? >"$0/ports.status"
    kill $holder' "$work"
expect "every port taken: the launcher says so and fails" test "$(cat "$work/ports.status")" = 1 -a \
    "$(tail -n 1 "$work/ports.log")" = \
    "vorcore-console: ports 8080 to 8099 are all in use by other programs: end one of them and start again"

# ---- Removal leaves nothing in /usr; purge leaves nothing but the site's cipher file.
apt-get remove -y -qq vorcore >>"$work/apt.log" 2>&1
left=""
while read -r path; do
    case $path in /usr/*) [ -L "$path" ] || [ -f "$path" ] && left="$left $path" ;; esac
done <"$work/files"
expect "remove: nothing of the package left in /usr${left:+ (left:$left)}" test -z "$left"
expect "remove: the shared folders are gone" test ! -e /usr/share/vorcore -a ! -e /usr/share/doc/vorcore
apt-get purge -y -qq vorcore >>"$work/apt.log" 2>&1
expect "purge: the package is gone" test -z "$(dpkg-query -W -f='${Status}' vorcore 2>/dev/null)"
expect "purge: the working folder is gone" test ! -e /var/lib/vorcore
expect "purge: the site's cipher file is kept" test "$(sha256sum <"$site_cipher")" = "$cipher_sum"
expect "purge: nothing else left in /etc/vorcore" test "$(ls -A /etc/vorcore)" = cipher.txt
if [ -n "$own_cipher" ]; then
    rm -f "$site_cipher"
    rmdir /etc/vorcore
fi

if [ "$failures" != 0 ]; then
    echo "$failures package checks failed; apt-get said:"
    cat "$work/apt.log"
    exit 1
fi
echo "package checks passed"
