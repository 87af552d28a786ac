#!/usr/bin/env bash
# check_floors.sh - every file includes files of its own floor or of a lower one.
#
# Includes are written from the repository's root, so that a path alone tells the floor. The public
# header is for the exported functions and for the programs above them; a host or an example knows
# nothing of the library but that header. Prints file:line for each breach.
set -euo pipefail
cd "$(dirname "$0")/.."

find . -path './.*' -prune -o -path ./build -prune -o \
  \( -name '*.h' -o -name '*.c' -o -name '*.cpp' \) -printf '%P\0' | sort -z |
  xargs -0 grep -HnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' |
  awk -F: '
    function Floor(path) {
      if (path ~ /^(sys|util|decimal|ssl|kyrno\/base)\// || path == "kyrno/annotate.h") return 0
      if (path ~ /^Apl\/Tes\//) return 6
      if (path ~ /^Apl\//) return 1
      if (path ~ /^kyrno\/(net|tls)\//) return 2
      if (path ~ /^kyrno\/tree\//) return 3
      if (path ~ /^kyrno\/modes\//) return 4
      if (path ~ /^kyrno\/(boundary|link)\//) return 5
      if (path ~ /^include\//) return 6
      if (path ~ /^(host|examples|bench|fuzz|tests)\//) return 7
      return -1
    }
    function Breach(text) { print $1 ":" $2 ": " text; breaches++ }
    {
      split($0, quoted, "\"")
      included = quoted[2]
      from = Floor($1)
      to = Floor(included)
      if (from < 0)
        Breach("a folder without a floor")
      else if (to < 0)
        Breach("\"" included "\" is not a path from the repository root")
      else if (to > from)
        Breach("floor " from " includes \"" included "\" of floor " to)
      else if ($1 ~ /^(host|examples)\// && to < 7 && included != "include/kyrno.h")
        Breach("a host includes \"" included "\", which is inside the library")
    }
    END { exit breaches > 0 }'
