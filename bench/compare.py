#!/usr/bin/env python3
"""Compares two measurements of the same benchmarks, row by row.

    bench/compare.py OLD.json NEW.json

Takes what tarvo_bench_flow --json or tarvo_bench_kernels --benchmark_out writes, both files of one kind. Each row is
judged by the medians of its repetitions and by the ranges they span:

    SAME   the medians differ by less than 3 %
    FAST   the new median is smaller, and every new time is below every old one
    SLOW   the new median is greater, and every new time is above every old one
    AMBG   the medians differ, but the ranges overlap or a side has one time only: measure again, on a quieter machine

The noise of a side is (largest - smallest) / median. A flow error that changed is said too.
Exit status: 0 no row is SLOW and no error changed, 1 otherwise, 2 the files cannot be compared.
"""

import argparse
import collections
import json
import statistics
import sys

SAME_WITHIN = 0.03
SHORTEST = 0.001  # seconds: phases shorter than this in both files are left out


def fail(text):
    print("compare: " + text, file=sys.stderr)
    sys.exit(2)


def load(path):
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError) as error:
        fail(f"{path}: {error}")


def kernel_times(data):
    """Name of each kernel benchmark to its ns per pixel."""
    times = collections.OrderedDict()
    for run in data["benchmarks"]:
        if run.get("run_type") == "iteration" and "ns_per_pixel" in run:
            name = run["run_name"].removesuffix("/manual_time")
            times.setdefault(name, []).append(run["ns_per_pixel"])
    return times


def flow_times(data):
    """Name of each computation and phase to its seconds."""
    times = collections.OrderedDict()
    for row in data["rows"]:
        for phase, seconds in row["runs_s"].items():
            times[f"{row['name']}: {phase}"] = seconds
    return times


def flow_errors(data):
    return {row["name"]: row["epe"] for row in data.get("rows", [])}


def times_of(data, path):
    try:
        if "rows" in data:
            return flow_times(data)
        if "benchmarks" in data:
            return kernel_times(data)
    except (KeyError, TypeError, AttributeError) as error:
        fail(f"{path}: not a complete measurement ({error!r})")
    fail(f"{path}: neither kernel nor flow benchmarks")


def noise(times):
    middle = statistics.median(times)
    return (max(times) - min(times)) / middle if middle > 0 else 0.0


def verdict(old, new):
    before, after = statistics.median(old), statistics.median(new)
    if abs(after - before) <= SAME_WITHIN * before:
        return "SAME"
    if min(len(old), len(new)) > 1:
        if max(new) < min(old):
            return "FAST"
        if min(new) > max(old):
            return "SLOW"
    return "AMBG"


def say_different_machines(old, new):
    for key in ("processor", "processors", "device", "compiler"):
        before, after = (data.get("context", {}).get(key) for data in (old, new))
        if before != after:
            print(f"careful: {key} differs: {before} and {after}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("old")
    parser.add_argument("new")
    options = parser.parse_args()
    data = [load(path) for path in (options.old, options.new)]
    if any(not isinstance(d, dict) for d in data) or ("rows" in data[0]) != ("rows" in data[1]):
        fail("the files hold different kinds of benchmarks")
    old, new = (times_of(d, path) for d, path in zip(data, (options.old, options.new)))
    say_different_machines(*data)

    seconds = "rows" in data[0]
    unit = "s" if seconds else "ns/pixel"
    names = [name for name in old if name in new]
    if not names:
        fail("no row is in both files")
    width = max(len(name) for name in names)
    print(f"{'':4}  {'row':{width}}  {'old ' + unit:>12}  noise  {'new ' + unit:>12}  noise  new/old")
    count = collections.Counter()
    for name in names:
        before, after = statistics.median(old[name]), statistics.median(new[name])
        if before <= 0 or (seconds and max(before, after) < SHORTEST):
            continue
        word = verdict(old[name], new[name])
        count[word] += 1
        print(
            f"{word}  {name:{width}}  {before:12.4g}  {noise(old[name]):5.0%}  {after:12.4g}  {noise(new[name]):5.0%}"
            f"  {after / before:7.3f}"
        )
    for name in sorted(set(old) ^ set(new)):
        print(f"only in {'old' if name in old else 'new'}: {name}")

    changed = 0
    old_errors, new_errors = flow_errors(data[0]), flow_errors(data[1])
    for name in old_errors:
        if name in new_errors and old_errors[name] != new_errors[name]:
            changed += 1
            print(f"end-point error of {name} changed: {old_errors[name]:.6f} to {new_errors[name]:.6f}")
    print(", ".join(f"{count[word]} {word}" for word in ("SAME", "FAST", "SLOW", "AMBG")))
    return 1 if count["SLOW"] or changed else 0


if __name__ == "__main__":
    sys.exit(main())
