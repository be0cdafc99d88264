#!/bin/sh
# Sets up, builds, does the same work in Lumbra and other stores, and writes the tables of docs/performance.md and its
# plot: the usual ones, with --all also those of other sizes, which take far longer and some GB of the disk. With --quick
# little work, to see that all of it runs, and no figures. Nothing else should run meanwhile.
set -eu
cd "$(dirname "$0")/.."
mode=${1:-}

scripts/setup.sh peers
# In a folder of its own, so that the usual builds never ask for what the comparison needs.
cmake --preset release -B build/peers -DLUMBRA_PEERS=ON -DLUMBRA_TESTS=OFF
cmake --build build/peers -j "$(nproc)" --target lumbra_peers
results=build/peers/results
mkdir -p "$results"

# Measures, and puts what that prints between the markers of one table.
measure() {
  table=$1
  shift
  echo "== $table"
  [ "$mode" != --quick ] || set -- "$@" --quick
  build/peers/bench/peers/lumbra_peers "$@" >"$results/$table.md"
  [ "$table" != usual ] || printf '\n![costs of an operation](performance.svg)\n' >>"$results/usual.md"
  cat "$results/$table.md"
  [ "$mode" != --quick ] || return 0
  awk -v table="$table" -v file="$results/$table.md" '
    $0 == "<!-- /" table " -->" { skipping = 0 }
    !skipping { print }
    $0 == "<!-- " table " -->" { while ((getline line < file) > 0) print line; skipping = 1 }
  ' docs/performance.md >"$results/performance.md"
  cp "$results/performance.md" docs/performance.md
}

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
