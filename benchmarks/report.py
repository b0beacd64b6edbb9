#!/usr/bin/env python3
"""Turns what the benchmarks wrote into build/bench/results.json, a table on the terminal and, with
--docs, the picture and the generated parts of docs/performance.md.

    report.py DIRECTORY [--docs]

The directory holds figures.json and calls-STATE.json (Google Benchmark), memory.json and soak.json.
What is missing there is left out here; parts of the document without new results stay as they are.
"""

import datetime
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
STATES = ["idle", "off", "accepted", "synchronous"]


def load(path):
    return json.loads(path.read_text()) if path.exists() else None


def medians(path, counter="ns"):
    """The median over the repetitions of a counter, by the benchmark's name and number of threads."""
    times = {}
    runs = (load(path) or {"benchmarks": []})["benchmarks"]
    for run in sorted(runs, key=lambda run: run["family_index"]):
        name = re.fullmatch(r"(?:figure|call)/(.+)/iterations:\d+/manual_time/threads:(\d)",
                            run["run_name"])
        if run["run_type"] == "iteration" and "ns" in run and not run.get("error_occurred"):
            times.setdefault(f"{name[1]} {name[2]}", []).append(run[counter])
    return {name: statistics.median(values) for name, values in times.items()}


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    flags = re.search(r"flags\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    virtual = flags is not None and "hypervisor" in flags[1].split()
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True,
                              check=False)
    return (f"{os.cpu_count()} x {cpu[1] if cpu else os.uname().machine}"
            f"{' (virtual)' if virtual else ''}, "
            f"Linux {os.uname().release}, g++ {compiler.stdout.strip()}")


def table(header, rows):
    lines = [header, ["---"] + ["--:"] * (len(header) - 1)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def number(value):
    if value is None:
        return "-"
    return f"{value:.2f}" if value < 10 else f"{value:.1f}" if value < 100 else f"{value:,.0f}"


def figures_table(f):
    """One row for each goal; f maps names to nanoseconds."""
    sinks = [f[name] for name in ("spdlog-null 1", "spdlog-file 1") if name in f]
    f["spdlog 1"] = min(sinks) if sinks else None
    rows = []

    def row(title, name, other_title=None, other=None, goal=None):
        measured, compared = f.get(name), f.get(other)
        value = measured
        if measured is None or (other and compared is None):
            value = None
        elif other:
            value = measured / compared
        met = "-" if value is None or goal is None else "yes" if value <= goal else "**no**"
        rows.append([
            title, f"{number(measured)} ns",
            f"{other_title}: {number(compared)} ns" if other else "-",
            number(value) if other else "-",
            "-" if goal is None else f"{goal:.2f}" if other else f"{goal} ns", met])

    row("filtered-out `Attribute`", "filtered-attribute 1", goal=2.5)
    row("filtered-out `Scope`", "filtered-scope 1", goal=2.5)
    row("accepted `Context::Emit`, 1 thread", "emit 1", "LTTng-UST", "lttng 1", 0.80)
    row("the same", "emit 1", "spdlog async", "spdlog 1", 0.30)
    row("accepted `Context::Emit`, 2 threads", "emit 2", "LTTng-UST", "lttng 2", 1.5)
    row("accepted `Context::Emit`", "emit 1", "two clock reads", "clock-reads 1", 2.2)
    row("emitted and delivered, for each event", "sustained 1", "two clock reads", "clock-reads 1", 2.7)
    row("CSV client, for each line", "csv-client 1", "bare write(2)", "csv-write 1", 1.25)
    row("spdlog, level off", "spdlog-disabled 1")
    row("LTTng-UST, tracepoint off", "lttng-disabled 1")
    return table(["figure", "measured", "compared with", "ratio", "goal", "met"], rows)


def singles_table(by_part):
    """How the time of a call varies; by_part maps "ns", "p99" and "p99.9" to medians."""
    titles = {"clock-reads 1": "two clock reads", "emit 1": "metrics", "lttng 1": "LTTng-UST",
              "spdlog 1": "spdlog async", "emit 2": "metrics, 2 threads",
              "lttng 2": "LTTng-UST, 2 threads", "spdlog 2": "spdlog async, 2 threads"}
    return table(["one call, ns", "50 %", "99 %", "99.9 %"], [
        [title] + [number(part.get(f"single-{name}")) for part in by_part.values()]
        for name, title in titles.items()])


def calls_table(calls):
    columns = [(state, 1) for state in STATES] + [("accepted", 2), ("synchronous", 2)]
    names = list(dict.fromkeys(name.rsplit("/", 1)[0] for name in calls))
    header = ["call, ns"] + [f"{state}{', 2 threads' if n == 2 else ''}" for state, n in columns]
    return table(header, [[name] + [
        number(calls.get(f"{name}/{state} {n}")) for state, n in columns] for name in names])


def memory_list(m, instructions):
    return "\n".join([
        f"- {m['bytes']:.0f} bytes of resident memory for each queued event.",
        f"- {m['growing_malloc'] + m['growing_tbb']:.4f} allocations for each event while the "
        f"buffer grows, {m['steady_malloc'] + m['steady_tbb']:.5f} in a steady flow of bursts.",
        f"- {m['short_text_allocations']:.3f} allocations for an event with a text of up to 15 bytes, "
        f"{m['long_text_allocations']:.3f} with a longer one.",
        f"- {m['growing_ns']:.0f} ns for each event while the buffer grows, most of it the "
        "kernel's first touch of each page.",
        f"- After a burst of a million events was delivered, {m['left_at_last']:.1%} of its memory "
        f"was still resident after {m['given_back_seconds']:.1f} s.",
        f"- {m['after_3_bursts'] / 1e6:.0f} MB resident after 3 bursts of 400,000 events, each "
        f"delivered when it is complete, and {m['after_15_bursts'] / 1e6:.0f} MB after 15.",
        f"- Instructions in user space: {instructions['filtered']} for a filtered call, "
        f"{instructions['accepted']} for an accepted one, with the clock reads as system calls.",
    ])


def soak_tables(soak):
    parts = []
    for name, title in (("keeps_up", "A consumer that keeps up"),
                        ("slow", "A consumer that takes longer than the emitters")):
        samples = soak[name]
        emitting = [s for s in samples if s[1] < samples[-1][1]] or samples
        stop = next((s for s in samples if s[1] == samples[-1][1]), samples[-1])
        drained = next((s for s in samples if s[0] >= stop[0] and s[2] >= s[1]), samples[-1])
        backlog = max(s[1] - s[2] for s in samples)
        step = max(1, len(samples) // 10)
        parts.append(
            f"{title}: {stop[1] / max(stop[0], 0.1):,.0f} events emitted and "
            f"{emitting[-1][2] / max(emitting[-1][0], 0.1):,.0f} delivered in a second; largest "
            f"backlog {backlog:,} events; delivered to the last one {drained[0] - stop[0]:.1f} s "
            f"after the last emit.\n\n" +
            table(["second", "emitted", "delivered", "backlog", "resident MB"],
                  [[f"{s[0]:.0f}", f"{s[1]:,}", f"{s[2]:,}", f"{max(0, s[1] - s[2]):,}",
                    f"{s[3] / 1e6:.0f}"] for s in samples[::step] + [samples[-1]]]))
    return "\n\n".join(parts)


def draw(f, directory, picture):
    bars = [("two clock reads", "clock-reads {}"), ("metrics", "emit {}"),
            ("LTTng-UST", "lttng {}"), ("spdlog async, null sink", "spdlog-null {}"),
            ("spdlog async, file", "spdlog-file {}")]
    data = directory / "picture.dat"
    data.write_text("".join(
        f'"{title}" {f.get(key.format(1), 0)} {f.get(key.format(2), 0)}\n' for title, key in bars))
    subprocess.run(["gnuplot"], check=True, text=True, input=f"""
        set terminal svg size 800,360 font 'sans-serif,13' background 'white'
        set output '{picture}'
        set title 'One accepted call with two numbers, on the emitting thread'
        set style data histogram
        set style histogram clustered gap 1
        set style fill solid 0.85 noborder
        set boxwidth 0.9
        set grid ytics
        set yrange [0:*]
        set ylabel 'nanoseconds'
        set key top left
        plot '{data}' using 2:xtic(1) title '1 thread' linecolor rgb '#4477aa', \\
             '' using 3 title '2 threads' linecolor rgb '#ee7733'
        """)


def replace_part(text, name, content):
    begin, end = f"<!-- generated: {name} -->", "<!-- end -->"
    pattern = re.compile(re.escape(begin) + ".*?" + re.escape(end), re.DOTALL)
    if not pattern.search(text):
        raise SystemExit(f"docs/performance.md has no part {name}")
    return pattern.sub(lambda _: f"{begin}\n{content}\n{end}", text)


def main():
    directory = pathlib.Path(sys.argv[1])
    figures = medians(directory / "figures.json")
    calls = {}
    for state in STATES:
        calls |= medians(directory / f"calls-{state}.json")
    singles = {part: medians(directory / "figures.json", part) for part in ("ns", "p99", "p99.9")}
    memory, soak = load(directory / "memory.json"), load(directory / "soak.json")
    counted = dict(line.split() for line in
                   (ROOT / "benchmarks/instructions.txt").read_text().splitlines())
    run = f"{machine()}; {datetime.date.today()}"
    (directory / "results.json").write_text(json.dumps(
        {"run": run, "figures_ns": figures, "percentiles_ns": singles, "calls_ns": calls, "memory": memory,
         "instructions": counted, "soak": soak}, indent=1) + "\n")

    parts = {}
    if figures:
        parts["figures"] = f"{run}\n\n{figures_table(figures)}"
        parts["singles"] = singles_table(singles)
    if calls:
        parts["calls"] = calls_table(calls)
    if memory:
        parts["memory"] = memory_list(memory, counted)
    if soak:
        parts["soak"] = f"{run}\n\n{soak_tables(soak)}"
    print("\n\n".join(parts.values()))
    if "--docs" in sys.argv:
        document = ROOT / "docs/performance.md"
        text = document.read_text()
        for name, content in parts.items():
            text = replace_part(text, name, content)
        document.write_text(text)
        if figures:
            draw(figures, directory, ROOT / "docs/performance.svg")


main()
