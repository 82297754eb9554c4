"""The flow between two pictures."""

from __future__ import annotations

from dataclasses import dataclass
from types import MappingProxyType
from typing import TYPE_CHECKING, Any, Callable, Literal, Mapping, overload

import numpy as np
import numpy.typing as npt

from tarvo import _core
from tarvo._arrays import ArrayLike, Mask, Range, picture
from tarvo._options import Options, Preset, Value, make_options, set_switches, values_of

if TYPE_CHECKING:
    from typing_extensions import Unpack

Flow = npt.NDArray[np.float32]
Progress = Callable[[int, int], Any]


@dataclass(frozen=True)
class Result:
    """What compute found.

    Attributes:
        forward: flow from image 1 to image 2, float32 H x W x 2 (u, v) [pixels].
        backward: flow from image 2 to image 1; None unless asked for.
        matches: float32 N x 5, the matches that the forward flow used: x, y, u, v [pixels] and weight.
        occlusion: bool H x W, True where a pixel of image 1 is hidden in image 2; None unless asked for.
        seconds: wall-clock seconds of the forward direction by stage; "total" is all of it.
        seconds_backward: the same of the backward direction; None without one.
        device: where it ran, and why there.
        parameters: every option with its value.
    """

    forward: Flow
    backward: Flow | None
    matches: npt.NDArray[np.float32]
    occlusion: npt.NDArray[np.bool_] | None
    seconds: dict[str, float]
    seconds_backward: dict[str, float] | None
    device: str
    parameters: dict[str, Value]


def compute(
    image1: ArrayLike,
    image2: ArrayLike,
    *,
    preset: Preset = "standard",
    backward: bool = False,
    occlusion: bool = False,
    matches: bool = True,
    range: Range | None = None,
    mask: Mask | None = None,
    mask2: Mask | None = None,
    progress: Progress | None = None,
    **options: Unpack[Options],
) -> Result:
    """The flow between two pictures, and what was found on the way.

    Args:
        image1, image2: arrays of one height and width: H x W (grey), H x W x 3 (red, green, blue) or H x W x 4
            (the fourth channel is not used); uint8, uint16 or float; any strides. NumPy arrays, what has
            __dlpack__ on the CPU, an array interface or the buffer protocol. They are only read, and must not
            change meanwhile.
        preset: "standard", "accurate" (smaller errors) or "fast".
        backward: compute the backward flow too.
        occlusion: tell which pixels of image 1 are hidden in image 2; takes the backward flow.
        matches: search descriptor matches; without them motion of more than about 20 pixels may be lost.
        range: the value of white, or (black, white), of both pictures. Floats need it; the default of uint8
            is 255, of uint16 65535.
        mask: bool H x W, True where image 1 tells nothing (no data, a logo): such pixels weigh nothing, and
            the flow there comes from its surroundings. "nan": the pixels of both pictures that are not finite.
        mask2: the same of image 2.
        progress: called as progress(done, total) after each pass. What it raises ends the computation.
        **options: any option in place of the preset's; see help(tarvo.Options) and tarvo.presets().

    Returns:
        A Result. Its arrays are new, in C order.

    Raises:
        TypeError, ValueError: an argument is wrong; the message names it and its value. Nothing was computed.
        tarvo.DeviceError: the device failed.
        KeyboardInterrupt: within a second of Ctrl-C. The next call works.

    Other Python threads run meanwhile; computations take turns. The result does not depend on the number of
    threads or on the processor.

    >>> import numpy as np, tarvo
    >>> image1 = np.random.default_rng(1).integers(0, 256, (60, 80, 3), dtype=np.uint8)
    >>> result = tarvo.compute(image1, np.roll(image1, 2, axis=1), backward=True, occlusion=True, alpha=10)
    >>> result.backward.shape, result.occlusion.shape, result.parameters["alpha"]
    ((60, 80, 2), (60, 80), 10.0)
    """
    return _compute(
        "compute", image1, image2, preset, backward, occlusion, matches, range, mask, mask2, progress, options
    )


@overload
def flow(
    image1: ArrayLike,
    image2: ArrayLike,
    *,
    backward: Literal[False] = ...,
    preset: Preset = ...,
    matches: bool = ...,
    range: Range | None = ...,
    mask: Mask | None = ...,
    mask2: Mask | None = ...,
    progress: Progress | None = ...,
    **options: Unpack[Options],
) -> Flow: ...
@overload
def flow(
    image1: ArrayLike,
    image2: ArrayLike,
    *,
    backward: Literal[True],
    preset: Preset = ...,
    matches: bool = ...,
    range: Range | None = ...,
    mask: Mask | None = ...,
    mask2: Mask | None = ...,
    progress: Progress | None = ...,
    **options: Unpack[Options],
) -> tuple[Flow, Flow]: ...
def flow(
    image1: ArrayLike,
    image2: ArrayLike,
    *,
    backward: bool = False,
    preset: Preset = "standard",
    matches: bool = True,
    range: Range | None = None,
    mask: Mask | None = None,
    mask2: Mask | None = None,
    progress: Progress | None = None,
    **options: Unpack[Options],
) -> Flow | tuple[Flow, Flow]:
    """The flow from image 1 to image 2: float32 H x W x 2, (u, v) in pixels; with backward=True a pair of flows.

    Arguments and errors are those of tarvo.compute, whose Result tells more.

    >>> import numpy as np, tarvo
    >>> image1 = np.random.default_rng(1).random((60, 80)).astype(np.float32)    # grey, 0 ... 1
    >>> forward, backward = tarvo.flow(image1, image1, range=1.0, backward=True, preset="fast")
    >>> forward.shape, bool(abs(forward).max() < 0.01)
    ((60, 80, 2), True)
    """
    result = _compute(
        "flow", image1, image2, preset, backward, False, matches, range, mask, mask2, progress, options
    )
    return result.forward if result.backward is None else (result.forward, result.backward)


def matches(
    image1: ArrayLike,
    image2: ArrayLike,
    *,
    preset: Preset = "standard",
    range: Range | None = None,
    mask: Mask | None = None,
    mask2: Mask | None = None,
    progress: Progress | None = None,
    **options: Unpack[Options],
) -> npt.NDArray[np.float32]:
    """The descriptor matches alone that a flow with these arguments uses: float32 N x 5, one row each.

    Columns: x, y [pixels of image 1], u, v [motion in pixels], weight (0 ... infinity; more is surer). Arguments
    and errors are those of tarvo.compute.

    >>> import numpy as np, tarvo
    >>> image1 = np.random.default_rng(1).integers(0, 256, (60, 80, 3), dtype=np.uint8)
    >>> found = tarvo.matches(image1, np.roll(image1, 5, axis=1))
    >>> print(np.median(found[:, 2]), np.median(found[:, 3]))
    5.0 0.0
    """
    no_passes = {"fixed_point_iterations": 0, "final_passes": 0, "least_side": 2**30}
    return _compute(
        "matches", image1, image2, preset, False, False, True, range, mask, mask2, progress, options, no_passes
    ).matches


def _compute(
    function: str,
    image1: object,
    image2: object,
    preset: object,
    backward: object,
    occlusion: object,
    matches: object,
    range: Range | None,
    mask: object,
    mask2: object,
    progress: object,
    options: Mapping[str, object],
    settled: Mapping[str, object] = MappingProxyType({}),
) -> Result:
    """Checks everything in the name of the function that was called, then computes. `settled` are options that
    the function settles itself, whatever was given."""
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, got {progress!r}")
    chosen = make_options(function, preset, options, settled)
    set_switches(chosen, backward=backward, occlusion=occlusion, matches=matches)
    if isinstance(mask, str) and mask2 is None:
        mask2 = mask
    first = picture(image1, "image1", range, mask, "mask")
    second = picture(image2, "image2", range, mask2, "mask2")
    if (first.height, first.width) != (second.height, second.width):
        raise ValueError(
            "image1 and image2 must have the same height and width, "
            f"got {first.height} x {first.width} and {second.height} x {second.width}"
        )
    return Result(**_core.compute(first, second, chosen, progress), parameters=values_of(chosen))
