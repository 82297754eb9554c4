"""What is done with a flow: hidden pixels, warping, colours, errors, files."""

from __future__ import annotations

import math
import numbers as number_kinds
import os
import warnings
from dataclasses import dataclass
from typing import Literal

import numpy as np
import numpy.typing as npt

from tarvo import _core
from tarvo._arrays import ArrayLike, flow_field, numbers, same_size


class FormatError(ValueError):
    """A file is not what its name says, or is damaged."""


@dataclass(frozen=True)
class Evaluation:
    """How far a flow is from the truth, over the pixels whose true motion is known.

    Attributes:
        epe: mean end-point error, the length of the difference [pixels].
        median, percentile99: of the end-point errors [pixels].
        angular: mean angle between (u, v, 1) of both [degrees].
        fl_all: share (0 ... 1) of pixels with an error above 3 pixels and above 5 % of the true length, or
            whose flow is unknown.
        used: pixels whose true motion is known.
        missing: those of them whose flow is unknown; they count in fl_all alone.
    """

    epe: float
    median: float
    percentile99: float
    angular: float
    fl_all: float
    used: int
    missing: int


def occlusion(forward: ArrayLike, backward: ArrayLike) -> npt.NDArray[np.bool_]:
    """Which pixels of image 1 are hidden in image 2: bool H x W.

    With flow f of a pixel at x and backward flow b, interpolated bilinearly, a pixel is hidden if x + f leaves
    the picture by more than half a pixel, or unless |f + b(x + f)|^2 <= 0.01 (|f|^2 + |b(x + f)|^2) + 0.5 pixels^2.

    Args:
        forward, backward: flows between two pictures, H x W x 2 [pixels].

    Raises:
        TypeError, ValueError: not two flows of one size.

    >>> import numpy as np, tarvo
    >>> still = np.zeros((4, 5, 2), np.float32)
    >>> int(tarvo.occlusion(still, still).sum()), int(tarvo.occlusion(still + 3, still - 3).sum())
    (0, 18)
    """
    first, second = flow_field(forward, "forward"), flow_field(backward, "backward")
    same_size(first, "forward", second, "backward")
    return _core.consistency(first, second)


def warp(image: ArrayLike, flow: ArrayLike, *, fill: float = math.nan) -> npt.NDArray[np.float32]:
    """image at (x + u, y + v), bilinear: image 2 warped by the flow from image 1 looks like image 1.

    Args:
        image: H x W or H x W x C of numbers.
        flow: H x W x 2 [pixels].
        fill: the value where (x + u, y + v) is more than half a pixel outside, or the flow is unknown.

    Returns:
        float32 of the image's shape, in its values.

    Raises:
        TypeError, ValueError: wrong arrays, or of different sizes.

    >>> import numpy as np, tarvo
    >>> image = np.arange(12, dtype=np.uint8).reshape(3, 4)
    >>> right = np.full((3, 4, 2), (1, 0), np.float32)
    >>> tarvo.warp(image, right, fill=-1)[0].tolist()
    [1.0, 2.0, 3.0, -1.0]
    """
    values, field = numbers(image, "image"), flow_field(flow, "flow")
    same_size(values, "image", field, "flow")
    outside = _number(fill, "fill", nan=True)
    planes = values if values.ndim == 3 else values[..., None]
    return _core.warp(planes, field, outside).reshape(values.shape)


def color(
    flow: ArrayLike,
    *,
    wheel: Literal["standard", "dark"] = "standard",
    max_motion: float | Literal["auto", "longest"] = "auto",
    legend: bool = False,
) -> npt.NDArray[np.uint8]:
    """A flow as colours, uint8 H x W x 3: the hue is the direction; unknown motion is grey.

    Args:
        flow: H x W x 2 [pixels].
        wheel: "standard", with which flow fields are usually published: right is red, down yellow, left cyan,
            up blue; no motion is white, colours are fuller up to max_motion and darker beyond it. Or "dark": right
            is red, down violet blue, left green, up yellow; no motion is black, the brightness is the length.
        max_motion: the length with the fullest colours [pixels]; "auto": the length that 99 of 100 known motions
            do not exceed; "longest": the longest. Pictures that are to be compared need the same.
        legend: draw the colours of all motions up to max_motion as a disc in the lower right corner, with
            max_motion and the wheel's name, where the picture is large enough for it.

    Raises:
        TypeError, ValueError: not a flow, no wheel of these, or max_motion not above 0.

    >>> import numpy as np, tarvo
    >>> right = np.full((1, 1, 2), (4, 0), np.float32)
    >>> tarvo.color(right, max_motion=4)[0, 0].tolist(), tarvo.color(right, max_motion=8)[0, 0].tolist()
    ([255, 0, 0], [255, 127, 127])
    """
    field = flow_field(flow, "flow")
    if wheel not in ("standard", "dark"):
        raise ValueError(f'wheel must be "standard" or "dark", got {wheel!r}')
    if isinstance(max_motion, str):
        if max_motion not in ("auto", "longest"):
            raise ValueError(f'max_motion must be "auto", "longest" or a number above 0, got {max_motion!r}')
    elif not _number(max_motion, "max_motion") > 0:
        raise ValueError(f"max_motion must be above 0, got {max_motion!r}")
    return _core.color(field, wheel, max_motion if isinstance(max_motion, str) else float(max_motion), bool(legend))


def evaluate(flow: ArrayLike, truth: ArrayLike) -> Evaluation:
    """The errors of a flow against the true one, over the pixels where the truth is finite and below 1e9.

    Args:
        flow, truth: H x W x 2 [pixels], of one size.

    Raises:
        TypeError, ValueError: not two flows of one size.

    >>> import numpy as np, tarvo
    >>> truth = np.zeros((4, 5, 2), np.float32)
    >>> truth[0] = np.nan
    >>> tarvo.evaluate(np.ones((4, 5, 2), np.float32), truth).used
    15
    """
    field, reference = flow_field(flow, "flow"), flow_field(truth, "truth")
    same_size(field, "flow", reference, "truth")
    return Evaluation(**_core.evaluate(field, reference))


def read_image(path: str | os.PathLike[str]) -> npt.NDArray[np.float32]:
    """A picture as the tool reads it: float32 H x W x 3, red, green, blue in 0 ... 255.

    PNG (grey, RGB, palette; transparency is dropped), JPEG, PGM and PPM. Grey pictures have three equal channels,
    16-bit values are divided by 257. Compute with range=255.

    Raises:
        OSError: the file is not there.
        FormatError: it is no picture, damaged, or too large for a flow.
    """
    name = os.fspath(path)
    with open(name, "rb"):
        pass
    try:
        return _core.read_image(str(name))
    except RuntimeError as error:
        raise FormatError(str(error)) from None


def read_flow(path: str | os.PathLike[str]) -> npt.NDArray[np.float32]:
    """The flow in a file: float32 H x W x 2 [pixels], not-a-number where it is unknown.

    The name's ending tells the format: .flo, .png (KITTI's, 16 bits), .pfm, .npy, .npz, and .exr where tarvo was
    built with OpenEXR; docs/formats.md has the details. Any other name is read as .flo.

    Raises:
        OSError: the file cannot be read.
        FormatError: it is not a flow file, or is damaged; the message tells how.

    >>> import pathlib, tarvo, tempfile
    >>> with tempfile.TemporaryDirectory() as folder:
    ...     path = pathlib.Path(folder) / "one.flo"      # a picture of one pixel: tag, width, height, u, v
    ...     _ = path.write_bytes(b"PIEH" + bytes([1, 0, 0, 0, 1, 0, 0, 0]) + bytes([0, 0, 128, 63]) * 2)
    ...     print(tarvo.read_flow(path).tolist())
    [[[1.0, 1.0]]]
    """
    name = os.fsdecode(path)
    with open(name, "rb"):
        pass  # an OSError of the usual kind
    try:
        return _core.read_flow(name)
    except RuntimeError as error:
        raise FormatError(str(error)) from None


def write_flow(path: str | os.PathLike[str], flow: ArrayLike, *, format: str | None = None) -> None:
    """Writes a flow; motion that is not finite, or of 1e9 pixels and more, is marked as unknown.

    The file appears when it is complete; if anything fails, an older one stays as it was.

    Args:
        path: the ending tells the format: .flo, .png (KITTI's, 16 bits), .pfm, .npy, .npz, and .exr where tarvo
            was built with OpenEXR.
        flow: H x W x 2 [pixels].
        format: the name of the format instead: npy16, npz16 and exr16 have numbers of 16 bits. The ending of the
            path must be the format's.

    Raises:
        TypeError, ValueError: not a flow, or a name or an ending that no format has.
        OSError: the file cannot be written.

    Warns:
        UserWarning: pixels have motion beyond what the format holds; they are marked as unknown.

    >>> import numpy as np, tarvo, tempfile
    >>> with tempfile.TemporaryDirectory() as folder:
    ...     tarvo.write_flow(folder + "/f.npz", np.full((2, 3, 2), 0.5, np.float32), format="npz16")
    ...     print(tarvo.read_flow(folder + "/f.npz").mean())
    0.5
    """
    name = os.fsdecode(path)
    listed = _core.flow_formats()
    endings = dict(zip(listed[::2], listed[1::2]))
    if format is not None and format not in endings:
        raise ValueError(f"format must be one of {', '.join(endings)}, got {format!r}")
    ending = os.path.splitext(name)[1].lower()
    wanted = endings if format is None else {format: endings[format]}
    chosen = next((known for known in wanted if wanted[known] == ending), None)
    if chosen is None:
        raise ValueError(f"path must end in {', '.join(dict.fromkeys(wanted.values()))}, got {name!r}")
    field = flow_field(flow, "flow")
    try:
        dropped = _core.write_flow(name, field, chosen)
    except RuntimeError as error:
        raise OSError(str(error)) from None
    if dropped:
        warnings.warn(f"{name}: {dropped} pixels with motion beyond what {chosen} holds are marked unknown", stacklevel=2)


def _number(value: object, name: str, nan: bool = False) -> float:
    if isinstance(value, bool) or not isinstance(value, number_kinds.Real):
        raise TypeError(f"{name} must be a number, got {value!r}")
    if not (math.isfinite(value) or nan and math.isnan(value)):
        raise ValueError(f"{name} must be finite, got {value!r}")
    return float(value)
