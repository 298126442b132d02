#!/usr/bin/env bash
# `make run`'s script stops with the simulator's error and a non-zero exit when
# the simulator cannot start or stops later, instead of showing "no link" for ever.
# Usage: demo_test.sh <source dir> <vorcore>
set -u
source_dir=$1
engine=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

# Each case: a stand-in simulator (a script in place of vorpanel-sim), the line
# the demo must end with.
cases=(
    "never starts|echo 'vorpanel-sim: cannot open a pseudo-terminal' >&2; exit 1|cannot open a pseudo-terminal"
    "stops later|echo /dev/null; sleep 4; echo 'vorpanel-sim: terminal hung up' >&2; exit 1|terminal hung up"
)
for entry in "${cases[@]}"; do
    IFS='|' read -r name body expected <<<"$entry"
    build="$scratch/${name// /-}"
    mkdir -p "$build"
    ln -s "$engine" "$build/vorcore"
    printf '#!/bin/sh\n%s\n' "$body" >"$build/vorpanel-sim"
    chmod +x "$build/vorpanel-sim"
    output=$(timeout 20 "$source_dir/tools/demo.sh" "$build" </dev/null 2>&1)
    status=$?
    if [ "$status" = 0 ] || [ "$status" = 124 ] ||
        ! grep -q "The panel simulator did not start or has stopped: .*$expected" <<<"$output"; then
        echo "FAIL simulator $name: exit $status, output:"
        echo "$output"
        failed=1
    else
        echo "PASS simulator $name: exit $status"
    fi
done
exit $failed
