#!/bin/sh
# Programs that README.md and docs/ show are those of examples/: a block behind a line "<!-- examples/FILE -->" is the
# whole file, one behind "<!-- part of examples/FILE -->" a run of its lines. --write puts whole files in their blocks.
set -eu
cd "$(dirname "$0")/.."

failed=0
for page in README.md docs/*.md; do
  awk -v page="$page" -v mode="${1:-}" '
    function load(file,    line) {
      whole = ""
      while ((status = (getline line < file)) > 0) whole = whole line "\n"
      close(file)
      if (status < 0) complain("there is no " file)
    }
    function complain(what) { print page ": " what > "/dev/stderr"; bad = 1 }
    function finish() {
      load(source)
      if (part && index("\n" whole, "\n" block) == 0) complain("a block is no part of " source)
      if (!part && block != whole && mode != "--write") complain("a block is another text than " source)
      if (mode == "--write") printf "%s", part ? block : whole
    }
    source != "" && /^```/ {
      if (!inside) { inside = 1; block = "" }
      else { finish(); inside = 0; source = "" }
      if (mode == "--write") print
      next
    }
    inside { block = block $0 "\n"; next }
    source != "" { complain("no block stands behind the line for " source); source = "" }
    /^<!-- (part of )?examples\/[^ ]+ -->$/ {
      part = /part of/
      source = $(NF - 1)
    }
    mode == "--write" { print }
    END {
      if (inside) complain("a block has no end")
      exit bad
    }' "$page" > "$page.new" || failed=1
  if [ "${1:-}" = --write ] && [ $failed -eq 0 ]; then cat "$page.new" > "$page"; fi
  rm -f "$page.new"
done
exit $failed
