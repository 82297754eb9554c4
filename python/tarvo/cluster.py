"""The flows of many pairs of picture files on a Dask cluster.

Workers are processes of one task at a time: computations in one process take turns. Tasks get paths and return
paths and hashes; pictures and flows stay out of the scheduler, so all machines must share the folders. Needs
tarvo[cluster].
"""

from __future__ import annotations

import hashlib
import os
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

import tarvo
from tarvo._options import Options, Preset

if TYPE_CHECKING:
    from distributed import Client, Future
    from typing_extensions import Unpack



@dataclass(frozen=True)
class Written:
    """A pair's flow in a file.

    Attributes:
        pair: the two pictures.
        path: the flow from the first to the second; sha256: of its contents.
        backward: path and hash of the flow from the second to the first; None unless asked for.
    """

    pair: tuple[str, str]
    path: str
    sha256: str
    backward: tuple[str, str] | None


def map_pairs(
    pairs: Iterable[tuple[str | os.PathLike[str], str | os.PathLike[str]]],
    folder: str | os.PathLike[str],
    *,
    client: Client | None = None,
    block: int = 16,
    threads: int | None = None,
    device: str = "auto",
    retries: int = 2,
    backward: bool = False,
    preset: Preset = "standard",
    matches: bool = True,
    **options: Unpack[Options],
) -> list[Future[list[Written]]]:
    """Has the workers of a cluster compute the flows of pairs of picture files, each into folder/NAME.flo.

    A task is a block of consecutive pairs, which reads each picture once where one pair ends in the picture that
    the next begins with. A flow appears under its name when it is whole. A task whose worker dies is given to
    another by Dask; one that raises is tried again ``retries`` times.

    Args:
        pairs: the paths of the first and second picture of each.
        folder: for the flows, named after the first picture; backward flows in its folder "backward". It is made.
        client: of the cluster; None: the current client, or one of a new cluster on this machine.
        block: pairs of a task.
        threads: of each worker; None: its share of the processors of its machine.
        device: see select_device; "cuda:0" where each worker sees one GPU (CUDA_VISIBLE_DEVICES).
        retries: of a task that raises.
        backward, preset, matches, options: see compute.

    Returns:
        A future for each block, with the list of what it has written, in the order of the pairs:
        ``client.gather(futures)`` waits for all.

    Raises:
        ValueError: no pairs, or two whose flows would have the same name.
    """
    import distributed

    dask: Any = distributed  # whose functions are typed in part only
    tasks = _tasks(pairs, Path(folder), block)
    if client is None:
        try:
            client = dask.get_client()
        except ValueError:
            client = dask.Client(threads_per_worker=1)
    Path(folder).mkdir(parents=True, exist_ok=True)
    if backward:
        (Path(folder) / "backward").mkdir(exist_ok=True)
    settings: dict[str, Any] = {"preset": preset, "backward": backward, "matches": matches, **options}
    return [
        client.submit(_write_block, task, os.path.abspath(folder), threads, device, settings, retries=retries, pure=False)
        for task in tasks
    ]


def _tasks(
    pairs: Iterable[tuple[str | os.PathLike[str], str | os.PathLike[str]]], folder: Path, block: int
) -> list[list[tuple[str, str]]]:
    """The pairs in blocks, as absolute paths."""
    if block < 1:
        raise ValueError(f"block must be at least 1, got {block}")
    named = [(os.path.abspath(first), os.path.abspath(second)) for first, second in pairs]
    seen: dict[str, str] = {}
    for first, _ in named:
        other = seen.setdefault(Path(first).stem, first)
        if other is not first:
            raise ValueError(f"pairs: the flows of {other} and {first} would both be {folder / Path(first).stem}.flo")
    if not named:
        raise ValueError("pairs: there are none")
    return [named[at : at + block] for at in range(0, len(named), block)]


def _write_block(
    pairs: Sequence[tuple[str, str]], folder: str, threads: int | None, device: str, settings: dict[str, Any]
) -> list[Written]:
    """What a worker does."""
    tarvo.select_device(device)
    tarvo.set_threads(threads or _share_of_processors())
    written: list[Written] = []
    images: dict[str, Any] = {}
    for first, second in pairs:
        images = {name: images.get(name) if name in images else tarvo.read_image(name) for name in (first, second)}
        result = tarvo.compute(images[first], images[second], range=255.0, **settings)
        name = Path(first).stem + ".flo"
        forward = _write(Path(folder) / name, result.forward)
        back = None if result.backward is None else _write(Path(folder) / "backward" / name, result.backward)
        written.append(Written((first, second), *forward, back))
    return written


def _write(path: Path, flow: Any) -> tuple[str, str]:
    tarvo.write_flow(path, flow)
    return str(path), hashlib.sha256(path.read_bytes()).hexdigest()


def _share_of_processors() -> int:
    """Of this worker, where the workers of a machine are those of one nanny or cluster."""
    from distributed import get_worker

    here = get_worker().address.rsplit(":", 1)[0]
    workers: Iterable[str] = get_worker().client.scheduler_info()["workers"]  # of all machines
    return max(1, (os.cpu_count() or 1) // max(1, sum(address.rsplit(":", 1)[0] == here for address in workers)))
