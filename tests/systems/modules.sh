#!/bin/sh
# The three modules as a host finds them, looked at with other tools than our own: machine, metadata byte by byte,
# exports, imports, manifest and version.
#   modules.sh lumbra.so x86-64/lumbra.dll x86/lumbra.dll
set -eu

fail() {
  echo "modules: $*" >&2
  exit 1
}
hex() {
  od -An -v -tx1 | tr -d ' \n'
}
u32() {
  for number in "$@"; do
    for shift in 0 8 16 24; do printf "\\$(printf %o $((number >> shift & 255)))"; done
  done
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

# The metadata, written down once more.
{
  printf 'Zelmar\0metadata\0'
  u32 20 1 0 0 0xBF8E 0xFFFFFFF4
  u32 36 2 0xBF8E 0 1 0x4F 0 0 0xBF8C 0xFFFFFFF4
  u32 0x21A00082 4 1 0x20900083 9
  printf '"Lumbra"\0'
} >"$work/head"
metadata=$(hex <"$work/head")$(md5sum <"$work/head" | cut -c 1-32)
[ ${#metadata} -eq 250 ] || fail "the table has not 125 bytes"

# Linux: one symbol, and the section.
[ "$(nm -D --defined-only "$1" | cut -d ' ' -f 2-)" = "T LumbraModuleEntry" ] || fail "$1 exports something else"
objcopy -O binary --only-section=.lumbra.metadata "$1" "$work/section"
[ "$(hex <"$work/section")" = "$metadata" ] || fail "the metadata of $1 differs"

# Windows: FILE, prefix of the tools, format.
dll() {
  objdump=$2-w64-mingw32-objdump
  $objdump -f "$1" | grep -q "file format $3" || fail "$1 is not for $3"
  $objdump -p "$1" >"$work/headers"
  # A host calls the entry point of the header; nothing is exported.
  grep -q '^AddressOfEntryPoint.*[1-9a-f]' "$work/headers" || fail "$1 has no entry point"
  ! grep -q '^\s*\[ *[0-9]*\] +base' "$work/headers" || fail "$1 exports something"
  foreign=$(sed -n 's/.*DLL Name: //p' "$work/headers" | grep -viE '^(kernel32|user32|advapi32|msvcrt)\.dll$') || true
  [ -z "$foreign" ] || fail "$1 needs $foreign"

  # The resources: RCDATA (10), number 1, 125 bytes, language neutral; the manifest and the version.
  $2-w64-mingw32-windres -J coff -O res "$1" "$work/resources"
  hex <"$work/resources" | grep -qE "7d00000020000000ffff0a00ffff0100.{12}0000.{16}$metadata" ||
    fail "the metadata of $1 differs"
  $2-w64-mingw32-windres -J coff -O rc "$1" >"$work/resources"
  grep -q '^2 24 ' "$work/resources" || fail "$1 has no manifest"
  grep -q 'level=""asInvoker""' "$work/resources" || fail "the manifest of $1 does not ask for the invoker's rights"
  grep -q 'VALUE "ProductVersion", "[0-9.]*"' "$work/resources" || fail "$1 has no version"
}
dll "$2" x86_64 pei-x86-64
dll "$3" i686 pei-i386
echo "modules: three of them, with the same metadata"
