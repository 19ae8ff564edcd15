#!/usr/bin/env python3
"""Measures the agent next to its peers and next to the floor, and prints ratios of one run side by side.

Exit status: 0 when every row was measured, 1 when one could not be or a file not be written, 2 for a wrong argument. A
limit that is missed is shown and is no failure: it may be the machine.
"""

import argparse
import signal
import subprocess
import sys
from pathlib import Path

from harness import plot, report
from harness.rig import Rig
from harness.row import Result
from rows import GROUPS


def arguments():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__.split("\n", 1)[0])
    parser.add_argument("rows", nargs="*", metavar="ROW", help="measure these rows only (all of them without one)")
    parser.add_argument("--quick", action="store_true", help="fewer rounds and smaller amounts: a look, no verdict")
    parser.add_argument("--list", action="store_true", help="print the rows' names and meanings")
    parser.add_argument("--build", default="build-bench", help=argparse.SUPPRESS)
    parser.add_argument("--from", dest="caller", type=Path, default=Path(), help=argparse.SUPPRESS)
    parser.add_argument("--json", type=Path, metavar="FILE",
                        help="where every sample is written (build-bench/bench.json of the source)")
    parser.add_argument("--plot", type=Path, metavar="FILE",
                        help="where the picture is written (build-bench/bench.svg of the source)")
    options = parser.parse_args()
    options.json = options.caller / options.json if options.json else Path("build-bench/bench.json")
    options.plot = options.caller / options.plot if options.plot else Path("build-bench/bench.svg")
    known = {row.name for group in GROUPS for row in group.rows}
    unknown = [name for name in options.rows if name not in known]
    if unknown:
        parser.error(f"no such row: {', '.join(unknown)} (--list shows them)")
    return options


# What one group or one file can fail with. Whatever a program prints is read as figures, so that is among it.
FAILURES = (ArithmeticError, LookupError, OSError, RuntimeError, ValueError, subprocess.SubprocessError)


def measure(group, rig, wanted):
    """The results of a group's wanted rows, and the text of what went wrong, if anything did."""
    try:
        taken = group.measure(rig)
        return [Result(row, taken[row.name]) for row in wanted], None
    except FAILURES as error:
        return [], f"not measured: {', '.join(row.name for row in wanted)}: {type(error).__name__}: {error}"


def write_samples(results, rig, path):
    path.write_text(report.as_json(results, rig.source, rig.quick) + "\n", encoding="utf-8")
    print(f"\nSamples: {path}")


def write_picture(results, path):
    if plot.draw(results, path):
        print(f"Picture: {path}")


def attempt(function, *arguments):
    """The texts of what went wrong: one or none. The table is on the screen by then, and a file is no reason to end."""
    try:
        function(*arguments)
        return []
    except FAILURES as error:
        return [f"not written: {error}"]


def end_on_signals():
    """What was started and written goes with this program, also when its terminal is closed."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) != signal.SIG_IGN:  # as nohup has it
            signal.signal(number, lambda *_: sys.exit(1))


def main():
    options = arguments()
    if options.list:
        for group in GROUPS:
            for row in group.rows:
                print(f"{row.name:24} {row.title}")
        return 0
    end_on_signals()
    results = []
    failures = []
    rig = Rig(options.build, options.quick)
    try:
        for group in GROUPS:
            wanted = [row for row in group.rows if not options.rows or row.name in options.rows]
            if not wanted:
                continue
            print(f"measuring {', '.join(row.name for row in wanted)} ...", file=sys.stderr)
            measured, failure = measure(group, rig, wanted)
            results += measured
            if failure:
                failures.append(failure)
    finally:
        rig.close()
    if results:
        print(report.table(results))
        failures += attempt(write_samples, results, rig, options.json)
        failures += attempt(write_picture, results, options.plot)
    for failure in failures:
        print(f"script/bench: {failure}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(128 + signal.SIGINT)
