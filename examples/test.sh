#!/usr/bin/env bash
# test.sh FOLDER [PERCENT]: runs the examples that were built into the folder, and looks at what they
# say. METRICS_TEST_SCALE, or else PERCENT, scales how often that is done which depends on threads.
# shellcheck source=tests/support/expect.sh
source "$(dirname "$0")/../tests/support/expect.sh"

programs=$1
scale=${METRICS_TEST_SCALE:-${2:-100}}

mkdir -p tree/inner
printf 'one two\nthree' >tree/a.txt
printf ' four,\tfive\n' >'tree/inner/b, "c".txt'

expect 0 "$programs/wordcount" -raw=out.csv tree
says '2 files, 2 lines, 5 words, 25 bytes'
grep -q ',8,file,"tree/inner/b, ""c"".txt"$' out.csv || fail "an attribute is missing"
[[ $(grep -c ',7,words,' out.csv) == 2 ]] || fail "an event is missing"

[[ $(grep -c ',3,0,' out.csv) == 4 ]] || fail "a context is missing"
[[ $(grep -c ',5,.*,0$' out.csv) == $(grep -c ',6,.*,0$' out.csv) ]] ||
    fail "not every scope was closed"
[[ $(grep -c ',5,read,0$' out.csv) == 2 ]] || fail "a scope is missing"

expect 0 "$programs/wordcount" -raw=out.csv -trace=out.trace -trace-keep=1M tree
expect 0 babeltrace2 out.trace
for name in attribute:8 scope_opened:5 scope_closed:6 custom:7; do
    number=$(cut -d, -f4 out.csv | grep -c "^${name#*:}$")
    [[ $(grep -c " ${name%:*}: { " <<<"$said") == "$number" ]] || fail "not $number $name: $said"
done

expect 0 "$programs/wordcount" -setabs=parse -raw=out.csv tree
[[ $(grep -c ',5,count,' out.csv) == 2 ]] || fail "a scope is missing"
! grep -q ',read,' out.csv || fail "there is a scope of a category that is off"

# With a bound and a consumer that is slower than the workers: the run stays within the bound, what
# is lost stands in the file at its place, and the ledger agrees with the file to the last event.
mkdir many
for i in {1..3000}; do printf '%d words' "$i" >"many/$i"; done
for ((run = 0; run < (60 * scale + 99) / 100; ++run)); do
    expect 0 "$programs/wordcount" -limit=1M -slow=20 -raw=out.csv many
    says '3000 files, 0 lines, 6000 words'
    awk -F'[^0-9]+' '
        function expect(what, is, wanted) {
            if (is != wanted) { print what ": " is ", not " wanted >"/dev/stderr"; failed = 1 }
        }
        / events = / {
            accepted = $2; delivered = $3; lost = $5; peak = $9
            expect("the sum", $3 + $4 + $5 + $6 + $7 + $8, accepted)
        }
        FILENAME != "-" && /,7,lost,[0-9]*$/ { sub(/.*,/, ""); told += $0; ++gaps; next }
        FILENAME != "-" && FNR > 1 { ++lines }
        END {
            expect("lines", lines, delivered)
            expect("told", told, lost)
            expect("whether there are gaps", gaps > 0 && lost > 0, 1)
            expect("whether it stays within the bound", peak <= 1024 * 1024 * 1.05, 1)
            exit failed
        }' out.csv - <<<"$said" || fail "run $run: $said"
done
expect 2 "$programs/wordcount" -limit=much many
says "not a number: '-limit=much'"

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

expect 0 "$programs/slow_scopes"
[[ $said == *'ms  cxt'*'ms  sort 1000000'*'ms  sort 100000'*'ms  sort 1000' ]] ||
    fail "not the slowest first: $said"

# each_in_its_context EVENTS FILES BLOCKS: whether each file has one context of its name, and in it
# each of its scopes, ended. Prints how many blocks another thread took.
each_in_its_context() {
    awk -F, -v files="$2" -v blocks="$3" '
        function expect(what, is, wanted) {
            if (is != wanted) { print what ": " is ", not " wanted >"/dev/stderr"; failed = 1 }
        }
        $4 == 5 { ++opened[$3, $5]; ++all[$5] }
        $4 == 6 { ++closed[$3, $5] }
        $4 == 8 && $5 == "file" { path[$3] = $6; ++contexts }
        $4 == 7 && $5 == "of" { ++of[$3, $6] }
        $4 == 7 && $5 == "on another thread" { ++helped }
        END {
            expect("files", contexts, files)
            expect("contexts with their name", all["file"], files)
            expect("blocks", all["block"], files * blocks)
            for (id in path) {
                expect("own scopes of " id, opened[id, "file"], 1)
                expect("scopes of " path[id], of[id, path[id]], blocks + 1) # and one prints
            }
            for (scope in opened)
                expect("ends of " scope, closed[scope], opened[scope])
            print helped + 0
            exit failed
        }' "$1"
}

for i in {1..12}; do head -c $((4096 * 40)) < <(yes "$i") >"block-$i"; done
expect 0 "$programs/checksums" --threads=1 block-*
sums=$said
taken=0
for ((run = 0; run < (200 * scale + 99) / 100; ++run)); do
    expect 0 "$programs/checksums" --threads=4 --metrics-set=act,comp --metrics-raw=out.csv block-*
    [[ $said == "$sums" ]] || fail "other sums: $said"
    others=$(each_in_its_context out.csv 12 40) || fail "run $run: see above"
    ((taken += others)) || true
done
((taken > run)) || fail "the threads did not help each other: $taken blocks in $run runs"
expect 1 "$programs/checksums" missing block-1
says "checksums: cannot read 'missing': No such file or directory" "${sums%%  *}"
expect 2 "$programs/checksums" -set=act block-1
says "unknown option '-set=act'"
expect 1 "$programs/checksums" --metrics-raw=missing/out.csv block-1
[[ $said == 'checksums: cannot record: No such file or directory' ]] || fail "$said"
