#!/usr/bin/env python3
"""What a change did to the benchmarks: two mvpn-bench programs run in turns, compared pair by pair.

usage: compare.py OLD NEW [--pairs 10] [options of Google Benchmark]

Others may compute on the machine, so that one run says little: of each pair one program runs right after the other, in
alternating order, and the ratio of their processor times is taken within the pair. A figure has moved when every pair says so,
to the same side: with ten pairs chance does that to one figure of 512. What has moved is listed with the median of its ratios
and their range; the exit status is 0 whatever it is.
"""

import argparse
import json
import pathlib
import statistics
import subprocess
import sys


def figures(program, options):
    """Processor time of each benchmark, in its own unit."""
    command = [program, "--benchmark_format=json", *options]
    run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True)
    return {one["name"]: one["cpu_time"] for one in json.loads(run.stdout)["benchmarks"]
            if one.get("run_type") == "iteration" and not one.get("error_occurred") and one["cpu_time"] > 0}


def pairs_of(old, new, count, options):
    """The figures of both programs in each pair."""
    for number in range(count):
        programs = [("old", old), ("new", new)] if number % 2 == 0 else [("new", new), ("old", old)]
        found = {which: figures(program, options) for which, program in programs}
        print(f"pair {number + 1} of {count}", file=sys.stderr, flush=True)
        yield found["old"], found["new"]


def report(pairs):
    names = list(dict.fromkeys(name for old, new in pairs for name in (*old, *new)))
    ratios = {name: [new[name] / old[name] for old, new in pairs if name in old and name in new] for name in names}
    compared = {name: values for name, values in ratios.items() if len(values) == len(pairs)}
    moved = {name: values for name, values in compared.items() if all(v < 1 for v in values) or all(v > 1 for v in values)}
    for name, values in sorted(moved.items(), key=lambda item: statistics.median(item[1])):
        print(f"{name:60} {statistics.median(values):6.2f} x  ({min(values):.2f} to {max(values):.2f})")
    print(f"{len(moved)} of {len(compared)} figures moved by more than the noise, {len(pairs)} pairs")
    for name in names:
        if name not in compared:
            print(f"{name} is not in both")


def main():
    parser = argparse.ArgumentParser(description="Two benchmark programs, run in turns and compared pair by pair.")
    parser.add_argument("old", type=pathlib.Path)
    parser.add_argument("new", type=pathlib.Path)
    parser.add_argument("--pairs", type=int, default=10)
    parser.add_argument("--dry-run", action="store_true", help="reads the options and runs nothing")
    options, benchmark = parser.parse_known_args()
    if options.pairs < 8:
        parser.error("fewer than 8 pairs cannot tell a change from chance")
    if not options.dry_run:
        report(list(pairs_of(options.old, options.new, options.pairs, benchmark)))


if __name__ == "__main__":
    main()
