#!/bin/sh
# One store, two systems: the same operations leave the same bytes in every file, and what one system wrote the other
# one opens and goes on with.
#   one_store.sh PROGRAM OTHER    two programs that run the tool
set -eu

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
cd "$work"

fail() {
  echo "one_store: $*" >&2
  exit 1
}

# Lines for `lumbra record`: from $1 to $2, with names of every kind.
events() {
  awk -v from="$1" -v to="$2" 'BEGIN {
    count = split("C:\\\\Reports\\\\Day %d\\\\täglich.txt|c:\\\\REPORTS\\\\day %d|\\\\\\\\server\\\\share\\\\f%d|/srv/Makefile %d" \
                  "|D:\\\\журнал\\\\запись %d|D:\\\\ЖУРНАЛ\\\\ЗАПИСЬ %d|C:\\\\日本語\\\\%d|A\\\\..\\\\ß%d", files, "|")
    for (i = from; i <= to; ++i) {
      printf "{\"time\": \"2026-11-24T13:%02d:%02dZ\", \"kind\": %d, \"value\": %d, ", i / 60 % 60, i % 60, i % 5, i * i
      if (i % 9 == 7) printf "\"type\": \"value\", \"name\": \"HKLM\\\\Software\\\\Key %d\\\\value\"}\n", i
      else if (i % 9 == 8) printf "\"type\": \"name\", \"name\": \"plain naïve %d\"}\n", i % 20
      else printf "\"name\": \"" files[i % count + 1] "\"}\n", i % 40
    }
  }'
}

# The id of an object, made where it is missing. It is found by one system and used by both: ids are part of the bytes.
id_of() {
  "$1" --store "$2" $mode find --create --db "$3" --type "$4" "$5" | awk '{print $1}'
}

# Everything that changes a store: fills it from nothing, in several openings.
fill() {
  program="$1"
  store="$2"
  lumbra() { "$program" --store "$store" --host host $mode "$@" >>"$store.log"; }

  events 1 400 | lumbra record --db 1 --segment-events 70 --max-events 300
  events 1 50 | lumbra record --db 47 --segment-size 1500 --max-size 6000
  events 200 300 | lumbra record --db "zweites Büro" --segment-events 30
  events 1 20 | lumbra record --db other --global-size 100000
  events 380 420 | lumbra record --db 1 --segment-events 70 --max-events 300

  for database in 0 1 "zweites Büro"; do
    file=$(id_of "$program" "$store" "$database" file 'C:\Reports\data.bin')
    events 1 3 | lumbra data set "$file" 1
    printf 'short' | lumbra data set "$file" 0x70000001
    head -c 5000 /dev/zero | lumbra data set "$file" 3
    printf 'in its place' | lumbra data set "$file" 1
    events 1 40 | lumbra data set "$file" 1
    gone=$(id_of "$program" "$store" "$database" name 'gone')
    printf 'away with it' | lumbra data set "$gone" 5
    lumbra data clear "$gone"
  done
  drive=$(id_of "$program" "$store" 0 20 'E:')
  folder=$(id_of "$program" "$store" 0 folder 'C:\Mounted\Disk')
  lumbra data clear "$drive"
  lumbra link "$drive" "$folder"
  id_of "$program" "$store" 0 file 'E:\below\the link.txt' >>"$store.log"

  events 1 10 | lumbra record --db 9
  lumbra clear --db 9 --yes
  lumbra clear --db other --yes
  events 500 520 | lumbra record --db other
  lumbra check
  lumbra compact
}

# Everything that a store answers.
show() {
  for database in 1 47 "zweites Büro" other; do
    "$1" --store "$2" $mode events --db "$database" --parents --json
  done
  file=$(id_of "$1" "$2" 0 file 'C:\Reports\data.bin')
  "$1" --store "$2" $mode data get "$file" 1
}

for mode in '' --check-mode; do
  fill "$1" first
  fill "$2" second
  diff -r first second || fail "the stores differ ($mode)"
  for name in g_objbt g_objid g_objdt g_db_id g_objidcompacted g_objdtcompacted 01/segments 01/00000003_events \
              01/00000003_objbt 01/00000003_objid 01/00000003_objdt; do
    [ -s "first/$name.dat" ] || fail "the script left no $name.dat ($mode)"
  done

  # The other way round: each system reads what the other one wrote, and goes on with it.
  show "$1" second >by_first
  show "$2" first >by_second
  [ "$(wc -l <by_first)" -gt 400 ] || fail "the stores show too little ($mode)"
  cmp by_first by_second || fail "the systems read different things ($mode)"
  fill "$1" second
  fill "$2" first
  diff -r first second || fail "the stores differ after they changed sides ($mode)"
  rm -rf first second
done
echo "one store, two systems: the same bytes"
