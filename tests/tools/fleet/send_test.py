"""send_test.py METRICS BIG_RUN [SANITIZER]: sends runs to a stand-in for a collector that misbehaves."""

import atexit
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time

from collector import Collector, spans_of_json

metrics, big_run, *sanitizer = sys.argv[1:]
os.chdir(tempfile.mkdtemp())
HEADER = "timestamp,datetime,context_id,event_type,param1,param2\n"


def run(*command):
    return subprocess.run([metrics, *command], capture_output=True, text=True, timeout=120)


def send(collector, *arguments, path="run.csv", status=0):
    done = run("send", path, "--otlp", collector if isinstance(collector, str) else collector.url, "--json", *arguments)
    assert done.returncode == status, done
    return json.loads(done.stdout), done.stderr


def converted(path):
    done = run("convert", path, "--to", "otlp", "-o", "-")
    assert done.returncode == 0, done
    lines = done.stdout.splitlines()
    assert all(len(line) < 1 << 20 for line in lines)
    return [span for line in lines for span in spans_of_json(json.loads(line))]


def in_order(spans):
    return sorted(spans, key=lambda span: (span["trace"], span["id"]))


def forget(path="run.csv"):
    pathlib.Path(path + ".sent").unlink(missing_ok=True)


def line(stamp, context, kind, first, second):
    return f"{stamp},{1_700_000_000 + stamp // 10**9}.{stamp % 10**9 // 1000:06d},{context},{kind},{first},{second}\n"


def request(stamp, number, *inside):
    """A request of one microsecond; `inside` are lines without their stamps."""
    return (line(stamp, 0, 2, 0, number) + line(stamp, 0, 3, 0, number) + line(stamp, number, 8, "pid", 70) +
            line(stamp, number, 8, "tid", 71) + line(stamp, number, 8, "cid", number) +
            line(stamp, number, 5, "request", 0) + "".join(line(stamp, number, *one) for one in inside) +
            line(stamp + 900, number, 6, "request", 0) + line(stamp + 1000, 0, 4, 0, number))


CLIENT = line(0, 0, 2, 0, 1) + line(0, 0, 3, 0, 1)
GIVEN = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"

pathlib.Path("run.csv").write_bytes(subprocess.run([big_run, "60000"], capture_output=True, check=True).stdout)
everything = in_order(converted("run.csv"))
assert len({span["id"] for span in everything}) == len(everything) > 60_000
# What is converted, what is sent as protobuf and what is sent as JSON is the same, from two ways
# through the file; each only once.
for encoding in "protobuf", "json":
    with Collector() as collector:
        result, _ = send(collector, "--encoding", encoding, "--header", "X-Key: secret")
        assert result == {"runs": 1, "spans": len(everything), "sent_before": 0, "rejected": 0,
                          "requests": len(collector.requests)}, result
        assert in_order(collector.spans) == everything
        for what, size, _, headers, path in collector.requests:
            assert size < 4 << 20 and path == "/v1/traces", (size, path)
            assert headers["Content-Encoding"] == "gzip" and headers["X-Key"] == "secret", headers
        again, _ = send(collector.url + "/v1/traces/", "--encoding", encoding)
        assert again["spans"] == 0 and again["sent_before"] == len(everything), again
forget()

# Refused for now, closed, and then taken: once each, later each time, and as late as it asks for.
with Collector() as collector:
    collector.script = ["503", "close", "429 retry 2", "502", "504"]
    result, said = send(collector)
    assert result["spans"] == len(everything) and in_order(collector.spans) == everything
    times = [r[2] for r in collector.requests]
    assert [r[0] for r in collector.requests][:6] == [*["503", "close", "429 retry 2", "502", "504"], "ok"]
    assert len({r[1] for r in collector.requests[:6]}) == 1 # the same request
    pauses = [b - a for a, b in zip(times, times[1:6])]
    assert pauses[0] >= 0.4 and 2 <= pauses[2] < 2.6 and pauses[4] > pauses[3], pauses
    assert "HTTP 503; trying again" in said and "the collector is back" in said, said
forget()

# One that does not answer is given up, and what it had already is not sent again.
with Collector() as collector:
    collector.script = ["ok", "stall"]
    result, said = send(collector, "--timeout", "5", "--patience", "1", status=2)
    assert "given up" in said and 0 < result["spans"] < len(everything), (said, result)
    send(collector)
    assert in_order(collector.spans) == everything
forget()
with socket.socket() as nobody:
    nobody.bind(("127.0.0.1", 0))
    url = f"http://127.0.0.1:{nobody.getsockname()[1]}"
    result, said = send(url, "--patience", "0", status=2)
    assert "given up" in said and result["spans"] == 0, said
assert not os.path.exists("run.csv.sent")

# Never again what is refused for good. What was merely addressed wrongly is still to be sent.
with Collector() as collector:
    collector.script = ["400", "partial 3"]
    result, said = send(collector, status=1)
    assert "HTTP 400" in said and "3 spans were rejected: no room" in said, said
    assert result["spans"] + result["rejected"] == len(everything)
    assert len(collector.spans) == result["spans"] and [r[0] for r in collector.requests].count("400") == 1
    assert send(collector)[0]["sent_before"] == len(everything)
    forget()
    collector.script = ["401"]
    result, said = send(collector, status=2)
    assert result == {"runs": 1, "spans": 0, "sent_before": 0, "rejected": 0, "requests": 0}, result
    assert "HTTP 401" in said and not os.path.exists("run.csv.sent")

# A request that is too large is parted; a span that is too large by itself is dropped.
big = "x" * 300_000
huge = "y" * 5_000_000
pathlib.Path("large.csv").write_text(
    HEADER + CLIENT + "".join(request(i * 1000, i + 2, (8, "text", f"{i}{big}")) for i in range(20)) +
    request(30_000, 40, (8, "text", huge)) + request(40_000, 41))
with Collector(most_bytes=400_000) as collector:
    result, said = send(collector, path="large.csv", status=1)
    assert result["rejected"] == 1 and "is too large" in said and result["spans"] == 22 * 3 - 1, (result, said)
    assert sum("text" in span["attributes"] for span in collector.spans) == 20
    assert max(r[1] for r in collector.requests) < 4 << 20
    assert [r[0] for r in collector.requests].count("413") <= 8 # it learns
    assert send(collector, path="large.csv")[0]["sent_before"] == 22 * 3

# A trace that another process has begun, wherever the root says so; and texts of all kinds.
kinds = (
    HEADER + CLIENT + request(2_000, 2, (8, "traceparent", GIVEN), (7, "rows", "5"), (8, "ratio", "-0.500000"),
                              (8, "ok", "true"), (8, "count", "-12"), (8, "code", "007"), (8, "huge", "9" * 19),
                              (8, "count", "13"), (8, "name", "caf\xe9 \"q")) +
    request(4_000, 3, (8, "traceparent", GIVEN.replace("00-", "ff-", 1))) +
    line(5_000, 0, 2, 0, 4) + line(5_000, 0, 3, 0, 4) + line(6_000, 4, 2, 0, 5) +
    line(9_000_000_000, 4, 8, "traceparent", GIVEN)).encode("latin-1")
for encoding in "protobuf", "json":
    pathlib.Path("kinds.csv").write_bytes(kinds)
    forget("kinds.csv")
    with Collector() as collector:
        send(collector, "--encoding", encoding, "--service", "shop", "--host", "red", path="kinds.csv")
        by_parts = {(s["name"], s["start"] - 1_700_000_000 * 10**9): s for s in collector.spans}
        first = by_parts["request", 2_000]
        roots = [s for s in collector.spans if s["parent"] == "b7ad6b7169203331"]
        assert [r["start"] % 10**9 for r in roots] == [2_000, 5_000], roots # the last one is told late
        assert all(r["trace"] == "0af7651916cd43dd8448eb211c80319c" for r in roots)
        assert roots[0]["attributes"] == {
            "thread.id": 71, "traceparent": GIVEN, "ratio": -0.5, "ok": True, "count": 13, "code": "007",
            "huge": "9" * 19, "name": "caf\ufffd \"q"}, roots[0]
        assert [type(v) for v in roots[0]["attributes"].values()] == [int, str, float, bool, int, str, str, str]
        assert roots[0]["events"] == [(1_700_000_000 * 10**9 + 2_000, "rows", {"value": 5})], roots[0]
        assert {"service.name": "shop", "host.name": "red", "process.pid": 70}.items() <= \
            roots[0]["resource"].items()
        (unsure,) = [s for s in collector.spans if s["name"] == "request" and not s["parent"]]
        assert unsure["trace"] != roots[0]["trace"] # the header was not valid
        # What is open at the end lasts until the last stamp, and no parent is missing.
        assert roots[1]["name"] == "(never used)" and roots[1]["end"] % 10**10 == 9_000_000_000
        ids = {s["id"] for s in collector.spans} | {"b7ad6b7169203331", ""}
        assert all(s["parent"] in ids and s["kind"] == 1 for s in collector.spans)
        assert send(collector, "--encoding", encoding, "--host", "red", path="kinds.csv")[0]["spans"] == 0
        # Some of what was open ends: it was sent, and is not sent again.
        with open("kinds.csv", "a") as file:
            file.write(line(9_100_000_000, 0, 4, 0, 4) + request(9_200_000_000, 6))
        assert send(collector, "--host", "red", path="kinds.csv")[0]["spans"] == 3


def follow(path, url, *others):
    process = subprocess.Popen([metrics, "send", path, *others, "--follow", "--otlp", url, "--json"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    atexit.register(process.kill)
    return process


def end(process, number=signal.SIGTERM):
    process.send_signal(number)
    out, said = process.communicate(timeout=60)
    return json.loads(out) if out else None, said


def names(spans):
    return sorted(s["id"] for s in spans)


# Along with a file that is not there yet, grows in pieces of lines, is emptied and begun anew, while
# the collector and the sender itself go away and come back.
collector = Collector().__enter__()
port = collector.port
process = follow("growing.csv", collector.url)
text = HEADER + CLIENT + "".join(request(i * 2_000, i + 2) for i in range(150))
with open("growing.csv", "w") as file:
    for begin in range(0, len(text), 20_011):
        file.write(text[begin:begin + 20_011])
        file.flush()
        whole = text[:begin + 20_011].rsplit("\n", 1)[0].count(",4,0,")
        collector.wait_for(lambda c: len(c.spans) >= 3 * whole)
    # It knows what it has sent: no request is under way.
    collector.wait_for(lambda c: f"[[1,{3 * 150}]]" in pathlib.Path("growing.csv.sent").read_text())
    process.kill()
    process.wait()
    process = follow("growing.csv", collector.url)
    collector.script = ["503", "close"]
    file.write("".join(request(i * 2_000, i + 2) for i in range(150, 300)))
    file.flush()
    collector.wait_for(lambda c: len(c.spans) >= 3 * 300)
    assert names(collector.spans) == names(converted("growing.csv")), "repeated, or missing"

    collector.__exit__() # away for a while
    before = len(collector.spans)
    file.write("".join(request(10_000_000 + i * 2_000, i + 1_000) for i in range(50)))
    file.flush()
    while "trying again" not in (said := process.stderr.readline()) or "HTTP" in said:
        assert said, "it has ended"
    collector = Collector(port).__enter__()
    collector.wait_for(lambda c: len(c.spans) >= 3 * 50)
    assert names(collector.spans) + [] == sorted(set(names(converted("growing.csv"))) & set(names(collector.spans)))
    assert len(collector.spans) == 3 * 50

    # What has ended is sent though its root goes on and the file pauses.
    file.write("".join(request(20_000_000, 2_000, (5, "early", 0), (6, "early", 0)).splitlines(True)[:-2]))
    file.flush()
    collector.wait_for(lambda c: c.spans[-1]["name"] == "early")
    file.write("".join(request(20_000_000, 2_000).splitlines(True)[-2:]))
    file.flush()
    collector.wait_for(lambda c: len(c.spans) >= 3 * 51 + 1)
    assert len(set(names(collector.spans))) == len(collector.spans) == 3 * 51 + 1

with open("growing.csv", "w") as file: # the program was started again
    file.write((HEADER + CLIENT + request(500, 2)).replace("17000", "17100"))
collector.wait_for(lambda c: len(c.spans) >= 3 * 52 + 1)
result, said = end(process)
assert process.returncode == 0 and result["spans"] >= 3 * 52 + 1, (result, said)
assert send(f"http://127.0.0.1:{port}", path="growing.csv")[0] == {
    "runs": 1, "spans": 0, "sent_before": 3, "rejected": 0, "requests": 0}

# A file that is replaced is read to its end first; one that is no file of events stops no other.
pathlib.Path("other.csv").write_text("no events\n")
pathlib.Path("turned.csv").write_text(HEADER + CLIENT + request(500, 2))
before = len(collector.spans)
process = follow("turned.csv", collector.url, "other.csv")
assert "other.csv:1: not a file of events" in process.stderr.readline()
collector.wait_for(lambda c: len(c.spans) >= before + 3)
process.send_signal(signal.SIGSTOP)
with open("turned.csv", "a") as file:
    file.write(request(4_000, 3))
pathlib.Path("fresh.csv").write_text((HEADER + CLIENT + request(500, 2)).replace("17000", "17100"))
os.rename("fresh.csv", "turned.csv")
pathlib.Path("other.csv").unlink()
pathlib.Path("other.csv").write_text((HEADER + CLIENT + request(500, 2)).replace("17000", "17200"))
process.send_signal(signal.SIGCONT)
collector.wait_for(lambda c: len(c.spans) >= before + 12)
result, said = end(process)
assert process.returncode == 0 and result["spans"] == 12 and result["runs"] == 2, (result, said)
pathlib.Path("other.csv").write_text("no events\n")
process = follow("other.csv", collector.url)
assert process.wait(60) == 2

# With the collector away the file waits, not the memory; and the end does not wait for it.
collector.__exit__()
with open("huge.csv", "wb") as file:
    subprocess.run([big_run, "1000000"], stdout=file, check=True)
process = follow("huge.csv", f"http://127.0.0.1:{port}")
assert "trying again" in process.stderr.readline()
peaks = [0]
while len(peaks) < 5 or peaks[-1] > peaks[-5]: # until it reads no more
    time.sleep(0.1)
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    peaks.append(int(status.split("VmHWM:")[1].split()[0]))
assert sanitizer or peaks[-1] < 80_000 < os.path.getsize("huge.csv") / 1024, f"{peaks} KB"
start = time.monotonic()
end(process, signal.SIGINT)
assert time.monotonic() - start < 10

# What cannot be.
assert run("send", "missing.csv", "--otlp", "http://127.0.0.1:1").returncode == 2
assert "not the address" in run("send", "run.csv", "--otlp", "collector:4318").stderr
print("all was sent once")
