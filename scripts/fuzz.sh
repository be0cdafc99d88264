#!/bin/sh
# Sets up, builds the fuzz targets, and runs them: all of them within 120 seconds (with --long 3600), two at a time, each
# for the same time. --seed N chooses the random numbers; otherwise the clock does. Ends with 1 if anything is found: what
# the target said of it is printed, with the input in base64, and stays in build/fuzz/logs, and the input in
# build/fuzz/found; once mended, it belongs into fuzz/corpus, whose inputs every run starts with. What a run learns stays in build/fuzz/corpus for the next one.
set -eu
cd "$(dirname "$0")/.."

usage() {
  echo "usage: $0 [--long] [--seconds N] [--seed N]" >&2
  exit 2
}
seconds=120
seed=$(date +%s)
while [ $# -gt 0 ]; do
  case $1 in
    --long) seconds=3600 ;;
    --seconds | --seed)
      [ $# -gt 1 ] || usage
      if [ "$1" = --seed ]; then seed=$2; else seconds=$2; fi
      shift
      ;;
    *) usage ;;
  esac
  shift
done
scripts/setup.sh fuzz
scripts/build.sh fuzz

# The stores of the targets, in memory where that is possible.
memory=/dev/shm
[ -w "$memory" ] || memory=${TMPDIR:-/tmp}
TMPDIR=$(mktemp -d "$memory/lumbra-fuzz-XXXXXX")
UBSAN_OPTIONS=print_stacktrace=1
ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer-14)
export TMPDIR UBSAN_OPTIONS ASAN_SYMBOLIZER_PATH
trap 'rm -rf "$TMPDIR"' EXIT
mkdir -p build/fuzz/logs build/fuzz/found

# No single allocation, and not all of them together, may grow with what a file claims.
run() {
  mkdir -p "build/fuzz/corpus/$1"
  "build/fuzz/fuzz/fuzz_$1" -seed="$seed" -max_total_time="$share" -timeout=30 -rss_limit_mb=1024 -malloc_limit_mb=64 \
    -print_final_stats=1 -artifact_prefix="build/fuzz/found/$1-" "build/fuzz/corpus/$1" "fuzz/corpus/$1" \
    >"build/fuzz/logs/$1" 2>&1 &
  fuzzer=$!
  wait $fuzzer && found="" || found=", FOUND: see build/fuzz/logs/$1"
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/logs/$1")
  echo "$1: ${executions:-0} executions$found"
}
run_each() {
  trap 'kill $fuzzer; exit 130' TERM
  for target in "$@"; do run "$target"; done
}

share=$(((seconds + 2) / 3))
echo "seed $seed, $share s for each target"
run_each store_files names record_line >"$TMPDIR/first" &
first=$!
run_each operations module_file inspect >"$TMPDIR/second" &
second=$!
trap 'kill $first $second; wait; exit 130' INT TERM
wait
cat "$TMPDIR/first" "$TMPDIR/second" >"$TMPDIR/all"
cat "$TMPDIR/all"
for target in $(sed -n 's/:.*FOUND.*//p' "$TMPDIR/all"); do tail -n 40 "build/fuzz/logs/$target"; done
awk '{ n += $2 } END { print "total: " n + 0 " executions" }' "$TMPDIR/all"
! grep -q FOUND "$TMPDIR/all"
