"""fleet_test.py METRICS WORDCOUNT: two processes, one started by the other, recorded on their own."""

import csv
import json
import os
import pathlib
import subprocess
import sys
import tempfile

from collector import Collector

metrics, wordcount = sys.argv[1:]
os.chdir(tempfile.mkdtemp())
pathlib.Path("tree/inner").mkdir(parents=True)
pathlib.Path("tree/a.txt").write_text("one two three\n")
pathlib.Path("tree/inner/b, c.txt").write_text("four\n")


def run(*command, **environment):
    return subprocess.run(command, env={**os.environ, **environment}, check=True, capture_output=True, text=True,
                          timeout=60).stdout


def record(**environment):
    assert "1 files" in run(wordcount, "-raw=first.csv", f"-then={wordcount} -raw=second.csv tree/inner", "tree",
                            **environment)
    for path in pathlib.Path().glob("*.sent"):
        path.unlink()
    with Collector() as collector:
        run(metrics, "send", "first.csv", "second.csv", "--otlp", collector.url)
        return collector.spans


# With a trace that it is given, and as the first of its trace.
given = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"
for environment, trace, parent in ({"TRACEPARENT": given}, given[3:35], given[36:52]), ({"TRACEPARENT": ""}, None, ""):
    spans = record(**environment)
    roots = {s["resource"]["service.name"]: s for s in spans if s["name"] == "wordcount" and "thread.id" in s["attributes"]}
    assert len({s["trace"] for s in spans}) == 1 and spans[0]["trace"] == (trace or spans[0]["trace"])
    assert roots["first"]["parent"] == parent and roots["second"]["parent"] == roots["first"]["id"]
    assert roots["first"]["resource"]["process.pid"] != roots["second"]["resource"]["process.pid"]
    by_id = {s["id"]: s for s in spans}
    assert len(by_id) == len(spans)
    parents = {(s["name"], by_id[s["parent"]]["name"]) for s in spans if s["parent"] in by_id}
    assert parents == {("wordcount", "wordcount"), ("queue", "wordcount"), ("find files", "wordcount"),
                       ("wait for workers", "wordcount"), ("command", "wordcount"), ("file", "wordcount"),
                       ("queue", "file"), ("file", "file"), ("read", "file"), ("count", "file")}, parents
    for s in spans: # on one clock, as they ran
        if s["resource"]["service.name"] == "second":
            assert roots["first"]["start"] - 1000 <= s["start"] <= s["end"] <= roots["first"]["end"] + 1000, s

# The tables give the report's numbers, of both together.
run(metrics, "convert", "first.csv", "second.csv", "--to", "table", "-o", "both")
with open("both.spans.csv", newline="") as file:
    rows = list(csv.DictReader(file, strict=True))
with open("both.events.csv", newline="") as file:
    events = list(csv.DictReader(file, strict=True))
report = json.loads(run(metrics, "report", "first.csv", "second.csv", "--json"))


def summed(kind, **columns):
    sums = {}
    for row in rows:
        if row["kind"] == kind and row["id"] == columns.get("root", lambda r: row["id"])(row):
            at = sums.setdefault(row["label"], [0, 0, 0, 0])
            duration = int(row["end"]) - int(row["start"])
            at[:] = at[0] + 1, at[1] + duration, at[2] + int(row["self"]), max(at[3], duration)
    return sums


assert summed("scope") == {r["label"]: [r["count"], r["total_ns"], r["self_ns"], r["max_ns"]] for r in report["labels"]}
assert {k: (v[0], v[3]) for k, v in summed("context", root=lambda r: r["root"]).items()} == {
    r["name"]: (r["count"], r["max_ns"]) for r in report["requests"]}
assert {k: (v[0], v[3]) for k, v in summed("queue").items()} == {
    r["name"]: (r["count"], r["max_ns"]) for r in report["handovers"]}
assert {s["id"] for s in spans} == {r["id"] for r in rows} # of one export and the other
assert all((r["parent"] or "") == by_id[r["id"]]["parent"] and int(r["end"]) == by_id[r["id"]]["end"] for r in rows)
assert sorted((e["name"], e["value"]) for e in events) == sorted(
    (name, str(value["value"])) for s in spans for _, name, value in s["events"])
files = [json.loads(r["attributes"]) for r in rows if r["kind"] == "context" and r["label"] == "file"]
assert {"file": "tree/inner/b, c.txt", "bytes": 5} in files, files
print("one trace, and the report's numbers")
