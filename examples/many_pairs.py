"""The flows of many pairs of pictures by a Dask cluster: one process per worker, one file per flow.

    python examples/many_pairs.py FOLDER -o OUT              # pictures of FOLDER in order, each with the next
    python examples/many_pairs.py FOLDER -o OUT --scheduler tcp://host:8786

Computations in one process take turns, so workers are processes with one task at a time, which share the
processors among them. A task gets names and returns a name: pictures and flows stay out of the scheduler.
Needs tarvo[cluster] and matplotlib.
"""

from __future__ import annotations

import argparse
import os
from pathlib import Path

from distributed import Client, LocalCluster, as_completed
from pictures import read

import tarvo


def compute(first: Path, second: Path, out: Path, preset: str, threads: int) -> str:
    tarvo.set_threads(threads)
    tarvo.write_flow(out, tarvo.flow(read(first), read(second), preset=preset))
    return str(out)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path)
    parser.add_argument("-o", "--output", type=Path, required=True)
    parser.add_argument("--preset", default="fast", choices=list(tarvo.presets()))
    parser.add_argument("--workers", type=int, default=2, help="of a cluster on this machine")
    parser.add_argument("--scheduler", help="address of a running cluster, whose machines share the folders")
    arguments = parser.parse_args()

    frames = sorted(path for path in arguments.folder.iterdir() if path.suffix.lower() in (".png", ".jpg", ".jpeg"))
    arguments.output.mkdir(parents=True, exist_ok=True)
    threads = max(1, (os.cpu_count() or 1) // arguments.workers)
    cluster = arguments.scheduler or LocalCluster(n_workers=arguments.workers, threads_per_worker=1, dashboard_address=None)
    with Client(cluster) as client:
        tasks = [
            client.submit(compute, a, b, arguments.output / f"{a.stem}.flo", arguments.preset, threads)
            for a, b in zip(frames, frames[1:])
        ]
        for task in as_completed(tasks):
            print(task.result())


if __name__ == "__main__":
    main()
