#!/usr/bin/env bash
# test.sh FOLDER: runs the examples that were built into the folder, and looks at what they say.
set -euo pipefail

programs=$1
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

mkdir -p tree/inner
printf 'one two\nthree' >tree/a.txt
printf ' four,\tfive\n' >'tree/inner/b, "c".txt'

expect 0 "$programs/wordcount" -raw=out.csv tree
says '2 files, 2 lines, 5 words, 25 bytes'
grep -q ',8,file,"tree/inner/b, ""c"".txt"$' out.csv || fail "an attribute is missing"
[[ $(grep -c ',7,words,' out.csv) == 2 ]] || fail "an event is missing"

expect 0 "$programs/summary" out.csv
says ' 4 contexts opened' ' 5 ScopeOpened' ' 6 ScopeClosed' $'\n           2 ' '  count' '  read' \
    '  find files' '  wordcount' '  file'
opened=$(grep -o '[0-9]* *5 ScopeOpened' <<<"$said")
closed=$(grep -o '[0-9]* *6 ScopeClosed' <<<"$said")
[[ ${opened%% *} == "${closed%% *}" ]] || fail "not every scope was closed: $said"

expect 0 "$programs/wordcount" -raw=out.csv -trace=out.trace -trace-keep=1M tree
expect 0 babeltrace2 out.trace
for name in attribute:8 scope_opened:5 scope_closed:6 custom:7; do
    number=$(cut -d, -f4 out.csv | grep -c "^${name#*:}$")
    [[ $(grep -c " ${name%:*}: { " <<<"$said") == "$number" ]] || fail "not $number $name: $said"
done

expect 0 "$programs/wordcount" -setabs=parse -raw=out.csv tree
[[ $(grep -c ',5,count,' out.csv) == 2 ]] || fail "a scope is missing"
! grep -q ',read,' out.csv || fail "there is a scope of a category that is off"

expect 1 "$programs/wordcount" tree/a.txt missing.txt
says "cannot read 'missing.txt'" '1 files, 1 lines, 3 words'
# A file that cannot be recorded to is reported; a full disk costs the lines and nothing else.
mkdir folder
for file in missing/out.csv folder /proc/new.csv "$(printf 'x%.0s' {1..5000})"; do
    expect 1 "$programs/wordcount" -raw="$file" tree
    [[ $said == 'wordcount: cannot record: failed to open file' ]] || fail "$file: $said"
done
expect 0 "$programs/wordcount" -raw=/dev/full tree
[[ $said == '2 files, 2 lines, 5 words, 25 bytes' ]] || fail "more was said: $said"
expect 2 "$programs/wordcount" -set=act,bogus,net,nope tree
says "unknown categories 'bogus,nope'"
expect 2 "$programs/wordcount"
says 'usage:'
expect 2 "$programs/summary" missing.csv

expect 0 "$programs/slow_scopes"
[[ $said == *'ms  cxt'*'ms  sort 1000000'*'ms  sort 100000'*'ms  sort 1000' ]] ||
    fail "not the slowest first: $said"
