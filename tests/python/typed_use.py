"""Every public name, as type checkers should understand it."""

from typing import Dict, Optional, Tuple

import numpy as np
import numpy.typing as npt
from typing_extensions import assert_type

import tarvo

image1 = np.zeros((60, 80, 3), np.uint8)
image2 = image1.astype(np.float32)
mask = np.zeros((60, 80), np.bool_)
Floats = npt.NDArray[np.float32]


def progress(done: int, total: int) -> None: ...


forward = tarvo.flow(image1, image1)
assert_type(forward, Floats)
assert_type(tarvo.flow(image1, image1, backward=False, alpha=10, mask=mask), Floats)
assert_type(tarvo.flow(image2, image2, backward=True, range=1.0, mask="nan"), Tuple[Floats, Floats])
options: tarvo.Options = {"alpha": 9.5, "solver": "relaxation"}
result = tarvo.compute(image1, image1, preset="accurate", occlusion=True, progress=progress, **options)
assert_type(result, tarvo.Result)
assert_type(result.backward, Optional[Floats])
assert_type(result.seconds["total"], float)
assert_type(tarvo.matches(image1, image1, range=(0.0, 255.0)), Floats)
assert_type(tarvo.occlusion(forward, forward), npt.NDArray[np.bool_])
assert_type(tarvo.warp(image1, forward, fill=0.0), Floats)
assert_type(tarvo.color(forward, wheel="dark", max_motion=3.0, legend=True), npt.NDArray[np.uint8])
errors: tarvo.Evaluation = tarvo.evaluate(forward, forward)
assert_type(errors.epe, float)
assert_type(tarvo.memory_required(1080, 1920, preset="fast", eta=0.5), int)
for name, values in tarvo.presets().items():
    print(name, values["alpha"])
try:
    tarvo.set_threads(2)
    print(tarvo.devices(), tarvo.select_device("cpu"), tarvo.__version__)
    tarvo.write_flow("f.npz", tarvo.read_flow("f.flo"), format="npz16")
    assert_type(tarvo.read_image("frame.png"), Floats)
    for step in tarvo.stream([image1, image1], backward=True, alpha=9):
        assert_type(step.forward, Floats)
    summary: tarvo.Summary = tarvo.write_sequence("frames", "out", direction="both", resume=True, progress=print)
    tarvo.write_sequence((image1 for _ in "ab"), "out", preset="fast", alpha=9)
    assert_type(summary.errors, Dict[int, str])
except (tarvo.DeviceError, tarvo.FormatError, OSError) as error:
    print(error)
