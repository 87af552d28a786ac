#!/usr/bin/env bash
# check_errors.sh - docs/errors.md tells about every code that the library uses, with its own number.
#
# Prints the constants that have no row, and the rows whose number and constant don't belong
# together.
set -euo pipefail
cd "$(dirname "$0")/.."

table=kyrno/base/error.h
page=docs/errors.md

{
  sed -nE 's/^ *X\(([0-9]+), ([A-Z0-9_]+),.*/defined \1 \2/p' "$table"
  sed -nE 's/^\| (-?[0-9]+) \| `([A-Z0-9_]+)` \|.*/row \1 \2/p' "$page"
  find kyrno Apl sys util \( -name '*.h' -o -name '*.cpp' \) ! -path "$table" -print0 |
    xargs -0 grep -hoE '\b(ERR_[A-Z0-9_]+|TIMEOUT)\b' | sort -u | sed 's/^/used /'
} | awk -v table="$table" -v page="$page" '
  function Fault(text) { print text; faults++ }
  $1 == "defined" { number[$3] = $2 }
  $1 == "row" {
    if (number[$3] != $2) Fault(page ": " $2 " is not " $3)
    if (rows[$3]++) Fault(page ": " $3 " has two rows")
  }
  $1 == "used" && $2 in number && !($2 in rows) { Fault(page ": " $2 " is missing") }
  END {
    if (!length(number)) Fault(table ": no codes found")
    exit faults > 0
  }'
