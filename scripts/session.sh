#!/bin/sh
# Draws docs/session.svg: what the tool says, as it is built, to the commands below. --show prints that instead; --check
# says whether the picture is another one, but for its numbers, which are those of a moment.
set -eu
cd "$(dirname "$0")/.."

scripts/build.sh release lumbra_tool >&2
PATH="$PWD/build/release/tools/lumbra:$PATH"
picture=$PWD/docs/session.svg
folder=$(mktemp -d "${TMPDIR:-/tmp}/lumbra-session.XXXXXX")
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# What a daemon would send: events with times of their own, so that the picture does not change with the clock.
cat > morning.jsonl <<'END'
{"time": "2026-11-26T06:00:01.20Z", "name": "/etc/nginx/nginx.conf", "kind": 1, "value": 2416}
{"time": "2026-11-26T06:00:01.35Z", "name": "/etc/hosts", "kind": 1, "value": 221}
{"time": "2026-11-26T06:07:44.02Z", "name": "/var/log/auth.log", "kind": 1, "value": 81920}
{"time": "2026-11-26T06:09:10.71Z", "name": "/etc/nginx/sites-enabled", "type": "folder", "kind": 2, "value": 4096}
{"time": "2026-11-26T06:09:10.90Z", "name": "/etc/nginx/sites-enabled/shop.conf", "kind": 1, "value": 733}
END
cat > noon.jsonl <<'END'
{"time": "2026-11-26T12:00:00.08Z", "name": "/etc/nginx/nginx.conf", "kind": 1, "value": 2431}
{"time": "2026-11-26T12:00:00.31Z", "name": "/var/log/syslog", "kind": 1, "value": 65536}
END

say() { printf '$ %s\n' "$*"; }
run() {
  say "$*"
  eval "$*" 2>&1 || true
  echo
}
# Until the one that follows has shown so many events; a machine that is too slow for that shows less.
wait_for() {
  for _ in $(seq 100); do
    [ "$(wc -l < followed)" -lt "$1" ] || return 0
    sleep 0.1
  done
}
session() {
  run "lumbra record --db audit --max-age 7d --max-size 2G morning.jsonl"
  run "lumbra events --db audit --under /etc --kind file"
  # Another terminal records while this one follows.
  say "lumbra events --db audit -f -n 1 --json --fields name,value --show-cursor"
  : > followed
  lumbra events --db audit -f -n 1 --json --fields name,value --show-cursor >> followed &
  reader=$!
  wait_for 1
  lumbra record --db audit noon.jsonl > /dev/null
  wait_for 3
  kill -INT "$reader"
  wait "$reader" || true
  cat followed
  echo "^C"
  echo
  run "lumbra verify"
  run "lumbra backup ../backup"
}
mkdir work
cp morning.jsonl noon.jsonl work
cd work
session > ../session.txt
if [ "${1:-}" = --show ]; then
  cat ../session.txt
  exit
fi

# A line of text a row, commands brighter than answers.
awk '
  { gsub(/&/, "\\&amp;"); gsub(/</, "\\&lt;"); gsub(/>/, "\\&gt;"); row[NR] = $0
    if (length($0) > wide) wide = length($0) }
  END {
    while (NR > 0 && row[NR] == "") NR--
    width = int(wide * 7.3 + 32); height = NR * 18 + 34
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\" role=\"img\">\n",
           width, height, width, height
    print "<title>A session with lumbra</title>"
    printf "<rect width=\"%d\" height=\"%d\" rx=\"8\" fill=\"#1b1f27\"/>\n", width, height
    print "<g font-family=\"DejaVu Sans Mono, Menlo, Consolas, monospace\" font-size=\"12\" fill=\"#c3cad6\">"
    for (i = 1; i <= NR; i++) {
      if (row[i] == "") continue
      printf "<text x=\"16\" y=\"%d\" xml:space=\"preserve\"%s>%s</text>\n", i * 18 + 12,
             row[i] ~ /^\$/ ? " fill=\"#8fd18b\"" : "", row[i]
    }
    print "</g>\n</svg>"
  }' ../session.txt > ../session.svg

if [ "${1:-}" != --check ]; then
  cp ../session.svg "$picture"
  exit
fi
without_numbers() { sed 's/[0-9a-f.-]*[0-9][0-9a-f.-]*/N/g' "$1"; }
without_numbers "$picture" > ../kept
without_numbers ../session.svg > ../drawn
diff ../kept ../drawn ||
  { echo "session: docs/session.svg shows something else than the tool does: scripts/session.sh draws it" >&2; exit 1; }
