# Sourced by scripts that run programs and look at what they say: strict mode, and a folder of their
# own as working directory.
# shellcheck shell=bash

set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() { echo "$*"; exit 1; }

# expect STATUS COMMAND...: the command must end with this status; $said is what it printed.
expect() {
    local wanted=$1 status=0
    shift
    said=$("$@" 2>&1) || status=$?
    ((status == wanted)) || fail "$*: status $status instead of $wanted: $said"
}

# says TEXT...: all of them must stand in $said.
says() {
    local text
    for text; do [[ $said == *"$text"* ]] || fail "not said: $text, but: $said"; done
}
