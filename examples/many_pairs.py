"""The flows of many pairs of pictures by a Dask cluster: one process per worker, one file per flow.

    python examples/many_pairs.py FOLDER -o OUT              # pictures of FOLDER in order, each with the next
    python examples/many_pairs.py FOLDER -o OUT --scheduler tcp://host:8786

Needs tarvo[cluster].
"""

from __future__ import annotations

import argparse
from pathlib import Path

from distributed import Client, LocalCluster, as_completed

import tarvo
from tarvo.cluster import map_pairs


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path)
    parser.add_argument("-o", "--output", type=Path, required=True)
    parser.add_argument("--preset", default="fast", choices=list(tarvo.presets()))
    parser.add_argument("--workers", type=int, default=2, help="of a cluster on this machine")
    parser.add_argument("--scheduler", help="address of a running cluster, whose machines share the folders")
    arguments = parser.parse_args()

    frames = sorted(path for path in arguments.folder.iterdir() if path.suffix.lower() in (".png", ".jpg", ".jpeg"))
    cluster = arguments.scheduler or LocalCluster(n_workers=arguments.workers, threads_per_worker=1, dashboard_address=None)
    with Client(cluster) as client:
        futures = map_pairs(zip(frames, frames[1:]), arguments.output, client=client, preset=arguments.preset)
        for future in as_completed(futures):
            for written in future.result():
                print(written.path)


if __name__ == "__main__":
    main()
