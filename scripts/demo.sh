#!/bin/sh
# Sets up, builds, and shows the tool on real input: scans a folder (default: /usr/share) into a fresh store, lists the
# newest events with their names, and describes the store.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
folder=${1:-/usr/share}

"$here/scripts/setup.sh"
"$here/scripts/build.sh" release lumbra_tool

LUMBRA_STORE="$here/build/demo-store"
export LUMBRA_STORE
rm -rf "$LUMBRA_STORE"
lumbra="$here/build/release/tools/lumbra/lumbra"

echo "\$ lumbra scan --db 1 -- $folder"
"$lumbra" scan --db 1 -- "$folder"
echo
echo "\$ lumbra events --db 1 --last 5"
"$lumbra" events --db 1 --last 5
echo
echo "\$ lumbra info"
"$lumbra" info
