"""Dense optical flow between two colour images, on NVIDIA GPUs and on any CPU.

>>> import numpy as np, tarvo
>>> image1 = np.random.default_rng(1).integers(0, 256, (60, 80, 3), dtype=np.uint8)
>>> image2 = np.roll(image1, 2, axis=1)              # everything moves 2 pixels to the right
>>> flow = tarvo.flow(image1, image2)
>>> flow.shape, flow.dtype.name
((60, 80, 2), 'float32')
>>> u, v = np.median(flow, axis=(0, 1))
>>> print(round(float(u), 1), round(abs(float(v)), 1))
2.0 0.0

A flow is an array of H x W x 2: pixel (x, y) of image 1 looks like (x + u, y + v) of image 2, with
u = flow[y, x, 0] to the right and v = flow[y, x, 1] downwards, in pixels. Not-a-number means unknown.
"""

from tarvo import _core
from tarvo._core import DeviceError
from tarvo._device import devices, memory_required, select_device, set_threads
from tarvo._flow import Result, compute, flow, matches
from tarvo._options import Options, presets
from tarvo._sequences import Summary, stream, write_sequence
from tarvo._tools import Evaluation, FormatError, color, evaluate, occlusion, read_flow, read_image, warp, write_flow

__version__: str = _core.version()
DeviceError.__module__ = "tarvo"
DeviceError.__doc__ = "A device failed, for example for want of memory. The next call works."

__all__ = [
    "DeviceError",
    "Evaluation",
    "FormatError",
    "Options",
    "Result",
    "Summary",
    "__version__",
    "color",
    "compute",
    "devices",
    "evaluate",
    "flow",
    "matches",
    "memory_required",
    "occlusion",
    "presets",
    "read_flow",
    "read_image",
    "select_device",
    "set_threads",
    "stream",
    "warp",
    "write_flow",
    "write_sequence",
]
