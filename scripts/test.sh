#!/bin/sh
# Sets up, builds one preset (default: release; asan and tsan are the sanitizers, windows-x86-64 runs with Wine) and runs
# its tests.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-release}

case $preset in
  windows-*) "$here/scripts/setup.sh" windows ;;
  *) "$here/scripts/setup.sh" ;;
esac
"$here/scripts/build.sh" "$preset"
case $preset in
  windows-x86)
    echo "built; Debian's Wine runs programs for x86-64 alone"
    exit 0
    ;;
  windows-x86-64)
    trap '"$here/scripts/wine.sh" --stop' EXIT
    trap 'exit 130' INT TERM
    "$here/scripts/wine.sh" --start
    ;;
esac
cd "$here"
ctest --preset "$preset" -j "$(nproc)"
