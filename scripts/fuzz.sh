#!/usr/bin/env bash
# Runs one libFuzzer target for as long as asked: scripts/fuzz.sh TARGET SECONDS [libFuzzer options]
# TARGET is a folder name under tests/fuzz/corpus (control, ...). Builds the fuzz preset's target
# first. New inputs go to build/fuzz/long-corpus/TARGET (the seeds in the tree stay as they are);
# a finding is written to build/fuzz/findings/ and makes the script fail. libFuzzer also leaves
# "slow-unit-*" files there: inputs that took long on a busy machine, not findings.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -lt 2 ]; then
  echo "usage: scripts/fuzz.sh TARGET SECONDS [libFuzzer options]" >&2
  echo "targets: $(ls tests/fuzz/corpus | tr '\n' ' ')" >&2
  exit 2
fi
target="$1"
seconds="$2"
shift 2
[ -d "tests/fuzz/corpus/$target" ] || { echo "fuzz: no target $target" >&2; exit 2; }
bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${target}_fuzzer"
work="build/fuzz/long-corpus/$target"
findings="build/fuzz/findings"
mkdir -p "$work" "$findings"
dict=()
[ -f "tests/fuzz/$target.dict" ] && dict=("-dict=tests/fuzz/$target.dict")
echo "fuzz: $target for $seconds s; corpus $work"
# An input takes well under a second; the generous timeout is for shared machines, where a run
# under nice 19 can be starved of the CPU for tens of seconds (a later -timeout=N overrides it).
exec "build/fuzz/tests/fuzz/${target}_fuzzer" -max_total_time="$seconds" -timeout=120 -rss_limit_mb=4096 \
  -print_final_stats=1 -artifact_prefix="$findings/$target-" "${dict[@]}" "$@" "$work" "tests/fuzz/corpus/$target"
