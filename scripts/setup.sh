#!/bin/sh
# Installs what the project is built and tested with, from Debian's packages (Debian 12). Does nothing when all of it
# is there. With "dev": also what contributors need. With "windows": also what builds for Windows and runs that. With
# "fuzz": also the compiler of the fuzz targets. With "peers": also the stores that bench/peers compares with. With
# "package": also what packages are made and used with. With "package-trial": that, and what they are looked at and tried
# with.
set -eu

packages="g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libutfcpp-dev libhowardhinnant-date-dev nettle-dev
          libgtest-dev libgmock-dev libbenchmark-dev"
[ "${1:-}" = dev ] && packages="$packages clang-format clang-14 clang-tidy-14"
[ "${1:-}" = windows ] && packages="$packages g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix googletest wine wine64"
[ "${1:-}" = fuzz ] && packages="$packages clang-14 libclang-rt-14-dev llvm-14"
[ "${1:-}" = peers ] && packages="$packages libsqlite3-dev liblmdb-dev libleveldb-dev librocksdb-dev gnuplot-nox"
[ "${1:-}" = package ] && packages="$packages dpkg-dev file pkg-config"
[ "${1:-}" = package-trial ] && packages="$packages dpkg-dev file pkg-config lintian debootstrap"

missing=""
for package in $packages; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

as_root=""
[ "$(id -u)" -eq 0 ] || as_root=sudo
$as_root apt-get update
# shellcheck disable=SC2086  # one word a package
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
