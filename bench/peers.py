#!/usr/bin/env python3
"""Time and error of tarvo beside the dense flow methods of OpenCV, on the same picture pair in the same run.

    bench/peers.py [--pair FOLDER] [--size WxH] [--runs N] [--methods NAME,...] [--tarvo PROGRAM] [--json FILE]

FOLDER holds frame1.png, frame2.png and flow.flo, the true flow; by default `tarvo synth demo` renders a pair of
640x480. Every round runs each method once, one after the other, with 1 thread and with all; medians of the rounds,
after one that is not counted.

Times are of the computation alone, from pictures in memory to the flow in memory, without the start of a process. For
tarvo, whose presets are rows of their own ("tarvo" alone is standard), it is the phase "total" of the second of two
computations of `tarvo flow --json`, since a process that has just started has to ask the system for its memory first;
for OpenCV, whose runs share one process, a clock around the call, on grey pictures as these methods want them. EPE is
the mean distance to the true flow over its known pixels.

Needs OpenCV's Python package (opencv-python-headless; with opencv-contrib-python-headless also DualTVL1 and DeepFlow)
and a built build/bin/tarvo. Exit status: 0 measured, or nothing to do since cv2 is not installed (one line says so), 1
a failure, 2 wrong usage.
"""

import argparse
import collections
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

try:
    import cv2
    import numpy
except ImportError:
    cv2 = None

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KNOWN_BELOW = 1e9  # components from here on mark a pixel whose motion is unknown

Row = collections.namedtuple("Row", "method threads seconds epe note")


def fail(text):
    print("peers: " + text, file=sys.stderr)
    sys.exit(1)


def read_flow(path):
    """An h x w x 2 array of a .flo file."""
    with open(path, "rb") as file:
        data = file.read()
    if len(data) < 12 or data[:4] != b"PIEH":
        raise ValueError(f"{path}: no .flo file")
    width, height = (int(n) for n in numpy.frombuffer(data, "<i4", 2, 4))
    if width < 1 or height < 1 or len(data) != 12 + 8 * width * height:
        raise ValueError(f"{path}: {len(data)} bytes do not hold {width} x {height} pixels")
    return numpy.frombuffer(data, "<f4", -1, 12).reshape(height, width, 2)


def end_point_error(flow, truth):
    # Written so that not-a-number counts as unknown too.
    known = (numpy.abs(truth) < KNOWN_BELOW).all(axis=2)
    if flow.shape != truth.shape:
        raise ValueError(f"the flow has the shape {flow.shape}, the true one {truth.shape}")
    if not known.any():
        raise ValueError("the true flow has no known pixel")
    apart = flow[known].astype(numpy.float64) - truth[known]
    return float(numpy.hypot(apart[:, 0], apart[:, 1]).mean())


class Tarvo:
    """The tool, in a process of its own for every run: from frame 2 to frame 1 first, then the run that counts."""

    note = "colour"

    def __init__(self, program, folder, scratch, preset):
        self.command = [program, "flow", "-q", "--json", "--device", "cpu", "--preset", preset]
        self.frames = [os.path.join(folder, name) for name in ("frame1.png", "frame2.png")]
        self.flow = os.path.join(scratch, "tarvo.flo")
        self.first = os.path.join(scratch, "first.flo")

    def run(self, threads):
        frames = self.frames[::-1]
        command = self.command + ["--threads", str(threads), *frames, "-o", self.first, "--backward", self.flow]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {done.stderr.strip()}")
        return json.loads(done.stdout)["backward"]["phases"]["total"], read_flow(self.flow)


class Peer:
    """A method of OpenCV on the pictures in memory."""

    note = "grey"

    def __init__(self, calc, frames):
        self.calc = calc
        self.frames = frames

    def run(self, threads):
        cv2.setNumThreads(threads)
        start = time.perf_counter()
        flow = self.calc(*self.frames)
        return time.perf_counter() - start, flow


def peer_methods():
    """Name of each method that this OpenCV has to a function of two grey pictures."""
    methods = collections.OrderedDict()
    if hasattr(cv2, "DISOpticalFlow_create"):
        for preset in ("ULTRAFAST", "FAST", "MEDIUM"):
            dis = cv2.DISOpticalFlow_create(getattr(cv2, "DISOPTICAL_FLOW_PRESET_" + preset))
            methods["DIS " + preset.lower()] = lambda a, b, dis=dis: dis.calc(a, b, None)
        # The medium preset at full resolution: its most accurate setting of those in use.
        finest = cv2.DISOpticalFlow_create(cv2.DISOPTICAL_FLOW_PRESET_MEDIUM)
        finest.setFinestScale(0)
        finest.setPatchStride(2)
        finest.setGradientDescentIterations(50)
        finest.setVariationalRefinementIterations(10)
        methods["DIS finest"] = lambda a, b: finest.calc(a, b, None)
    if hasattr(cv2, "calcOpticalFlowFarneback"):
        methods["Farneback"] = lambda a, b: cv2.calcOpticalFlowFarneback(a, b, None, 0.5, 5, 15, 3, 5, 1.1, 0)
    contrib = getattr(cv2, "optflow", None)
    for name, maker in (("DualTVL1", "DualTVL1OpticalFlow_create"), ("DeepFlow", "createOptFlow_DeepFlow")):
        if hasattr(contrib, maker):
            method = getattr(contrib, maker)()
            methods[name] = lambda a, b, method=method: method.calc(a, b, None)
    return methods


def read_pair(folder):
    frames = []
    for name in ("frame1.png", "frame2.png"):
        frame = cv2.imread(os.path.join(folder, name), cv2.IMREAD_GRAYSCALE)
        if frame is None:
            raise ValueError(f"{os.path.join(folder, name)}: no picture")
        frames.append(frame)
    return frames, read_flow(os.path.join(folder, "flow.flo"))


def measure(methods, teams, runs, truth):
    """Rows of all methods with each number of threads, in rounds."""
    rows = [Row(name, threads, [], [], m.note) for threads in teams for name, m in methods.items()]
    for number in range(runs + 1):
        for row in rows:
            seconds, flow = methods[row.method].run(row.threads)
            if number > 0:
                row.seconds.append(seconds)
                row.epe.append(end_point_error(flow, truth))
        print(f"round {number} of {runs} done" if number else "warm-up done", file=sys.stderr)
    return rows


def table(rows):
    reference = {row.threads: statistics.median(row.seconds) for row in rows if row.method == "tarvo"}
    lines = [f"{'method':14} {'threads':>7} {'pictures':>8} {'EPE':>8} {'seconds':>9} {'spread':>7} {'to tarvo':>9}"]
    for row in rows:
        middle = statistics.median(row.seconds)
        spread = (max(row.seconds) - min(row.seconds)) / middle
        ratio = f"{middle / reference[row.threads]:9.3f}" if row.threads in reference else f"{'-':>9}"
        lines.append(
            f"{row.method:14} {row.threads:7} {row.note:>8} {statistics.median(row.epe):8.3f} {middle:9.4f}"
            f" {spread:7.0%} {ratio}"
        )
    return "\n".join(lines)


def as_json(rows, pair, load):
    context = {"opencv": cv2.__version__, "processors": str(len(os.sched_getaffinity(0))), "pair": pair}
    context["load"] = f"{load:.2f}"
    return {
        "context": context,
        "rows": [
            {
                "name": f"{row.method}, threads {row.threads}",
                "method": row.method,
                "threads": row.threads,
                "epe": round(statistics.median(row.epe), 6),
                "runs_s": {"time": row.seconds},
            }
            for row in rows
        ],
    }


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--pair", metavar="FOLDER")
    parser.add_argument("--size", metavar="WxH", default="640x480", help="of the rendered pair")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--methods", help="only those whose name contains one of these, besides tarvo")
    parser.add_argument("--tarvo", default=os.path.join(ROOT, "build/bin/tarvo"), metavar="PROGRAM")
    parser.add_argument("--json", metavar="FILE")
    options = parser.parse_args()
    if options.runs < 1 or not re.fullmatch(r"[1-9]\d*x[1-9]\d*", options.size):
        parser.error("--runs must be at least 1, --size two numbers like 640x480")
    return options


def run(options, scratch):
    if not os.access(options.tarvo, os.X_OK):
        raise RuntimeError(f"{options.tarvo} is not there; run 'make build' first, or name it with --tarvo")
    folder = options.pair
    if folder is None:
        folder = scratch
        command = [options.tarvo, "synth", "-q", "demo", "-o", folder, "--size", options.size]
        subprocess.run(command, check=True)
    frames, truth = read_pair(folder)
    pair = f"scene demo, {options.size}" if options.pair is None else os.path.basename(os.path.abspath(folder))
    methods = collections.OrderedDict(tarvo=Tarvo(options.tarvo, folder, scratch, "standard"))
    for preset in ("fast", "accurate"):
        methods["tarvo " + preset] = Tarvo(options.tarvo, folder, scratch, preset)
    for name, calc in peer_methods().items():
        if not options.methods or any(part.lower() in name.lower() for part in options.methods.split(",")):
            methods[name] = Peer(calc, frames)
    processors = len(os.sched_getaffinity(0))
    load = os.getloadavg()[0]
    print(f"pair: {pair}; OpenCV {cv2.__version__}; {processors} processors; load {load:.2f}")
    rows = measure(methods, sorted({1, processors}), options.runs, truth)
    print(table(rows))
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(as_json(rows, pair, load), file, indent=2)
            file.write("\n")


def main():
    options = parse()
    if cv2 is None:
        print("peers: nothing measured, since OpenCV's Python package cv2 is not installed")
        return
    try:
        with tempfile.TemporaryDirectory() as scratch:
            run(options, scratch)
    except (OSError, ValueError, KeyError, RuntimeError, subprocess.CalledProcessError, cv2.error) as error:
        fail(str(error))


if __name__ == "__main__":
    main()
