#!/bin/sh
# Builds for Windows (x86 and x86-64), runs the tests of x86-64 with Wine, and holds what came out against the build for
# this system: the three modules, and the stores that the same operations leave.
set -eu
cd "$(dirname "$0")/.."

scripts/setup.sh
scripts/build.sh release lumbra_tool lumbra_module
scripts/test.sh windows-x86-64
scripts/build.sh windows-x86 lumbra_tool lumbra_module lumbra_store  # Debian's Wine does not run the tests

tests/systems/hardened.sh "$PWD" build/windows-*/tools/lumbra/lumbra.exe build/windows-*/src/module/lumbra.dll
tests/systems/modules.sh build/release/src/module/lumbra.so \
  build/windows-x86-64/src/module/lumbra.dll build/windows-x86/src/module/lumbra.dll
trap 'scripts/wine.sh --stop' EXIT
trap 'exit 130' INT TERM
scripts/wine.sh --start
linux=$PWD/build/release windows=$PWD/build/windows-x86-64
# Programs of one word each, wherever this folder lies.
programs=$(mktemp -d)
trap 'scripts/wine.sh --stop; rm -r "$programs"' EXIT
cat >"$programs/here" <<END
#!/bin/sh
exec "$linux/tools/lumbra/lumbra" --module "$linux/src/module/lumbra.so" "\$@"
END
cat >"$programs/wine" <<END
#!/bin/sh
exec "$PWD/scripts/wine.sh" "$windows/tools/lumbra/lumbra.exe" --module "$windows/src/module/lumbra.dll" "\$@"
END
chmod +x "$programs/here" "$programs/wine"
tests/systems/one_store.sh "$programs/here" "$programs/wine"
