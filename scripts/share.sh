#!/bin/sh
# Prints how many lines the tests and fuzz targets have beside the code (src, include, tools, examples), without blank
# lines and comments. A third is meant: fewer leave promises untested, more are said twice. With --check it fails above that.
set -eu
cd "$(dirname "$0")/.."

lines() {
  git ls-files "$@" | grep -E '\.(h|hpp|cpp)$' | xargs cat | grep -cvE '^[[:space:]]*(//.*)?$'
}
code=$(lines src include tools examples)
faults=$(lines tests/faults fuzz)
tests=$(lines tests fuzz)
echo "code: $code lines; tests: $tests, of which the fault programme and fuzz targets are $faults: $((100 * tests / code)) %"
[ "${1:-}" != --check ] || [ $((3 * tests)) -le "$code" ]
