#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints one table of ratios from the JSON output of the benchmark programs.

    table.py FILE...

Each FILE is named NAMEBenchmark.ROUND.json and contains the output of one run of a program. Ratios compare times of the
same run. Exits with 1 if a bound is missed by more than the spread.
"""
import json
import os
import re
import statistics
import sys

SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
HEADER = ["", "ours", "compared with", "theirs", "ratio", "", "bound", ""]
RIGHT_ALIGNED = (1, 3, 4, 5, 6)
LEGEND = """
A ratio is our time divided by theirs: the median over all runs, ± half of the interquartile range. MISS? marks a miss
within this spread. Times are medians of processor time or, in rows with a star, of wall-clock time."""


class Measured:
    """One registered benchmark, with the times of its repetitions in each run of the program."""

    def __init__(self, name):
        self.what, self.role, rest = name.split("|")
        self.name = re.sub(r"(/(iterations:\d+|repeats:\d+|real_time|process_time))+$", "", rest)
        self.is_real_time = rest.endswith("/real_time")
        self.seconds = {}
        self.counters = {}

    def add(self, path, run):
        time = run["real_time"] if self.is_real_time else run["cpu_time"]
        seconds = run.get("seconds", time * SECONDS[run["time_unit"]])  # a time that the program measured itself
        self.seconds.setdefault(path, []).append(seconds)
        self.counters = {key: run[key] for key in ("bound", "bytes", "limit") if key in run}

    def medians(self):
        return [statistics.median(seconds) for seconds in self.seconds.values()]

    def median(self):
        return statistics.median(self.medians())


def read(paths):
    """Returns the benchmarks of one program by row, in order of registration."""
    benchmarks = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = [run for run in json.load(file)["benchmarks"] if run["run_type"] == "iteration"]
        for run in sorted(runs, key=lambda run: run["family_index"]):
            benchmarks.setdefault(run["run_name"], Measured(run["run_name"])).add(path, run)
    rows = {}
    for measured in benchmarks.values():
        rows.setdefault(measured.what, []).append(measured)
    return rows


def readable(seconds):
    for unit, factor in (("ns", 1e9), ("µs", 1e6), ("ms", 1e3), ("s", 1)):
        number = f"{seconds * factor:#.3g}"
        if "e" not in number:
            return f"{number.rstrip('.')} {unit}"
    return f"{seconds:.0f} s"


def verdict(value, bound, spread=0.0):
    if value <= bound:
        return "ok"
    return "MISS" if value - spread > bound else "MISS?"


def lines_of(what, row):
    """Returns the lines of one row: one for each measurement that ours is compared with."""
    ours = row[0]
    if ours.role == "bytes":
        count, limit = ours.counters["bytes"], ours.counters["limit"]
        return [[what, f"{count / 1000:.0f} kB", "", "", "", "", f"{limit / 1000:.0f} kB", verdict(count, limit)]]
    lines = []
    for theirs in row[1:]:
        ratios = [a / b for a, b in zip(ours.medians(), theirs.medians())]
        ratio = round(statistics.median(ratios), 2)
        quartiles = statistics.quantiles(ratios, n=4) if len(ratios) > 1 else ratios
        spread = (quartiles[-1] - quartiles[0]) / 2
        bound = theirs.counters.get("bound")
        lines.append(["", "", theirs.name, readable(theirs.median()), f"{ratio:.2f}", f"±{spread:.2f}",
                      f"{bound:.2f}" if bound else "", verdict(ratio, bound, spread) if bound else ""])
    lines[0][:2] = [what + (" *" if ours.is_real_time else ""), readable(ours.median())]
    return lines


def main():
    programs = {}
    for path in sys.argv[1:]:
        programs.setdefault(os.path.basename(path).split("Benchmark.")[0], []).append(path)
    lines = [HEADER]
    for program, paths in programs.items():
        lines.append([program] + [""] * (len(HEADER) - 1))
        for what, row in read(paths).items():
            lines += lines_of("  " + what, row)
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEADER))]
    for line in lines:
        cells = [cell.rjust(width) if column in RIGHT_ALIGNED else cell.ljust(width)
                 for column, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())
    print(LEGEND)
    missed = sum(line[-1] == "MISS" for line in lines)
    print(f"Missed: {missed} of the bounds." if missed else "No bound is missed by more than the spread.")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
