#!/bin/sh
# Sets up, builds, does the same work in Lumbra and other stores, and writes the tables of docs/performance.md and its
# plot: the usual ones, with --reading that of readers alone, with --all also those of other sizes, which take far longer and some GB of the disk. With --quick
# little work, to see that all of it runs, and no figures. Nothing else should run meanwhile.
set -eu
cd "$(dirname "$0")/.."
mode=${1:-}

scripts/setup.sh peers
# In a folder of its own, so that the usual builds never ask for what the comparison needs.
cmake --preset release -B build/peers -DLUMBRA_PEERS=ON -DLUMBRA_TESTS=OFF
cmake --build build/peers -j "$(nproc)" --target lumbra_peers lumbra_reading lumbra_tool lumbra_module
results=build/peers/results
mkdir -p "$results"

# Puts what was measured between the markers of one table.
keep() {
  table=$1
  cat "$results/$table.md"
  [ "$mode" != --quick ] || return 0
  awk -v table="$table" -v file="$results/$table.md" '
    $0 == "<!-- /" table " -->" { skipping = 0 }
    !skipping { print }
    $0 == "<!-- " table " -->" { while ((getline line < file) > 0) print line; skipping = 1 }
  ' docs/performance.md >"$results/performance.md"
  cp "$results/performance.md" docs/performance.md
}

measure() {
  echo "== $1"
  measured=$1
  shift
  [ "$mode" != --quick ] || set -- "$@" --quick
  build/peers/bench/peers/lumbra_peers "$@" >"$results/$measured.md"
  [ "$measured" != usual ] || printf '\n![costs of an operation](performance.svg)\n' >>"$results/usual.md"
  keep "$measured"
}

# What those pay who only look, in a folder of their own.
measure_reading() {
  echo "== reading"
  here=$PWD/build/peers
  work=$(mktemp -d)
  small=""
  [ "$mode" != --quick ] || small=--quick
  (cd "$work" && "$here/bench/lumbra_reading" "$here/tools/lumbra/lumbra" "$here/src/module/lumbra.so" $small) \
    >"$results/reading.md"
  rm -rf "$work"
  keep reading
}

measure_reading
[ "$mode" != --reading ] || exit 0
measure usual --plot "$results/usual.tsv"
plot="docs/performance.svg"
[ "$mode" != --quick ] || plot="$results/performance.svg"
gnuplot -e "data = '$results/usual.tsv'; plot_file = '$plot'" bench/peers/plot.gp
case $mode in
  --all | --quick)
    measure cold --cold
    measure segments-1000 --segments 1000 --work events --work opening
    measure segments-10000 --segments 10000 --work events --work opening
    measure objects-1000000 --objects 1000000 --work paths
    measure objects-10000000 --objects 10000000 --work paths --rounds 1
    measure kill --kill-open --rounds 3
    ;;
esac
