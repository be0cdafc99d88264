#!/bin/sh
# Sets up, builds one preset (default: release; asan and tsan are the sanitizers) and runs its tests.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-release}

"$here/scripts/setup.sh"
"$here/scripts/build.sh" "$preset"
cd "$here"
ctest --preset "$preset" -j "$(nproc)"
