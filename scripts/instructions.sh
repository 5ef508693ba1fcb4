#!/bin/sh
# Instructions per device operation, counted by callgrind (Debian package valgrind): unlike the
# benchmarks' timings, the count does not move with the virtual machine's speed, so it shows what
# a change to the data path saves in the same figure every time.
#   scripts/instructions.sh [BUILD_DIR]   (default build/default; needs softhca_ops built)
set -eu
build=${1:-build/default}
ops="$build/bench/softhca_ops"
[ -x "$ops" ] || { echo "build $ops first (cmake --build --preset default --target softhca_ops)" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "valgrind is needed (apt-get install valgrind)" >&2; exit 1; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
count() {
    n=$1
    shift
    # The operations' thread only (its dump at the markers): the engine's thread, which may spin
    # for a kick now and then, would make the count depend on timing.
    valgrind --tool=callgrind --separate-threads=yes --instr-atstart=no --callgrind-out-file="$dir/out.%p" \
        "$ops" "$@" >/dev/null 2>&1
    total=$(cat "$dir"/out.*.1-01 | awk '/^totals:/ {s += $2} END {print s}')
    rm -f "$dir"/out.*
    echo "$*: $((total / n)) instructions per ${unit:-operation}"
}
count 2000 write 64 2000
count 2000 write 65536 2000
count 2000 pingpong 2000
count 2000 rate 2000
# Windows of 64 single posts and lists of 64 sends: the count is per message.
unit=message count 64000 window 1000
unit=message count 64000 list 1000
