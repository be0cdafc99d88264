#!/bin/sh
# Runs a program for Windows (x86-64) with Wine: quietly, and with arguments and file names in UTF-8.
WINEDEBUG=${WINEDEBUG:--all}
LC_ALL=C.UTF-8
export WINEDEBUG LC_ALL
exec /usr/lib/wine/wine64 "$@"
