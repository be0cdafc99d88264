#!/bin/sh
# Checks the includes of the rooms against the table in CONTRIBUTING.md: a room uses those rooms that its row names, which
# stand above it, and the public headers.
set -eu
cd "$(dirname "$0")/.."
# shellcheck disable=SC2046  # no file has a blank in its name
awk '
  function Complain(What) {
    print FILENAME ":" FNR ": " What
    Bad = 1
  }
  FILENAME == "CONTRIBUTING.md" {
    if (split($0, Cell, / *[|] */) < 4 || Cell[2] !~ "^(src|tools)/[a-z]+/$") next
    Room = substr(Cell[2], 1, length(Cell[2]) - 1)
    Uses[Room] = " "
    for (i = split(Cell[3], Used, /, */); i > 0; --i) {
      if (!("src/" Used[i] in Uses)) Complain(Room " may not use " Used[i] ", which does not stand above it")
      Uses[Room] = Uses[Room] Used[i] " "
    }
    next
  }
  /^ *# *include *["<][a-z]+\// {
    split($0, Part, /["<\/]/)
    split(FILENAME, Folder, "/")
    Room = Folder[1] "/" Folder[2]
    if (!(Room in Uses)) Complain(Room " has no row in the table of CONTRIBUTING.md")
    if (Part[2] == "lumbra" || "src/" Part[2] == Room || !("src/" Part[2] in Uses)) next
    if (!index(Uses[Room], " " Part[2] " ")) Complain(Room " may not use " Part[2])
  }
  END { exit Bad }
' CONTRIBUTING.md $(git ls-files 'src/*.h' 'src/*.cpp' 'tools/*.h' 'tools/*.cpp')
