"""speedscope_test.py METRICS WORDCOUNT SPEEDSCOPE: opens a run in speedscope, whose page is in that
file, in Debian's Chromium."""

import base64
import json
import os
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "timeline"))
import browser  # noqa: E402

metrics, wordcount, page = sys.argv[1:]
if not browser.is_there() or not os.path.exists(page):
    print(f"no browser, or no {page}, so no run is opened in speedscope")
    sys.exit(77)

with tempfile.TemporaryDirectory() as folder, browser.Browser() as chromium:
    run, trace = folder + "/run.csv", folder + "/run.json"
    subprocess.run([wordcount, "-raw=" + run, pathlib.Path(__file__).parent], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([metrics, "convert", run, "--to", "chrome", "-o", trace], check=True)
    report = json.loads(subprocess.run([metrics, "report", run, "--json"], check=True, capture_output=True).stdout)
    threads = {e["tid"] for e in json.loads(pathlib.Path(trace).read_text())["traceEvents"] if e["ph"] == "B"}

    # So the page loads a profile without a server.
    pathlib.Path(folder + "/load.js").write_text("speedscope.loadFileFromBase64('run.json', '%s')" %
                                                 base64.b64encode(pathlib.Path(trace).read_bytes()).decode())
    chromium.visit(f"file://{page}#localProfilePath={folder}/load.js")
    tab = "[...document.querySelectorAll('div')].filter(d => d.innerText?.trim().endsWith('Sandwich')).pop()"
    assert chromium.wait(f"!!{tab}", 20), chromium.text("body")
    chromium.run(f"{tab}.click()")
    shown = set()
    for _ in threads: # it shows one at a time
        assert chromium.wait("!!document.querySelector('table')", 20)
        shown |= set(chromium.run("return [...document.querySelectorAll('tr')].map(r => r.cells[2].innerText.trim())"))
        chromium.keys("n")
        chromium.wait("true")
    missing = {label["label"] for label in report["labels"]} - shown
    assert not missing, (missing, shown)
    assert "wait for workers" in shown and len(threads) > 1, shown
print("every label is shown")
