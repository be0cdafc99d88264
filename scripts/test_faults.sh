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
      seed=$2
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
for preset in release asan tsan; do
  scripts/build.sh "$preset" lumbra_faults
  faults=build/$preset/tests/lumbra_faults
  case $preset in
    release) "$faults" --seed "$seed" $long ;;
    asan) "$faults" --seed "$seed" calls allocations moments bits ;;
    tsan) "$faults" --seed "$seed" $long threads ;;
  esac
done

if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh $long --seed "$seed"; fi
