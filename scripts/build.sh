#!/bin/sh
# Builds one preset (release, debug, asan, tsan, fuzz, windows-x86 or windows-x86-64; see CMakePresets.json) on as many
# cores as there are: all of it, or the targets that are named behind it.
set -eu
cd "$(dirname "$0")/.."
preset=${1:-release}
[ $# -eq 0 ] || shift
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)" ${1:+--target} "$@"
