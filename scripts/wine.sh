#!/bin/sh
# Runs a program for Windows (x86-64) with Wine: in a Windows of this build's own, quietly, and with arguments and file
# names in UTF-8. "--start" lets that Windows run until "--stop": many programs start faster then, and none meets it while
# it goes down.
WINEPREFIX=${WINEPREFIX:-$(cd "$(dirname "$0")/.." && pwd)/build/wine}
WINEDEBUG=${WINEDEBUG:--all}
WINEDLLOVERRIDES="mscoree,mshtml="  # what a first start would ask to install
LC_ALL=C.UTF-8
export WINEPREFIX WINEDEBUG WINEDLLOVERRIDES LC_ALL
mkdir -p "$WINEPREFIX"

wine=/usr/lib/wine
case $1 in
  --start)
    $wine/wineserver64 --persistent
    exec $wine/wine64 wineboot --init
    ;;
  --stop) exec $wine/wineserver64 --kill ;;
  *) exec $wine/wine64 "$@" ;;
esac
