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

failed = False
for form in "otlp", "chrome", "table":
    start = time.monotonic()
    subprocess.run([metrics, "convert", "run.csv", "--to", form, "-o", "out"], check=True)
    seconds = time.monotonic() - start
    print(f"{form}: {seconds:.2f} s for a million spans")
    failed |= seconds > 3
with open("out.spans.csv", "rb") as file:
    spans = sum(1 for _ in file) - 1
assert spans > 1_000_000, spans

collector = os.path.join(os.path.dirname(os.path.abspath(__file__)), "collector.py")
with subprocess.Popen([sys.executable, "-B", collector], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as it:
    url = it.stdout.readline().strip()
    start = time.monotonic()
    subprocess.run([metrics, "send", "run.csv", "--otlp", url], check=True)
    rate = spans / (time.monotonic() - start)
    print(f"send: {rate:,.0f} spans in a second")
    failed |= rate < 100_000
    said, _ = it.communicate()
assert f"{spans} spans" in said, said
sys.exit(failed)
