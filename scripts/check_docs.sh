#!/bin/sh
# Runs what README.md and docs/ tell a reader to run: every fenced block of shell commands as it stands, those of a page
# one after another in an empty folder of its own, with the built tool in PATH. The line in front of a block says why it
# is not run, "<!-- not run: reason -->"; "<!-- package -->" marks the one that scripts/package.sh runs. Names of pages
# choose those.
set -eu
cd "$(dirname "$0")/.."
[ $# -gt 0 ] || set -- README.md docs/*.md
tool=${LUMBRA_TOOL:-$PWD/build/release/tools/lumbra/lumbra}
[ -x "$tool" ] || { echo "check_docs: $tool is not built" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/lumbra-docs-XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
mkdir "$work/bin" "$work/blocks"
ln -s "$tool" "$work/bin/lumbra"
PATH=$work/bin:$PATH
export PATH
unset LUMBRA_STORE

# Each block a file, named by its number and its line; where it is wrong, a complaint.
awk -v folder="$work/blocks/" '
  function Complain(What) {
    print "check_docs: " FILENAME ":" FNR ": " What > "/dev/stderr"
    Bad = 1
  }
  FNR == 1 { Page = sprintf("%03d", ++nPages); print FILENAME > (folder Page ".page") }
  File == "" && /^```/ && !Inside {
    Inside = 1
    if ($0 ~ /^```(bash|shell|console|zsh)/) Complain("commands stand behind ```sh")
    if ($0 == "```sh" && Before !~ /^<!-- (not run: .+|package) -->$/) {
      if (Before ~ /^<!-- not run/) Complain("no reason is given")
      File = folder Page sprintf("-%05d.sh", FNR + 1)
      printf "" > File
    } else if ($0 == "```sh") {
      ++nLeft
    }
    next
  }
  /^```$/ && Inside { Inside = 0; if (File != "") close(File); File = ""; Before = ""; next }
  File != "" { print > File }
  !Inside { Before = $0 }
  END { print nLeft + 0 > (folder "left"); exit Bad }
' "$@"

run=0
failed=0
for page in "$work"/blocks/*.page; do
  name=$(cat "$page")
  scratch=${page%.page}
  mkdir "$scratch"
  for block in "$scratch"-*.sh; do
    [ -e "$block" ] || continue
    line=$(basename "$block" .sh | sed 's/^[0-9]*-0*//')
    run=$((run + 1))
    if ! (cd "$scratch" && timeout 60 sh -eu "$block") >"$work/said" 2>&1 </dev/null; then
      echo "check_docs: $name:$line: the commands fail:" >&2
      cat "$block" >&2
      sed 's/^/  | /' "$work/said" >&2
      failed=1
    fi
  done
done
echo "check_docs: $run blocks of commands run, $(cat "$work/blocks/left") say why not"
exit $failed
