#!/usr/bin/env python3
"""Turns Google Benchmark JSON results into ratio tables (Markdown).

usage: ratios.py RESULT.json... > tables.md

Benchmark names read Case/Implementation[/variant...]. In each case the implementation
whose name starts with "base:" is the baseline; every row is divided by the baseline of
the same case and variant, or, when there is none, by the case's baseline without
variant. A ratio below 1 means faster than the baseline. With repetitions the median is
reported, with its coefficient of variation as the spread.
"""

import json
import os
import statistics
import sys

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def split_name(run_name):
    parts = run_name.split("/")
    case = parts[0]
    impl = parts[1] if len(parts) > 1 else ""
    variant = "/".join(parts[2:])
    return case, impl, variant


def time_ns(entry, run_name):
    # Multi-threaded benchmarks run with real time; the others report CPU time.
    key = "real_time" if "/real_time" in run_name else "cpu_time"
    return entry[key] * UNIT_NS[entry.get("time_unit", "ns")]


def collect(path):
    with open(path) as f:
        data = json.load(f)
    runs = {}  # run_name -> {"times": [...], "median": x, "cv": y}
    order = []
    for entry in data.get("benchmarks", []):
        if entry.get("error_occurred"):
            continue
        run_name = entry.get("run_name", entry["name"])
        if run_name not in runs:
            runs[run_name] = {"times": [], "median": None, "cv": None}
            order.append(run_name)
        run = runs[run_name]
        if entry.get("run_type") == "aggregate":
            if entry.get("aggregate_name") == "median":
                run["median"] = time_ns(entry, run_name)
            elif entry.get("aggregate_name") == "cv":
                key = "real_time" if "/real_time" in run_name else "cpu_time"
                run["cv"] = entry[key]
        else:
            run["times"].append(time_ns(entry, run_name))
    rows = []
    for run_name in order:
        run = runs[run_name]
        t = run["median"]
        if t is None and run["times"]:
            t = statistics.median(run["times"])
        if t is None:
            continue
        case, impl, variant = split_name(run_name)
        rows.append({"case": case, "impl": impl, "variant": variant, "ns": t, "cv": run["cv"]})
    return data.get("context", {}), rows


def fmt_ns(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} us"
    return f"{ns:.1f} ns"


def table(rows):
    baselines = {(r["case"], r["variant"]): r for r in rows if r["impl"].startswith("base:")}
    lines = [
        "| case | variant | implementation | time | spread | baseline | ratio |",
        "|---|---|---|---:|---:|---|---:|",
    ]
    # Baseline first in each group, then the others in the order they ran.
    groups = {}
    for r in rows:
        groups.setdefault(r["case"], []).append(r)
    for case, members in groups.items():
        members.sort(key=lambda r: (r["variant"], not r["impl"].startswith("base:")))
        for r in members:
            base = baselines.get((case, r["variant"])) or baselines.get((case, ""))
            if base is None:
                base_text, ratio = "none", "n/a"
            else:
                base_text = base["impl"][len("base:"):]
                ratio = f"{r['ns'] / base['ns']:.2f}"
            spread = f"{r['cv'] * 100:.1f}%" if r["cv"] is not None else ""
            shown = "/".join(p for p in r["variant"].split("/") if p and p != "real_time")
            lines.append(
                f"| {case} | {shown or '-'} | {r['impl']} | {fmt_ns(r['ns'])} | "
                f"{spread} | {base_text} | {ratio} |"
            )
    return "\n".join(lines)


def main(paths):
    if not paths:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 64
    out = []
    context_line = None
    for path in paths:
        context, rows = collect(path)
        if context_line is None and context:
            load = context.get("load_avg")
            context_line = (
                f"Machine: {context.get('num_cpus', '?')} CPUs at "
                f"{context.get('mhz_per_cpu', '?')} MHz"
                + (f", load average {', '.join(f'{x:.2f}' for x in load)}" if load else "")
                + f"; run {context.get('date', '?')}."
            )
        name = os.path.splitext(os.path.basename(path))[0]
        out.append(f"### {name}\n\n{table(rows) if rows else '(no results)'}\n")
    if context_line:
        out.insert(0, context_line + "\n")
    print("\n".join(out), end="")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
