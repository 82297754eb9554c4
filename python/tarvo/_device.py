"""Where computations run. The choice is one for the process."""

from __future__ import annotations

import numbers
from typing import TYPE_CHECKING

from tarvo import _core
from tarvo._options import Options, Preset, make_options, set_switches

if TYPE_CHECKING:
    from typing_extensions import Unpack


def devices() -> list[str]:
    """One line for each device that select_device can choose.

    >>> import tarvo
    >>> tarvo.devices()[0].startswith("cpu")
    True
    """
    return _core.devices()


def select_device(device: str = "auto") -> str:
    """Chooses the device for all later computations of the process; returns a line that names it.

    Args:
        device: "auto" (a working CUDA device, else the CPU; the default of the process), "cpu", "cuda" or
            "cuda:N".

    Raises:
        ValueError: no device is called so.
        RuntimeError: the device cannot be used, with the reason; the choice stays.

    >>> import tarvo
    >>> tarvo.select_device("cpu").endswith("asked for")
    True
    """
    if not isinstance(device, str):
        raise TypeError(f"device must be a str, got {device!r}")
    try:
        _core.select_device(device)
    except ValueError:
        raise ValueError(f"device must be auto, cpu, cuda or cuda:N, got {device!r}") from None
    return _core.current_device()


def set_threads(threads: int) -> None:
    """Number of threads that the CPU device uses, the caller's included, 1 ... 1024; results do not depend on it.

    The default is the number of processors that the process may use.

    >>> import tarvo
    >>> tarvo.set_threads(2)
    """
    _core.set_threads(_whole(threads, "threads", 1, 1024))


def memory_required(
    height: int,
    width: int,
    *,
    preset: Preset = "standard",
    backward: bool = False,
    occlusion: bool = False,
    matches: bool = True,
    **options: Unpack[Options],
) -> int:
    """Bytes that tarvo.compute takes at most with these arguments, its results included, before it is called.

    Masks take about 40 bytes a pixel more.

    >>> import tarvo
    >>> print(tarvo.memory_required(1080, 1920) // 10**6 > 100)
    True
    """
    chosen = make_options("memory_required", preset, options)
    set_switches(chosen, backward=backward, occlusion=occlusion, matches=matches)
    size = _whole(height, "height", 1, 2**31 - 1), _whole(width, "width", 1, 2**31 - 1)
    return _core.memory_required(size[1], size[0], chosen)


def _whole(value: object, name: str, least: int, most: int) -> int:
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"{name} must be an int, got {value!r}")
    if not least <= int(value) <= most:
        raise ValueError(f"{name} must be in {least} ... {most}, got {value!r}")
    return int(value)
