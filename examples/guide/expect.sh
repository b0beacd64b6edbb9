#!/usr/bin/env bash
# expect.sh PROGRAM ARGUMENT... -- PATTERN...: runs the program with the arguments, and looks for
# lines that end in the patterns, in this order, first in the CSV file, then in what it printed.
set -euo pipefail

events=$(mktemp)
trap 'rm -f "$events"' EXIT
program=$1
shift
arguments=()
while [[ $1 != -- ]]; do
    arguments+=("$1")
    shift
done
shift
printed=$("$program" "${arguments[@]}" -raw="$events")

{ cat "$events"; echo "$printed"; } | awk '
    BEGIN { for (i = 1; i < ARGC; ++i) { wanted[i] = ARGV[i]; ARGV[i] = "" } count = ARGC; next_ = 1 }
    { print }
    next_ < count && $0 ~ "(^|,)" wanted[next_] "$" { ++next_ }
    END { if (next_ < count) { print "not there: " wanted[next_]; exit 1 } }' "$@"
