#!/usr/bin/env python3
"""Compares two measurements of the same benchmarks, row by row.

    bench/compare.py OLD.json NEW.json

Takes what tarvo_bench_flow --json, tarvo_bench_roofline --json, tarvo_bench_kernels --benchmark_out, bench/peers.py
--json or scripts/instructions.sh writes, both files of one kind. Each row is judged by the medians of its repetitions
and by the ranges they span:

    SAME   the medians differ by less than 3 %
    FAST   the new median is smaller, and every new time is below every old one
    SLOW   the new median is greater, and every new time is above every old one
    AMBG   the medians differ, but the ranges overlap or a side has one time only: measure again, on a quieter machine

The noise of a side is (largest - smallest) / median. Instruction counts have none: they are SAME within 0.1 %, else
FAST (fewer) or SLOW (more). A flow error that changed is said too.
Exit status: 0 no row is SLOW and no error changed, 1 otherwise, 2 the files cannot be compared.
"""

import argparse
import collections
import json
import statistics
import sys

SAME_WITHIN = 0.03
SAME_COUNT_WITHIN = 0.001
SHORTEST = 0.0001  # seconds: rows shorter than this in both files are left out, the clocks step by 0.000001


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
    return {row["name"]: row["epe"] for row in data.get("rows", []) if "epe" in row}


def instruction_counts(data):
    return collections.OrderedDict((name, [count]) for name, count in data["instructions"].items())


# Key of the measurements in a file: how to read them, their unit, the shortest to compare.
Kind = collections.namedtuple("Kind", "read unit shortest")
KINDS = {
    "rows": Kind(flow_times, "s", SHORTEST),
    "benchmarks": Kind(kernel_times, "ns/pixel", 0.0),
    "instructions": Kind(instruction_counts, "instr", 0.0),
}


def kind_of(data, path):
    for key in KINDS:
        if isinstance(data, dict) and key in data:
            return key
    fail(f"{path}: no measurement of a known kind")


def values_of(data, kind, path):
    try:
        values = KINDS[kind].read(data)
        if any(not times for times in values.values()):
            raise ValueError("a row without values")
        return values
    except (KeyError, TypeError, ValueError, AttributeError) as error:
        fail(f"{path}: not a complete measurement ({error!r})")


def noise(times):
    middle = statistics.median(times)
    return (max(times) - min(times)) / middle if middle > 0 else 0.0


def verdict(old, new, exact):
    before, after = statistics.median(old), statistics.median(new)
    if abs(after - before) <= (SAME_COUNT_WITHIN if exact else SAME_WITHIN) * before:
        return "SAME"
    if exact:
        return "FAST" if after < before else "SLOW"
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
    paths = (options.old, options.new)
    data = [load(path) for path in paths]
    kind, other = (kind_of(d, path) for d, path in zip(data, paths))
    if kind != other:
        fail("the files hold different kinds of benchmarks")
    old, new = (values_of(d, kind, path) for d, path in zip(data, paths))
    say_different_machines(*data)

    unit = KINDS[kind].unit
    names = [name for name in old if name in new]
    if not names:
        fail("no row is in both files")
    width = max(len(name) for name in names)
    print(f"{'':4}  {'row':{width}}  {'old ' + unit:>12}  noise  {'new ' + unit:>12}  noise  new/old")
    count = collections.Counter()
    left_out = 0
    for name in names:
        before, after = statistics.median(old[name]), statistics.median(new[name])
        if before <= 0 or max(before, after) < KINDS[kind].shortest:
            left_out += 1
            continue
        word = verdict(old[name], new[name], kind == "instructions")
        count[word] += 1
        left, right = (f"{value:12.{'0f' if kind == 'instructions' else '6g'}}" for value in (before, after))
        print(
            f"{word}  {name:{width}}  {left}  {noise(old[name]):5.0%}  {right}  {noise(new[name]):5.0%}"
            f"  {after / before:7.3f}"
        )
    if left_out:
        print(f"{left_out} rows left out: too short for the clock")
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
