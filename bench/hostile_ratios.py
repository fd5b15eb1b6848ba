#!/usr/bin/env python3
"""Runs hostile_bench several times and prints the time of 10n over n.

    hostile_ratios.py BUILD [--runs 3] [--filter REGEX]

Every benchmark of bench/hostile_bench.cc runs at two sizes, n and 10n; a
linear cost gives a ratio of about 10. On a shared virtual machine a whole
process can land in a slow or a fast phase of the memory system, which
moves single ratios by a third, so each run is a process of its own (with
three repetitions inside, of which the median is taken) and the table gives
each run's ratio and their median. The table goes to stdout in Markdown and
to BUILD/hostile-results.md.
"""

import argparse
import datetime
import json
import os
import statistics
import subprocess
import sys


def one_run(program, pattern):
    """{benchmark name: {size: median real time in ms}} of one process."""
    command = [program, "--benchmark_repetitions=3", "--benchmark_min_time=1",
               "--benchmark_report_aggregates_only=true", "--benchmark_format=json"]
    if pattern:
        command.append("--benchmark_filter=" + pattern)
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    times = {}
    for entry in json.loads(output)["benchmarks"]:
        if entry.get("aggregate_name") != "median":
            continue
        name, size = entry["run_name"].split("/")[:2]
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[entry["time_unit"]]
        times.setdefault(name.removeprefix("BM_"), {})[int(size)] = entry["real_time"] * scale
    return times


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--filter", default="")
    args = parser.parse_args()
    program = os.path.join(args.build, "bench", "hostile_bench")

    runs = []
    for index in range(args.runs):
        print(f"run {index + 1} of {args.runs}", file=sys.stderr)
        runs.append(one_run(program, args.filter))

    head = "| benchmark | n (ms) | 10n (ms) | " + " | ".join(f"run {i + 1}" for i in range(args.runs))
    lines = [head + " | median ratio |", "|---|---:|---:|" + "---:|" * args.runs + "---:|"]
    for name, sizes in runs[0].items():
        small, large = sorted(sizes)
        ratios = [run[name][large] / run[name][small] for run in runs]
        cells = " | ".join(f"{ratio:.1f}" for ratio in ratios)
        lines.append(f"| {name} | {statistics.median(r[name][small] for r in runs):.3g} | "
                     f"{statistics.median(r[name][large] for r in runs):.3g} | {cells} | "
                     f"{statistics.median(ratios):.1f} |")
    stamp = f"Measured {datetime.date.today()} on {os.cpu_count()} cores; 10n/n time ratios.\n\n"
    table = "\n".join(lines) + "\n"
    print(table)
    with open(os.path.join(args.build, "hostile-results.md"), "w") as out:
        out.write(stamp + table)


if __name__ == "__main__":
    main()
