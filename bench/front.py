#!/usr/bin/env python3
"""Draws error against time of what bench/peers.py has measured, a panel for each file.

    bench/front.py FILE.json... -o OUT.png [--threads N]

FILE.json is a --json file of peers.py. Each method is a point at its median seconds and its end-point error, with N
threads (default: the most in the file); towards the lower left is better. A line joins the methods that no other beats
in both. Needs matplotlib.
"""

import argparse
import json
import statistics

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot  # noqa: E402  (after the choice of a back end)


def points(path, threads):
    """The pair's name, the number of threads, and (method, seconds, error) of each method, the fastest first."""
    with open(path, encoding="utf-8") as file:
        data = json.load(file)
    threads = threads or max(row["threads"] for row in data["rows"])
    rows = [row for row in data["rows"] if row["threads"] == threads]
    if not rows:
        raise ValueError(f"{path}: no row with {threads} threads")
    found = [(row["method"], statistics.median(row["runs_s"]["time"]), row["epe"]) for row in rows]
    return data["context"]["pair"], threads, sorted(found, key=lambda point: point[1])


def front(found):
    """Seconds and errors of the points that no faster one equals in error."""
    best = []
    for _, seconds, error in found:
        if not best or error < best[-1][1]:
            best.append((seconds, error))
    return zip(*best)


def draw(axes, pair, threads, found):
    axes.plot(*front(found), color="0.8", zorder=0)
    for method, seconds, error in found:
        own = method.startswith("tarvo")
        axes.plot(seconds, error, "o" if own else "s", color="tab:red" if own else "tab:blue")
        axes.annotate("tarvo standard" if method == "tarvo" else method, (seconds, error), (4, 4),
                      textcoords="offset points", fontsize=8)
    axes.set(xscale="log", yscale="log", title=f"{pair}, {threads} threads", xlabel="seconds",
             ylabel="mean end-point error [pixels]")
    axes.grid(True, which="both", color="0.92")
    axes.margins(0.2)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+", metavar="FILE.json")
    parser.add_argument("-o", "--output", required=True, metavar="OUT.png")
    parser.add_argument("--threads", type=int, default=0)
    options = parser.parse_args()
    try:
        panels = [points(path, options.threads) for path in options.files]
    except (OSError, ValueError, KeyError) as error:
        parser.exit(1, f"front: {error}\n")
    figure, axes = matplotlib.pyplot.subplots(1, len(panels), figsize=(5.5 * len(panels), 4.5), squeeze=False)
    for panel, place in zip(panels, axes[0]):
        draw(place, *panel)
    figure.tight_layout()
    figure.savefig(options.output, dpi=110)


if __name__ == "__main__":
    main()
