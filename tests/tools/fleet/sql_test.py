"""sql_test.py METRICS DOCUMENT BIG_RUN: runs what docs/sql.md says on SQLite, and compares with what
`metrics report` says."""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

metrics, document, big_run = sys.argv[1:]
if not shutil.which("sqlite3"):
    print("no sqlite3, so the tables are not loaded: apt-get install sqlite3")
    sys.exit(77)

text = pathlib.Path(document).read_text()
view, *questions = re.findall(r"```sql\n(.*?)```", text, re.S)
assert len(questions) == 10, len(questions)
(loading,) = re.findall(r"\| SQLite \| `(.*?)`", text)

with tempfile.TemporaryDirectory() as folder:
    def run(*command, **options):
        return subprocess.run(command, cwd=folder, check=True, capture_output=True, text=True, **options).stdout

    at = pathlib.Path(folder)
    (at / "runs").mkdir()
    (at / "one.csv").write_text(run(big_run, "3000"))
    # A label and a value that a careless writer would break, and what is not finished.
    (at / "more.csv").write_text(run(big_run, "5000") + "".join(
        f"{900_000_000 + i},1700000000.900000,{line}\n" for i, line in enumerate([
            "0,2,0,900001", "0,3,0,900001", '900001,5,"a ""b"", c",0', '900001,8,note,"x""y"',
            '900001,6,"a ""b"", c",0', "900001,2,0,900002"])))
    for name, host in ("one", "red"), ("more", "blue"):
        run(metrics, "convert", f"{name}.csv", "--to", "table", "--host", host, "-o", f"runs/{name}")
    run("sh", "-c", "skip=0; " + loading)
    report = json.loads(run(metrics, "report", "one.csv", "more.csv", "--json"))

    def ask(question):
        return json.loads(run("sqlite3", "-json", "fleet.db", question) or "[]")

    ask(view)
    answers = [ask(question) for question in questions]

    def same(answer, key, wanted, columns):
        """Whether the answer has the report's rows and, of each, these columns."""
        rows = {row[key] or None: row for row in answer}
        assert len(rows) == len(answer), "a row stands twice"
        assert set(rows) == {w[key if key in w else "name"] for w in wanted}, (set(rows), wanted)
        for want in wanted:
            row = rows[want[key if key in want else "name"]]
            for ours, theirs in columns.items():
                assert want[theirs] is None or row[ours] == want[theirs], (ours, row, want)

    requests = [{**r, "label": r["name"]} for r in report["requests"]]
    handovers = [{**h, "label": h["name"]} for h in report["handovers"]]
    same(answers[0], "label", requests, {"requests": "count", "max_ns": "max_ns"})
    same(answers[1], "label", report["labels"],
         {"scopes": "count", "p50_ns": "p50_ns", "p99_ns": "p99_ns", "max_ns": "max_ns"})
    same(answers[5], "label", report["labels"], {"scopes": "count", "self_ns": "self_ns"})
    same(answers[6], "label", handovers, {"handovers": "count", "p99_ns": "p99_ns", "max_ns": "max_ns"})
    assert {a["host"] for a in answers[2]} == {"red", "blue"}
    slow = json.loads(run(metrics, "slow", "more.csv", "-n", "1", "--json"))
    slower = max(slow + json.loads(run(metrics, "slow", "one.csv", "-n", "1", "--json")),
                 key=lambda tree: tree["duration_ns"])
    assert len(answers[3]) == 10 and answers[3][0]["duration"] == slower["duration_ns"]
    assert {a["label"] for a in answers[4]} >= {"request", "lookup", "wait for tasks"}, answers[4]
    assert all(a["p99_ns"] for a in answers[7])
    assert answers[8] == [] # no process has named itself
    # The client's own contexts are left out; the two of above, and the wait of the second.
    assert sorted((a["host"], a["kind"], a["pieces"]) for a in answers[9]) == [
        ("blue", "context", 1), ("blue", "context", 1), ("blue", "queue", 1)], answers[9]

    # What SQL would not notice.
    (unique,) = ask("SELECT COUNT(*) AS n, COUNT(DISTINCT id) AS ids, SUM(parent IS NULL) AS roots, "
                    "SUM(parent IS NULL AND id <> root) AS wrong FROM pieces")
    assert unique["n"] == unique["ids"] and unique["wrong"] == 0, unique
    assert ask("SELECT COUNT(*) AS n FROM pieces p LEFT JOIN pieces q ON p.parent = q.id "
               "WHERE p.parent IS NOT NULL AND q.id IS NULL") == [{"n": 0}]
    assert [a["label"] for a in ask("SELECT label FROM pieces WHERE kind = 'scope' AND label LIKE 'a %'")] == ['a "b", c']
print("ten questions answered")
