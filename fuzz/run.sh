#!/usr/bin/env bash
# Runs the fuzz targets built in BUILD (cmake -DVORCORE_FUZZ=ON, see `make fuzz`),
# one after the other, each as an unprivileged user (nobody, when run as root)
# in a working directory of its own, BUILD/fuzz-work/<target>/ (or
# /var/tmp/vorcore-fuzz/<target>/ where nobody cannot reach BUILD), that holds
# a copy of the program, of js/, devs/ and the test cipher, its corpus (kept
# from run to run) and the inputs that failed (crash-*, leak-*, timeout-*, oom-*).
#
#   fuzz/run.sh BUILD --seconds N [TARGET...]   each target for N seconds (CI: `make fuzz`)
#   fuzz/run.sh BUILD --runs N [TARGET...]      each target for N executions (`make fuzz-long`)
#
# The corpus starts from fuzz/seeds/<target>/ (inputs of the tests: simulator
# replies, request lines, configuration lines, the overflowing range line) and
# the test data that fits the target. Prints executions and time per target and
# ends non-zero when any target failed; rerun a failing input with
# ./<target>_fuzz <input> in that working directory.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
shift
limit=()
case "${1:-}" in
--seconds) limit=(-max_total_time="$2") ;;
--runs) limit=(-runs="$2") ;;
*)
    echo "usage: fuzz/run.sh BUILD --seconds N | --runs N [TARGET...]" >&2
    exit 2
    ;;
esac
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for program in "$build"/*_fuzz; do targets+=("$(basename "$program" _fuzz)"); done
fi

# Test data that seeds a target beyond its own seeds.
extra_seeds() {
    case "$1" in
    cfg_json) echo "$here/tests/data/config_read.json" ;;
    cfg_file) echo "$here/devs/MS02.ini" ;;
    text) echo "$here/tests/data/events.txt $here/tests/data/log_file.txt $here/tests/data/help.txt" ;;
    esac
}

# Longest input: a request is at most one read of the server's buffer plus a body.
max_len() {
    case "$1" in
    http) echo 65536 ;;
    *) echo 16384 ;;
    esac
}

# Root runs the targets as nobody: a fuzz input that got past a stub could then
# touch nothing that belongs to anyone.
as_user=()
if [ "$(id -u)" -eq 0 ]; then
    as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups --)
fi

work_root="$build/fuzz-work"
mkdir -p "$work_root"
if [ ${#as_user[@]} -gt 0 ] && ! "${as_user[@]}" test -x "$work_root"; then
    work_root=/var/tmp/vorcore-fuzz
    echo "nobody cannot reach $build: the targets work in $work_root"
fi

failed=0
summary=""
for target in "${targets[@]}"; do
    program="$build/${target}_fuzz"
    [ -x "$program" ] || { echo "no fuzz target $program" >&2; exit 2; }
    work="$work_root/$target"
    mkdir -p "$work/corpus" "$work/seeds" "$work/failed"
    rm -rf "$work/js" "$work/devs"
    cp -r "$here/js" "$here/devs" "$work/"
    cp "$here/data/cipher-test.txt" "$work/cipher.txt"
    cp "$program" "$work/"
    cp "$here/fuzz/seeds/$target/"* "$work/seeds/"
    for file in $(extra_seeds "$target"); do cp "$file" "$work/seeds/"; done
    [ ${#as_user[@]} -eq 0 ] || chown -R nobody:nogroup "$work"
    echo "== $target"
    start=$(date +%s)
    status=0
    (cd "$work" && "${as_user[@]}" "./${target}_fuzz" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 \
        -max_len="$(max_len "$target")" -print_final_stats=1 -artifact_prefix="$work/failed/" \
        corpus seeds) >"$work/log.txt" 2>&1 || status=$?
    seconds=$(($(date +%s) - start))
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log.txt" | tail -n 1)
    if [ "$status" -ne 0 ]; then
        failed=1
        grep -E "ERROR|SUMMARY|runtime error|Test unit written" "$work/log.txt" | head -n 8 || true
        result="FAILED (see $work/log.txt and $work/failed/)"
    else
        result="ok"
    fi
    line=$(printf "%-10s %12s executions %7s s  %s" "$target" "${runs:-?}" "$seconds" "$result")
    echo "$line"
    summary+="$line"$'\n'
done
echo
printf "%s" "$summary"
exit "$failed"
