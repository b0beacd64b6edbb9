#!/usr/bin/env bash
# command.sh METRICS: runs the command as people and scripts do, and looks at what it says.
# shellcheck source=tests/support/expect.sh
source "$(dirname "$0")/../support/expect.sh"

metrics=$1

escape=$'\033'
no_colors() { [[ $said != *"$escape"* ]] || fail "colours: $said"; }

header=timestamp,datetime,context_id,event_type,param1,param2
cat >run.csv <<END
$header
100,1700000000.000000,0,2,0,1
100,1700000000.000000,0,3,0,1
1000,1700000000.000001,1,2,0,2
2000,1700000000.000002,1,3,0,2
2000,1700000000.000002,2,8,pid,7
2000,1700000000.000002,2,8,tid,8
2000,1700000000.000002,2,8,cid,2
2000,1700000000.000002,2,5,get, <b>,0
2500,1700000000.000002,2,8,user,$(printf 'caf\351\033[31m')
2600,1700000000.000002,2,7,rows,5
5000,1700000000.000005,2,6,get, <b>,0
5000,1700000000.000005,1,4,0,2
6000,1700000000.000006,0,4,0,1
END

expect 0 "$metrics" report run.csv
says '1 run, 13 events in 5.90 us' '3.00 us  get, <b>' '-: too few samples'
no_colors
[[ $said != *metrics:* ]] || fail "a complaint: $said"
expect 0 "$metrics" report run.csv --json
says '"p50_ns": null' '"max_ns": 3000'
known=$said
expect 0 "$metrics" report - --json <run.csv
[[ $said == "$known" ]] || fail "the standard input is read otherwise: $said"
expect 0 "$metrics" report run.csv run.csv
says '2 runs, 26 events' '8 of run.csv'

expect 0 "$metrics" slow -n 1 run.csv --events
says 'get, <b> #2  waited 1.00 us  thread 8' 'user = caf' 'at 600 ns: rows 5'
no_colors
expect 0 "$metrics" slow run.csv --json --events
says '"wait_ns": 1000' '"start_ns": 2000' '"tid": 8' $'"value": "caf\357\277\275\\u001b[31m"'
expect 0 "$metrics" slow --root 1 run.csv
says '(never used) #1'
expect 2 "$metrics" slow --root 99 run.csv
says 'there is no context 99'

expect 0 "$metrics" diff run.csv run.csv
says 'Nothing changed that is more than noise.'
expect 0 "$metrics" diff run.csv run.csv --json
says '"changes": []'

expect 0 "$metrics" check run.csv
says 'All is well.'
{ head -n 10 run.csv; echo nonsense; printf '7000,'; } >damaged.csv
expect 1 "$metrics" check damaged.csv --json
says '"open_at_end": [' '"scope": "get, <b>"' $'"unreadable_lines": [\n    11\n  ]' '"truncated": true'
says 'damaged.csv:11: not an event'
expect 0 "$metrics" report damaged.csv
says '9 events'
expect 0 "$metrics" slow --root 2 --json damaged.csv # open at its end
says '"duration_ns": null' '"tid": 8'

# What cannot be used.
echo 'some text' >other.txt
expect 2 "$metrics" report other.txt
says 'other.txt:1: not a file of events'
expect 2 "$metrics" report missing.csv run.csv
says 'missing.csv: No such file or directory'
says '1 run, 13 events'
expect 2 "$metrics" diff run.csv missing.csv
expect 2 "$metrics"
expect 2 "$metrics" report
expect 2 "$metrics" report --nonsense run.csv
expect 2 "$metrics" top missing.csv
expect 2 sh -c "'$metrics' report run.csv >/dev/full"
says 'cannot write to the standard output'
expect 0 "$metrics" slow --request nobody run.csv
says "no context has the name 'nobody'"
expect 2 "$metrics" timeline run.csv --json -o -
says 'both need the standard output'
expect 0 "$metrics" --help
says report slow diff check top
expect 0 sh -c "'$metrics' report run.csv | head -n 1" # which may end early

expect 0 "$metrics" top -n 2 -d 0.01 run.csv
says 'events/s' '0 in flight'
[[ $(grep -c '^[1-9].* events/s' <<<"$said") == 2 ]] || fail "the second look shows nothing: $said"
no_colors
expect 0 "$metrics" top -n 2 -d 0.01 run.csv --json
says '{"interval_ns":5900,"events":13,' '{"interval_ns":0,"events":0,'

# What convert refuses leaves the run as it is.
refuses() { # WHAT IT SAYS, THE OPTIONS
    expect 2 "$metrics" convert copy.csv "${@:2}"
    says "$1"
    cmp run.csv copy.csv || fail "convert has written over its input"
}
cp run.csv copy.csv
refuses 'two files' --to table -o -
refuses 'is the run itself' --to otlp -o ./copy.csv
refuses 'one format' --to otlp --to chrome -o out
refuses 'no context 4711' --to chrome --root 4711 -o out
refuses '--from is behind --to' --to chrome --from 2 --to 1 -o out

# The tables, to the field.
expect 0 "$metrics" convert run.csv --to table -o run --host red
[[ $(cut -d, -f1-3,8- run.spans.csv) == 'run,host,pid,kind,label,thread,created,start,end,self,attributes
run.csv,red,7,context,"get, <b>",8,1700000000000000900,1700000000000001900,1700000000000004900,0,"{""user"":""caf'$'\357\277\275''\u001b[31m""}"
run.csv,red,7,queue,"get, <b>",8,1700000000000000900,1700000000000000900,1700000000000001900,1000,{}
run.csv,red,7,scope,"get, <b>",8,,1700000000000001900,1700000000000004900,3000,{}' ]] ||
    fail "the table is $(<run.spans.csv)"
sed 's/,rows,/,a\rrow,/' run.csv >return.csv
expect 0 "$metrics" convert return.csv --to table -o return
grep -q $',"a\rrow",5$' return.events.csv || fail "a bare CR: $(<return.events.csv)"

# Two processes of one number are two in the viewer.
expect 0 "$metrics" convert run.csv run.csv --to chrome -o two.json
[[ $(grep -o '"process_name","pid":[0-9]*' two.json | sort -u | wc -l) == 2 ]] ||
    fail "$(<two.json)"

expect 0 "$metrics" convert copy.csv --to table -o copy.csv
[[ -s copy.csv.spans.csv && -s copy.csv.events.csv ]] || fail "there are no tables"

# SQL engines cut a text at a NUL, or refuse the file.
sed 's/,rows,/,ro\x00ws,/; s/get, /get\x00, /' run.csv >nul.csv
nuls() { cat "$@" | tr -dc '\0' | wc -c; }
[[ $(nuls nul.csv) == 3 ]] || fail "there is no NUL to be mended"
expect 0 "$metrics" convert nul.csv --to table -o nul
[[ $(nuls nul.spans.csv nul.events.csv) == 0 ]] || fail "a table has a NUL"

# On a terminal there are colours, unless nobody wants them; top has a screen of its own, which it
# leaves as it ends, by a signal as well.
if command -v script >/dev/null; then
    export TERM=xterm
    unset NO_COLOR
    on_terminal() { expect "$1" script -qefc "stty rows 24 cols 90; $2" typescript </dev/null; }
    on_terminal 0 "$metrics report run.csv"
    says "${escape}[1m"
    NO_COLOR=1 on_terminal 0 "$metrics report run.csv"
    no_colors
    # shellcheck disable=SC2016 # for the other shell
    interrupt='{ until grep -q 1049h typescript; do sleep 0.02; done; kill -INT "$(cat pid)"; } &'
    # shellcheck disable=SC2016
    echo 'echo $$ >pid; exec "$@"' >in_the_foreground.sh # where top is with people
    top() {
        rm -f typescript
        on_terminal 0 "stty -a >before; $2 sh in_the_foreground.sh $metrics top run.csv $1; stty -a >after"
        says "${escape}[?1049h" "${escape}[?25l" "${escape}[?7h${escape}[?25h${escape}[?1049l"
        cmp before after || fail "the terminal is not as it was"
    }
    top '-n 2 -d 0.01' ''
    top '-d 0.01' "$interrupt"
fi
