#!/bin/sh
# Makes the packages for Debian, looks at them with its own checks, and tries them as a user would: in a clean root,
# where README's commands lead to a running program, and from a project outside that finds the library in three ways.
# Says how long each step took. --long: the clean root gets the sources alone, and README's commands build them, too;
# and clang builds all of it as a part of that project.
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
  '') long= ;;
  --long) long=yes ;;
  *)
    echo "usage: $0 [--long]" >&2
    exit 2
    ;;
esac
fail() {
  echo "package: $*" >&2
  exit 1
}

# The packages bear the time of the last change.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date -r CHANGELOG.md +%s)}
export SOURCE_DATE_EPOCH
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x86_64-linux-gnu)
work=$(mktemp -d "${TMPDIR:-/tmp}/lumbra-package-XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
root=$work/root

make_packages() {
  rm -f build/release/*.deb
  scripts/build.sh release lumbra_packages
  (cd build/release && cpack -G DEB -B "$work/again") >"$work/cpack" 2>&1 || { cat "$work/cpack"; exit 1; }
  for package in build/release/*.deb; do
    cmp "$package" "$work/again/${package##*/}" || fail "$package is another one the second time"
    dpkg-deb -x "$package" "$work/unpacked"
    echo "$package: $(dpkg-deb -f "$package" Depends Recommends | tr '\n' ' ')"
  done
}

look_at_packages() {
  lintian --fail-on error build/release/*.deb
  tests/systems/hardened.sh "$PWD" "$work/unpacked/usr/bin/lumbra" "$work/unpacked/usr/lib/$multiarch/lumbra/lumbra.so"
  ! grep -rlaF "$PWD" "$work/unpacked" || fail "these files name the folder of the sources"
}

# ---- In a clean root --------------------------------------------------------------------------------------

# The sources of packages that this machine has for its own release: "http://... bookworm".
debian_sources() {
  # shellcheck disable=SC2016  # apt fills these in
  apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
    grep -E " $(. /etc/os-release && echo "$VERSION_CODENAME")(-updates|-security)?$" | sort -u
}

# Debian's smallest system, and how to get packages there. Fails where this machine cannot make one.
make_root() {
  unshare --mount true 2>/dev/null || { echo "only root can make one"; return 1; }
  debian_sources >"$work/sources"
  base=$(grep -v -- '-[a-z]*$' "$work/sources" | head -n 1)
  [ -n "$base" ] || { echo "this machine has no source of packages"; return 1; }
  debootstrap --variant=minbase "${base#* }" "$root" "${base% *}" >"$work/debootstrap" 2>&1 ||
    { tail -n 3 "$work/debootstrap"; return 1; }
  sed 's/^/deb /; s/$/ main/' "$work/sources" >"$root/etc/apt/sources.list"
  apt-config dump | grep -E '^Acquire::(Check-|https?::)' >"$root/etc/apt/apt.conf.d/90this-machine" || true
  for file in resolv.conf hosts; do [ ! -f /etc/$file ] || cp /etc/$file "$root/etc/"; done
  echo "${base#* } from ${base% *}"
}

# README's commands: the block behind the line "<!-- package -->".
readme_commands() {
  awk '/^<!-- package -->$/ { found = 1; next } found && /^```$/ { exit } found && !/^```/' README.md
}

# With /proc, as every system has it; it goes with the last of these processes. The machine's folder for temporary files
# and its language are not there.
in_root() {
  env -u TMPDIR LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive HOME=/root \
    unshare --mount sh -eu -c 'mount -t proc proc "$1/proc"; exec chroot "$1" sh -eu -c "$2"' sh "$root" "$1"
}

try_in_root() {
  mkdir "$root/root/lumbra"
  tar -c --exclude=./build --exclude=./.git . | tar -x --no-same-owner -C "$root/root/lumbra"
  if [ -n "$long" ]; then
    readme_commands >"$root/root/commands"
  else
    # Everything but the building: the packages are there.
    mkdir -p "$root/root/lumbra/build/release"
    cp build/release/*.deb "$root/root/lumbra/build/release/"
    readme_commands | sed -n '/^apt-get install/,$p' >"$root/root/commands"
    in_root 'apt-get update && apt-get install -y --no-install-recommends g++ pkg-config' >"$work/apt" 2>&1 ||
      { cat "$work/apt"; exit 1; }
  fi
  echo "README's commands, in the clean root:"
  sed 's/^/  /' "$root/root/commands"
  [ -s "$root/root/commands" ] || fail "README.md has none"
  started=$(date +%s)
  in_root 'cd /root/lumbra; . /root/commands' >"$work/readme" 2>&1 || { cat "$work/readme"; exit 1; }
  tail -n 12 "$work/readme"
  echo "README's commands: $(($(date +%s) - started)) s"
  in_root "$use_tool" || fail "the tool does not run"
}

# Without such a root: the packages beside what this machine has, and README's commands behind the installation.
try_beside() {
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  : >"$root/var/lib/dpkg/status"
  dpkg --root="$root" --force-not-root --force-depends -i build/release/*.deb >"$work/dpkg" 2>&1 ||
    { cat "$work/dpkg"; exit 1; }
  readme_commands | sed '1,/^apt-get install/d' >"$work/commands"
  [ -s "$work/commands" ] || fail "README.md has no commands"
  mkdir "$work/scratch"
  ln -s "$PWD/examples" "$work/scratch/examples"
  PATH=$root/usr/bin:$PATH PKG_CONFIG_PATH=$root/usr/lib/$multiarch/pkgconfig
  export PATH PKG_CONFIG_PATH
  (cd "$work/scratch" && sh -eu "$work/commands" && sh -eu -c "$(echo "$use_tool" | sed "s|/usr/lib|$root/usr/lib|g")")
}

# The tool, on what is built in and on the packaged module.
use_tool='
  cd "$(mktemp -d)"
  lumbra --version
  for file in /usr/lib/*/lumbra/lumbra.so; do lumbra module "$file" | head -n 3; done
  echo "{\"name\": \"/etc/hosts\"}" | lumbra record --db trial
  lumbra --module "$file" events --db trial
  lumbra verify'

try_packages() {
  if made=$(make_root); then
    echo "clean root: debootstrap, $made"
    try_in_root
  else
    echo "no clean root (debootstrap: $made): dpkg --root instead"
    try_beside
  fi
}

# ---- A project outside ------------------------------------------------------------------------------------

# COMPILER WAY: builds tests/outside as another project would, and runs it.
try_outside() {
  build=$work/outside-$1-$2
  mkdir "$build"
  case $2 in
    add_subdirectory) build_with_cmake "$1" -DLUMBRA_SOURCE="$PWD" ;;
    find_package) build_with_cmake "$1" -DCMAKE_PREFIX_PATH="$work/prefix" ;;
    pkg-config)
      # shellcheck disable=SC2046  # words
      "$1" -std=c++20 -Wall -Wextra -Werror tests/outside/main.cpp -o "$build/outside" \
        $(installed --cflags --libs)
      # shellcheck disable=SC2046
      "$1" -std=c++20 -Wall -Wextra -Werror examples/load_module.cpp -o "$build/load_module" $(installed --cflags)
      (cd "$build" && ./load_module "$(installed --variable=module)") || fail "the module cannot be loaded"
      ;;
  esac
  (cd "$build" && ./outside) || fail "it fails"
}
installed() {
  PKG_CONFIG_PATH=$work/prefix/lib/$multiarch/pkgconfig pkg-config "$@" lumbra
}
build_with_cmake() {
  { cmake -S tests/outside -B "$build" -G Ninja -DCMAKE_CXX_COMPILER="$1" "$2" &&
    cmake --build "$build" --target outside; } >"$build/log" 2>&1 || { cat "$build/log"; exit 1; }
}

install_here() {
  cmake --install build/release --prefix "$work/prefix" >/dev/null
}

# ---- All of it --------------------------------------------------------------------------------------------

times=
step() {
  name=$1
  shift
  echo "== $name"
  begun=$(date +%s)
  "$@"
  times="$times$(printf '%5d s  %s' $(($(date +%s) - begun)) "$name")
"
}
set_up() {
  scripts/setup.sh dev
  scripts/setup.sh package-trial
}
step 'set up' set_up
step 'build and make the packages, twice' make_packages
step 'look at them' look_at_packages
step 'install them, and run what is in them' try_packages
step 'cmake --install' install_here
for compiler in g++ clang++-14; do
  for way in find_package pkg-config add_subdirectory; do
    # Which builds all of it: with the second compiler, too, where there is time.
    [ "$compiler $way" != 'clang++-14 add_subdirectory' ] || [ -n "$long" ] || continue
    step "outside: $compiler, $way" try_outside $compiler $way
  done
done
printf '%s' "$times"
