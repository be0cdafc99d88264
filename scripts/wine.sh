#!/bin/sh
# Runs a program for Windows (x86-64) with Wine: in a Windows of this build's own, quietly, and with arguments and file
# names in UTF-8.
WINEPREFIX=${WINEPREFIX:-$(cd "$(dirname "$0")/.." && pwd)/build/wine}
WINEDEBUG=${WINEDEBUG:--all}
WINEDLLOVERRIDES="mscoree,mshtml="  # what a first start would ask to install
LC_ALL=C.UTF-8
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES LC_ALL
mkdir -p "$WINEPREFIX"
exec /usr/lib/wine/wine64 "$@"
