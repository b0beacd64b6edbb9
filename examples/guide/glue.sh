#!/usr/bin/env bash
# glue.sh PROGRAM: takes its settings from the command line, and from the environment.
set -euo pipefail

events=$(mktemp)
trap 'rm -f "$events"' EXIT

# holds COUNT TEXT...: so many lines end in each of the texts; then the file is emptied.
holds() {
    local count=$1 text
    shift
    for text; do
        [[ $(grep -c ",$text\$" "$events") == "$count" ]] ||
            { echo "not $count times: $text"; cat "$events"; exit 1; }
    done
    : >"$events"
}

"$1" --metrics-set=billing --metrics-raw="$events"
holds 1 5,run,0 7,amount,5 7,amount,7
APP_METRICS="-setabs=act -raw=$events" "$1"
holds 2 5,bill,0 6,bill,0
APP_METRICS="-set=billing -raw=/missing/file oops" "$1" 2>"$events"
holds 0 5,run,0
APP_METRICS="-raw=/missing/file oops" "$1" 2>&1 | tr '\n' ' ' |
    grep -qx 'app: APP_METRICS: ignored: oops app: not recorded: No such file or directory '
! "$1" -set=act 2>/dev/null
"$1"
