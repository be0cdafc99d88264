#!/bin/sh
# Builds one preset (release, debug, asan or tsan; see CMakePresets.json) on as many cores as there are.
set -eu
cd "$(dirname "$0")/.."
preset=${1:-release}
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
