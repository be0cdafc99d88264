#!/bin/sh
# Runs the fault programme: every call that fails, every moment at which the process or the power goes, every bit, and
# threads and kills; then the fuzzing. A sample of the cases, or with --long all of them. --seed N repeats a run.
set -eu
cd "$(dirname "$0")/.."

seed=$(($(date +%s) % 100000))
long=
while [ $# -gt 0 ]; do
  case $1 in
    --long) long=--long ;;
    --seed)
      seed=${2:?a number}
      shift
      ;;
    *)
      echo "usage: $0 [--long] [--seed N]" >&2
      exit 2
      ;;
  esac
  shift
done
echo "fault programme: seed $seed"

# Where folders live in memory a run spends its time in the store.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi

# All kinds as released; those that walk on bad ground also with the address sanitizer; the threads with the other one.
# Stores keep their usual 16 MiB of files in memory, 16 blocks, or nothing.
failed=0
for preset in release asan tsan; do
  scripts/build.sh "$preset" lumbra_faults
  case $preset in
    release) kinds= cache=16384 ;;
    asan) kinds="calls allocations moments bits heals" cache=16 ;;
    tsan) kinds=threads cache=16 ;;
  esac
  sampled=$long
  [ "$preset" != asan ] || sampled=
  "build/$preset/tests/lumbra_faults" --cache $cache --seed "$seed" $sampled $kinds || failed=1
  [ "$preset" != release ] || "build/$preset/tests/lumbra_faults" --heal --cache 0 --seed "$seed" $sampled moments calls kills || failed=1
done

scripts/fuzz.sh $long --seed "$seed" || failed=1
exit $failed
