"""rate_test.py METRICS BIG_RUN: whether a million spans are converted and sent as fast as is promised."""

import os
import subprocess
import sys
import tempfile
import time

metrics, big_run = sys.argv[1:]
os.chdir(tempfile.mkdtemp())
with open("run.csv", "wb") as file:
    subprocess.run([big_run, "800000"], stdout=file, check=True) # and the waits

def fastest(measure, is_enough):
    """The best of three: other work on the machine makes everything slower, and nothing faster."""
    best = measure()
    for _ in range(2):
        if is_enough(best):
            break
        best = min(best, measure())
    return best


def timed(*command):
    start = time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return time.monotonic() - start


failed = False
for form in "otlp", "chrome", "table":
    seconds = fastest(lambda: timed(metrics, "convert", "run.csv", "--to", form, "-o", "out"), lambda s: s <= 3)
    print(f"{form}: {seconds:.2f} s for a million spans")
    failed |= seconds > 3
with open("out.spans.csv", "rb") as file:
    spans = sum(1 for _ in file) - 1
assert spans > 1_000_000, spans


def send():
    collector = os.path.join(os.path.dirname(os.path.abspath(__file__)), "collector.py")
    with subprocess.Popen([sys.executable, "-B", collector], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as it:
        seconds = timed(metrics, "send", "run.csv", "--otlp", it.stdout.readline().strip())
        said, _ = it.communicate()
    os.unlink("run.csv.sent")
    assert f"{spans} spans" in said, said
    return seconds


rate = spans / fastest(send, lambda s: spans / s >= 100_000)
print(f"send: {rate:,.0f} spans in a second")
sys.exit(failed or rate < 100_000)
