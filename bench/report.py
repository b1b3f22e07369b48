#!/usr/bin/env python3
"""Prints the figures of a benchmark run as a table.

usage: report.py [--wall] FILE...

FILE is what rastkit_bench wrote with --benchmark_out=FILE. A row's time is the shortest of all its
repetitions. MB/s counts bytes of pixels, not of files; the floor is the row that stands in the label. With
--wall the time of the clock counts instead of the thread's own, as it must where files are on a disk.
"""

import json
import sys


class Row:
    """The repetitions of one row."""

    def __init__(self, name):
        self.name = name
        self.beside = ""
        self.seconds = float("inf")
        self.pixel_bytes = 0
        self.goal = None
        self.error = ""

    def add(self, run, clock):
        if run.get("error_occurred"):
            self.error = run.get("error_message") or "failed"
            return
        self.beside = run.get("label", "")
        self.seconds = min(self.seconds, run[clock])
        self.pixel_bytes = run["pixel_bytes"]
        for kind in GOALS:
            if f"goal_{kind}" in run:
                self.goal = (kind, run[f"goal_{kind}"])

    def speed(self):
        return self.pixel_bytes / self.seconds / 1e6


# For each kind of goal how it is written, and whether a row reaches it: from MB/s and from the time of the row
# as a multiple of that of the row beside.
GOALS = {
    "times_beside": ("≤ {:g}", lambda goal, speed, ratio: ratio <= goal),
    "times_faster": ("≤ 1/{:g}", lambda goal, speed, ratio: ratio <= 1 / goal),
    "megabytes": ("≥ {:g} MB/s", lambda goal, speed, ratio: speed >= goal),
}


def read_rows(files, clock):
    rows = {}
    contexts = []
    for file in files:
        with open(file, encoding="utf-8") as opened:
            output = json.load(opened)
        contexts.append(output["context"])
        for run in output["benchmarks"]:
            if run.get("run_type") == "iteration":
                # Google Benchmark adds how a row was run to its name.
                name = run["run_name"].split("/iterations:")[0]
                rows.setdefault(name, Row(name)).add(run, clock)
    return rows, contexts


def written(ratio):
    """1.25, or 1/8.0 for what is much faster than the row beside."""
    return f"{ratio:.2f}" if ratio > 0.5 else f"1/{1 / ratio:.1f}"


def cells_of(row, rows):
    """The columns of a row's line."""
    if row.error:
        return [row.name, "", "", "", "", row.error.upper()]
    beside = rows.get(row.beside)
    ratio = row.seconds / beside.seconds if beside and not beside.error else None
    cells = [row.name, f"{row.speed():.0f}"]
    cells += [f"{beside.speed():.0f}", written(ratio)] if ratio is not None else ["", ""]
    if not row.goal:
        return cells + ["", ""]
    text, is_met = GOALS[row.goal[0]]
    # Without the row beside, left out by a filter for instance, nothing can be said about a ratio.
    unknown = ratio is None and row.goal[0] != "megabytes"
    met = "?" if unknown else "yes" if is_met(row.goal[1], row.speed(), ratio) else "NO"
    return cells + [text.format(row.goal[1]), met]


def print_table(lines):
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    for line in lines:
        cells = [cell.ljust(width) if i in (0, 5) else cell.rjust(width)
                 for i, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())


def print_context(context):
    load = ", ".join(f"{value:.1f}" for value in context.get("load_avg", []))
    print(f"{context['date']}: {context['num_cpus']} processors of {context['mhz_per_cpu']} MHz; "
          f"load before the run: {load or 'unknown'}\n")


def main(arguments):
    files = [argument for argument in arguments if argument != "--wall"]
    if not files or files[0].startswith("-"):
        print(__doc__, file=sys.stderr)
        return 2
    clock = "best_wall_seconds" if "--wall" in arguments else "best_seconds"
    rows, contexts = read_rows(files, clock)
    # Rows that others stand beside show there, unless something is wrong with them.
    floors = {row.beside for row in rows.values()}
    shown = sorted((row for row in rows.values() if row.error or row.name not in floors),
                   key=lambda row: row.name)
    for context in contexts:
        print_context(context)
    print_table([["row", "MB/s", "floor MB/s", "ratio", "goal", "met?"]] + [cells_of(row, rows) for row in shown])
    return 0


sys.exit(main(sys.argv[1:]))
