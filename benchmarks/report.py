#!/usr/bin/env python3
"""Turns what the benchmarks wrote into build/bench/results.json, a table on the terminal and, with
--docs, the picture and the generated parts of docs/performance.md.

    report.py DIRECTORY [--docs]

The directory holds figures.json and calls-STATE.json (Google Benchmark), memory.json, crowd.json and
soak.json. What is missing there is left out here; parts of the document without new results stay as they are.
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
        if run["run_type"] == "iteration" and counter in run and not run.get("error_occurred"):
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


def topology(directory):
    """What the two cores have in common on which several threads were measured."""
    context = (load(directory / "figures.json") or {}).get("context", {})
    cores = context.get("cores", "").split()
    if not cores:
        return ""
    if cores[0] == cores[1]:
        return "one core only, for several threads too"
    processor = pathlib.Path(f"/sys/devices/system/cpu/cpu{cores[0]}")

    def read(path):
        return path.read_text().strip() if path.exists() else ""

    def members(text):
        for part in filter(None, text.split(",")):
            first, _, last = part.partition("-")
            yield from range(int(first), int(last or first) + 1)

    shared, own = [], []
    for cache in sorted(processor.glob("cache/index*")):
        name = f"L{read(cache / 'level')}" + {"Data": "d", "Instruction": "i"}.get(
            read(cache / "type"), "")
        both = int(cores[1]) in members(read(cache / "shared_cpu_list"))
        (shared if both else own).append(f"{name} ({read(cache / 'size')})")
    threads = len(list(members(read(processor / "topology/thread_siblings_list")))) or 1
    return (f"several threads on the processors {' and '.join(cores)}, two cores of {threads} hardware "
            f"thread{'s' if threads > 1 else ''} each, which share {', '.join(shared) or 'no cache'}"
            f"{' and have of their own ' + ', '.join(own) if own else ''}, as the kernel tells it")


def table(header, rows):
    lines = [header, ["---"] + ["--:"] * (len(header) - 1)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def number(value):
    if value is None:
        return "-"
    return f"{value:.2f}" if value < 10 else f"{value:.1f}" if value < 100 else f"{value:,.0f}"


def figures_table(f, shares, memory, crowd):
    """One row for each goal; f maps names to nanoseconds. What was not measured is left out, but a
    comparison with a peer that did not run is shown as such. Two threads that were not on their cores
    at once cost each other nothing, so then nothing is met; shares maps names to what they had."""
    sinks = [f[name] for name in ("spdlog-null 1", "spdlog-file 1") if name in f]
    if sinks:
        f["spdlog 1"] = min(sinks)
    rows = []

    def row(title, measured, compared, value, goal, met):
        rows.append([title, measured, compared, value, goal,
                     "-" if met is None else "yes" if met else "**no**"])

    def limit(title, value, unit, goal=None):
        if value is not None:
            row(title, f"{number(value)} {unit}", "-", "-", "-" if goal is None else f"{goal} {unit}",
                None if goal is None else value <= goal)

    def ratio(title, name, other_title, other, goal=None):
        measured, compared = f.get(name), f.get(other)
        value = None if measured is None or compared is None else measured / compared
        if measured is not None:
            share = shares.get(name, 1) if name.endswith(" 2") else 1
            if share < 0.75:
                goal, title = None, f"{title} (void: each had its core {share:.0%} of the time)"
            row(title, f"{number(measured)} ns",
                f"{other_title}: {'not measured' if compared is None else number(compared) + ' ns'}",
                number(value), "-" if goal is None else f"{goal:.2f}",
                None if value is None or goal is None else value <= goal)

    limit("filtered-out `Attribute`", f.get("filtered-attribute 1"), "ns", 2.5)
    limit("filtered-out `Scope`", f.get("filtered-scope 1"), "ns", 2.5)
    emit = "`Context::Emit`, two numbers"
    ratio(f"{emit}, 1 thread", "emit 1", "LTTng-UST", "lttng 1", 0.60)
    ratio("the same", "emit 1", "spdlog async", "spdlog 1", 0.30)
    ratio("the same", "emit 1", "one steady clock read", "clock-read 1", 1.7)
    ratio("the same", "emit 1", "two clock reads", "clock-reads 1")
    ratio(f"{emit}, 2 threads", "emit 2", "LTTng-UST, 2 threads", "lttng 2", 0.70)
    ratio("the same", "emit 2", "1 thread", "emit 1", 1.3)
    for threads, goal in ((1, 0.65), (2, 0.75)):
        ratio(f"bursts of 400,000 from fresh threads, {threads} at once", f"fresh-emit-{threads} 1",
              "LTTng-UST", f"fresh-lttng-{threads} 1", goal)
    for threads in (1, 2, 4, 8):
        measured, two = f.get(f"ladder-{threads} 1"), f.get("ladder-2 1")
        if measured is not None:
            compared = two is not None and threads != 2
            row(f"{threads} thread{'s' if threads > 1 else ''} on two cores",
                f"{1e3 / measured:.1f} million events in a second",
                f"2 threads: {1e3 / two:.1f} million" if compared else "-",
                f"{two / measured:.2f}" if compared else "-",
                "at least 0.90" if threads == 8 else "-",
                two / measured >= 0.9 if compared and threads == 8 else None)
    ratio("1 thread, caches cold", "cold-emit 1", "LTTng-UST", "cold-lttng 1", 0.25)
    limit("the same", f.get("cold-emit 1"), "ns", 600)
    ratio('`Attribute("name", "some value")`', "attribute-texts 1", emit, "emit 1", 1.5)
    ratio("`Scope` with a label, opened and closed", "scope 1", emit, "emit 1", 2.3)
    ratio("emitted and delivered, for each event", "sustained 1", "two clock reads", "clock-reads 1", 1.1)
    ratio("with a synchronous consumer, 2 threads", "emit-synchronous 2", "1 thread",
          "emit-synchronous 1", 1.3)
    ratio(f"{emit}, nobody registered", "emit-to-nobody 1", "with a consumer", "emit 1")
    if memory:
        nobody, somebody = memory["to_nobody"], memory["to_a_consumer"]
        worked = nobody["delivery_ns"] / somebody["delivery_ns"]
        row("delivery thread, nobody registered, for each event", f"{number(nobody['delivery_ns'])} ns",
            f"with a consumer: {number(somebody['delivery_ns'])} ns", f"{worked:.2f}", "0.25",
            worked <= 0.25)
        limit("resident memory, nobody registered, grows in five seconds by", nobody["growth"] / 1e6, "MB", 4)
        limit("resident for each queued event, two numbers", memory["bytes"], "bytes", 72)
        limit("resident for each queued event, a short name and a number", memory["name_bytes"],
              "bytes", 96)
        for kind, value in memory["text_allocations"].items():
            row(f"allocations for a call with {kind}", f"{value:.3f}", "-", "-", "0", value < 0.001)
    if memory and "trace" in memory:
        for client, goals in (("trace", (40, 56)), ("csv", (None, None))):
            title = f"delivery thread, {client} client, for each event, a counting consumer's taken off"
            limit(title, memory[client]["delivery_ns"] - memory["counting_ns"], "ns", goals[0])
            limit(f"{client} client, written for each event", memory[client]["bytes"], "bytes", goals[1])
    ratio("LTTng-UST's consumer process, for each event", "lttng-consumer 1", "LTTng-UST, the emitter",
          "lttng 1")
    if crowd:
        for name, title, goal in (("300 threads", "300 threads that compute and emit", 3),
                                  ("100 threads", "100 threads, in bursts of 3,000", None)):
            flushes = crowd[name]["flushes"]
            title += f", delivery thread at nice {crowd['nice']}"
            seconds = sorted(flush["seconds"] for flush in flushes)
            row(f"{title}: a flush, the slowest of {len(flushes)}", f"{seconds[-1]:.2f} s"
                f"{'' if all(flush['all'] for flush in flushes) else ', without delivering all'}",
                f"median: {statistics.median(seconds):.2f} s", "-", f"{goal} s" if goal else "-",
                goal and all(flush["all"] and flush["seconds"] <= goal for flush in flushes))
            limit("the same: resident memory at most", crowd[name]["resident"] / 1e6, "MB")
    ratio("CSV client, for each line", "csv-client 1", "bare write(2)", "csv-write 1", 1.25)
    limit("spdlog, level off", f.get("spdlog-disabled 1"), "ns")
    limit("LTTng-UST, tracepoint off", f.get("lttng-disabled 1"), "ns")
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
        f"- {m['bytes']:.0f} bytes of resident memory for each queued event with two numbers, "
        f"{m['name_bytes']:.0f} with a short name and a number.",
        f"- {m['growing_allocations']:.4f} allocations for each event while the queue grows, "
        f"{m['steady_allocations']:.5f} in a steady flow of bursts.",
        "- Allocations for a call, by what is given as characters: " + ", ".join(
            f"{value:.3f} with {kind}" for kind, value in m["text_allocations"].items()) + ".",
        f"- 1,000 events in a millisecond, for 2 s: the delivery thread works "
        f"{m['to_a_consumer']['delivery_ns']:.1f} ns for each with a consumer that counts, "
        f"{m['to_nobody']['delivery_ns']:.1f} ns with nobody registered.",
        f"- {m['growing_ns']:.0f} ns for each event while the queue grows, most of it the "
        "kernel's first touch of each page.",
        f"- After a burst of two million events was delivered, {m['left_at_last']:.1%} of its memory "
        f"was still resident after {m['given_back_seconds']:.1f} s.",
        f"- {m['after_3_bursts'] / 1e6:.0f} MB resident after 3 bursts of 400,000 events, each "
        f"delivered when it is complete, and {m['after_15_bursts'] / 1e6:.0f} MB after 15.",
        f"- Instructions in user space: {instructions['filtered']} for a filtered call, "
        f"{instructions['accepted']} for an accepted one, {instructions['texts']} for an attribute with "
        "two short texts, with the clock reads as system calls.",
    ])


def soak_tables(soak):
    parts = []
    recorder = f"The trace client, {'everything' if soak['records_all'] else 'NOT everything'} written"
    for name, title in (("counted", "A consumer that counts"), ("recorded", recorder),
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
    bars = [("one clock read", "clock-read {}"), ("two clock reads", "clock-reads {}"), ("metrics", "emit {}"),
            ("LTTng-UST", "lttng {}"), (r"spdlog async,\nnull sink", "spdlog-null {}"),
            (r"spdlog async,\nfile", "spdlog-file {}")]
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
        set bmargin 4
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
    shares = medians(directory / "figures.json", "share")
    memory, crowd, soak = (load(directory / f"{name}.json") for name in ("memory", "crowd", "soak"))
    counted = dict(line.split() for line in
                   (ROOT / "benchmarks/instructions.txt").read_text().splitlines())
    run = "; ".join(filter(None, [machine(), topology(directory), str(datetime.date.today())]))
    (directory / "results.json").write_text(json.dumps(
        {"run": run, "figures_ns": figures, "percentiles_ns": singles, "core_shares": shares,
         "calls_ns": calls, "memory": memory, "crowd": crowd, "instructions": counted, "soak": soak}, indent=1) + "\n")

    parts = {}
    if figures or memory or crowd:
        parts["figures"] = f"{run}\n\n{figures_table(figures, shares, memory, crowd)}"
    if any(name.startswith("single-") for name in figures):
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
