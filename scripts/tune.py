#!/usr/bin/env python3
"""Searches the parameters of a preset on picture pairs with known motion.

    scripts/tune.py FOLDER [--from PRESET] [--set NAME=VALUE ...] [--try NAME=V1,V2,... ...] [--rounds N]
                    [--tarvo PROGRAM] [--jobs N] [--log FILE]

FOLDER holds one folder for each pair, with frame1.png, frame2.png, flow.flo (the true motion) and info.json, whose
text "kind" tells the kind of pair. Beginning at a preset (with --set), each parameter named by --try takes each of
its values in turn while the others stay, and keeps the best; --rounds repeats this. The score of a choice is the mean,
over the kinds and within a kind over its pairs, of log(error / error of the preset "standard"): every kind counts the
same, and a ratio as much as its inverse. In the end every kind is left out once: the choice that is best on the
others is scored on the one left out. If that score is far above the one with all kinds, the choice fits single pairs.

--log keeps every measured choice, so that a search goes on where it ended. Needs NumPy.
"""

import argparse
import concurrent.futures
import json
import math
import os
import subprocess
import sys
import tempfile

import numpy

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KNOWN_BELOW = 1e9


def read_flow(path):
    with open(path, "rb") as file:
        data = file.read()
    width, height = (int(n) for n in numpy.frombuffer(data, "<i4", 2, 4))
    return numpy.frombuffer(data, "<f4", -1, 12).reshape(height, width, 2)


def end_point_error(flow, truth):
    known = (numpy.abs(truth) < KNOWN_BELOW).all(axis=2)
    apart = flow[known].astype(numpy.float64) - truth[known]
    return float(numpy.hypot(apart[:, 0], apart[:, 1]).mean())


def pairs_by_kind(folder):
    """Kind (the first words of info.json's text) to the names of its pairs."""
    kinds = {}
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name, "info.json")
        if os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                kind = json.load(file)["kind"]
            kinds.setdefault(kind.split(":")[0].split(",")[0], []).append(name)
    return kinds


class Measurements:
    """Errors of choices on all pairs; a choice is a preset and a tuple of (name, value)."""

    def __init__(self, options, names):
        self.options = options
        self.names = names
        self.known = {}
        if options.log and os.path.exists(options.log):
            with open(options.log, encoding="utf-8") as file:
                for line in file:
                    entry = json.loads(line)
                    self.known[entry["choice"]] = entry["errors"]

    def error(self, arguments, name):
        folder = os.path.join(self.options.folder, name)
        with tempfile.TemporaryDirectory() as scratch:
            flow = os.path.join(scratch, "flow.flo")
            frames = [os.path.join(folder, frame) for frame in ("frame1.png", "frame2.png")]
            command = [self.options.tarvo, "flow", "-q", "--threads", "1", *frames, "-o", flow, *arguments]
            subprocess.run(command, check=True)
            return end_point_error(read_flow(flow), read_flow(os.path.join(folder, "flow.flo")))

    def errors(self, preset, choice):
        arguments = ["--preset", preset]
        for name, value in sorted(choice.items()):
            arguments += ["--" + name, value]
        key = " ".join(arguments)
        if key not in self.known:
            with concurrent.futures.ThreadPoolExecutor(self.options.jobs) as pool:
                found = list(pool.map(lambda name: self.error(arguments, name), self.names))
            self.known[key] = dict(zip(self.names, found))
            if self.options.log:
                with open(self.options.log, "a", encoding="utf-8") as file:
                    file.write(json.dumps({"choice": key, "errors": self.known[key]}) + "\n")
        return self.known[key]


def score(errors, reference, kinds):
    means = [sum(math.log(errors[n] / reference[n]) for n in names) / len(names) for names in kinds.values()]
    return sum(means) / len(means)


def search(measurements, options, reference, kinds):
    choice = dict(entry.split("=", 1) for entry in options.set)
    best = score(measurements.errors(options.preset, choice), reference, kinds)
    print(f"start {best:8.4f}", flush=True)
    for number in range(options.rounds):
        before = best
        for entry in options.tries:
            name, values = entry.split("=", 1)
            for value in values.split(","):
                trial = {**choice, name: value}
                result = score(measurements.errors(options.preset, trial), reference, kinds)
                print(f"  {name} {value:>10} {result:8.4f}", flush=True)
                if result < best:
                    best, choice = result, trial
        print(f"round {number + 1}: {best:8.4f}  {choice}", flush=True)
        if best == before:
            break
    return choice


def leave_one_out(measurements, reference, kinds):
    """For every kind: its score with the choice that is best on the others."""
    for left_out in kinds:
        others = {kind: names for kind, names in kinds.items() if kind != left_out}
        best = min(measurements.known, key=lambda key: score(measurements.known[key], reference, others))
        own = score(measurements.known[best], reference, {left_out: kinds[left_out]})
        print(f"without {left_out:40} there {own:8.4f}  {best}")


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder")
    parser.add_argument("--from", dest="preset", default="standard", metavar="PRESET")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE")
    parser.add_argument("--try", dest="tries", action="append", default=[], metavar="NAME=V1,V2,...")
    parser.add_argument("--rounds", type=int, default=1)
    parser.add_argument("--tarvo", default=os.path.join(ROOT, "build/bin/tarvo"), metavar="PROGRAM")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)))
    parser.add_argument("--log", metavar="FILE")
    return parser.parse_args()


def main():
    options = parse()
    kinds = pairs_by_kind(options.folder)
    if not kinds:
        sys.exit(f"tune: no pairs in {options.folder}")
    measurements = Measurements(options, [name for names in kinds.values() for name in names])
    reference = measurements.errors("standard", {})
    choice = search(measurements, options, reference, kinds)
    errors = measurements.errors(options.preset, choice)
    for kind, names in kinds.items():
        print(f"{kind:40}", *(f"{name} {errors[name]:.3f} ({reference[name]:.3f})" for name in names))
    leave_one_out(measurements, reference, kinds)


if __name__ == "__main__":
    main()
