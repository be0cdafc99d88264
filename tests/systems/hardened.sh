#!/bin/sh
# The headers of what is built: hardened, and without a path of the machine that built it.
#   hardened.sh FOLDER FILE...    the folder of the sources; programs and modules, ELF or PE
set -eu

folder=$1
shift
failed=0
fail() {
  echo "hardened: $*" >&2
  failed=1
}
has() {
  printf '%s\n' "$headers" | grep -qE "$2" || fail "$1: $3"
}

elf() {
  headers=$(readelf -W -hlds "$1")
  has "$1" 'Type: +DYN' 'lies at a fixed place'
  has "$1" 'GNU_RELRO' 'has tables that can be written to'
  has "$1" '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' 'binds while it runs'
  has "$1" 'GNU_STACK.* RW ' 'has a stack that runs'
  has "$1" '__stack_chk_fail' 'has no stack protector'
  # Programs alone: a module brings its C++ runtime along, which was built without.
  case $headers in
    *FLAGS_1*PIE*) has "$1" ' __(v?snprintf|f?printf)_chk(@| |$)' 'was built without checked functions' ;;
  esac
  case $(readelf -h "$1") in
    # Jumps may land there: what every function that is called by a pointer starts with.
    *X86-64*) objdump -d --section=.text "$1" | grep -q 'endbr64' || fail "$1: marks no targets of jumps" ;;
  esac
}

pe() {
  case $(od -An -tx1 -j $(($(od -An -tu4 -j 60 -N 4 "$1") + 4)) -N 2 "$1") in
    ' 64 86') cpu=x86_64 ;;
    *) cpu=i686 ;;
  esac
  headers=$($cpu-w64-mingw32-objdump -p "$1" | sed -n '/^DllCharacteristics/,/^SizeOfStackReserve/p')
  has "$1" DYNAMIC_BASE 'lies at a fixed place'
  has "$1" NX_COMPAT 'has data that runs'
  [ $cpu = i686 ] || has "$1" HIGH_ENTROPY_VA 'lies where it can be guessed'
}

for file in "$@"; do
  case $(head -c 2 "$file") in
    MZ) pe "$file" ;;
    *) elf "$file" ;;
  esac
  ! grep -qaF "$folder" "$file" || fail "$file: names the folder $folder"
done
exit $failed
