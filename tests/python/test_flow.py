"""The flow has the bits of the C++ library, whatever the arrays look like."""

import hashlib
import subprocess

import numpy as np
import pytest
from conftest import data_pairs, scene

import tarvo


def digest(array):
    assert array.dtype == np.float32 and array.flags.c_contiguous and array.flags.writeable
    return hashlib.sha256(array.tobytes()).hexdigest()


class Exporter:
    """An array of another library."""

    def __init__(self, array):
        self.array = array

    def __dlpack__(self, *, stream=None, **more):
        return self.array.__dlpack__()

    def __dlpack_device__(self):
        return self.array.__dlpack_device__()


def sliced(array, step_y=2, step_x=3):
    big = np.zeros((array.shape[0] * step_y, array.shape[1] * step_x, *array.shape[2:]), array.dtype)
    big[::step_y, ::step_x] = array
    return big[::step_y, ::step_x]


def reversed_axes(array):
    return np.ascontiguousarray(array[::-1, ::-1, ::-1])[::-1, ::-1, ::-1]


def read_only(array):
    copy = array.copy()
    copy.flags.writeable = False
    return copy


def unaligned(array):
    wide = np.frombuffer(b"\0" + array.astype(np.uint16).tobytes(), np.uint8)[1:]
    return wide.view(np.uint16).reshape(array.shape)


LAYOUTS = {
    "Fortran": np.asfortranarray,
    "sliced": sliced,
    "reversed": reversed_axes,
    "read-only": read_only,
    "planar": lambda a: np.ascontiguousarray(a.transpose(2, 0, 1)).transpose(1, 2, 0),
    "RGBA": lambda a: np.concatenate([a, np.full_like(a[..., :1], 7)], axis=2),
    "memoryview": memoryview,
    "DLPack": Exporter,
    "16 bits": lambda a: a.astype(np.uint16) * 257,
}
WITH_RANGE = {
    "float32": lambda a: a.astype(np.float32),
    "float64 sliced": lambda a: sliced(a.astype(np.float64)),
    "float16": lambda a: a.astype(np.float16),
    "unaligned": unaligned,
}


def test_every_layout_has_one_hash(pair):
    expected = digest(tarvo.flow(*pair))
    for name, change in LAYOUTS.items():
        assert digest(tarvo.flow(change(pair[0]), change(pair[1]))) == expected, name
    for name, change in WITH_RANGE.items():
        assert digest(tarvo.flow(change(pair[0]), change(pair[1]), range=255)) == expected, name
    pillow = pytest.importorskip("PIL.Image")
    assert digest(tarvo.flow(pillow.fromarray(pair[0]), pillow.fromarray(pair[1]))) == expected


def test_grey_pictures_are_three_equal_channels(pair):
    grey = [np.ascontiguousarray(picture[..., 0]) for picture in pair]
    three = [np.repeat(picture[..., None], 3, axis=2) for picture in grey]
    assert digest(tarvo.flow(*grey)) == digest(tarvo.flow(*three))


@pytest.mark.skipif(not data_pairs(), reason="TARVO_TEST_DATA names no folder of picture pairs")
def test_flow_has_the_bits_of_the_tool_on_every_pair(tool, tmp_path):
    matplotlib_image = pytest.importorskip("matplotlib.image")
    for frame1 in data_pairs():
        frame2, out = frame1.with_name("frame2.png"), tmp_path / "f.flo"
        subprocess.run([tool, "flow", frame1, frame2, "-o", out, "--quiet"], check=True, timeout=300)
        first, second = (np.rint(matplotlib_image.imread(f)[..., :3] * 255).astype(np.uint8) for f in (frame1, frame2))
        assert digest(tarvo.flow(first, second)) == digest(tarvo.read_flow(out)), frame1.parent.name


def test_result_tells_what_was_computed(pair):
    result = tarvo.compute(*pair, backward=True, occlusion=True, alpha=9.5, preset="fast")
    assert np.array_equal(result.forward, tarvo.flow(*pair, alpha=9.5, preset="fast"))
    assert np.array_equal(result.backward, tarvo.flow(*reversed(pair), alpha=9.5, preset="fast"))
    assert np.array_equal(result.occlusion, tarvo.occlusion(result.forward, result.backward))
    assert result.parameters == {**tarvo.presets()["fast"], "alpha": 9.5}
    assert result.device and 0 < result.seconds["matching"] < result.seconds["total"]
    assert np.allclose(np.median(result.matches[:, 2:4], axis=0), (3, -2))
    assert np.array_equal(result.matches, tarvo.matches(*pair, preset="fast"))
    alone = tarvo.compute(*pair, matches=False)
    assert alone.backward is None and alone.occlusion is None and alone.matches.shape == (0, 5)


def test_masked_pixels_count_for_nothing():
    first, second = scene(96, 128), scene(96, 128, 2.0, 1.0)
    clean = tarvo.flow(first, second)
    mask = np.zeros(first.shape[:2], bool)
    mask[30:50, 40:70] = True
    junk = [first.copy(), first.copy()]
    junk[0][mask], junk[1][mask] = 255, np.random.default_rng(0).integers(0, 256, (mask.sum(), 3))
    flows = [tarvo.flow(picture, second, mask=mask) for picture in junk]
    assert digest(flows[0]) == digest(flows[1])
    assert np.abs(flows[0] - clean).mean() < 0.1
    unknown = first.astype(np.float32)
    unknown[mask] = np.nan
    expected = digest(flows[0])
    assert digest(tarvo.flow(unknown, second.astype(np.float32), range=255, mask="nan")) == expected
    assert digest(tarvo.flow(unknown, second.astype(np.float32), range=255, mask=mask)) == expected
    assert digest(tarvo.flow(first, second, mask=np.zeros_like(mask), mask2=np.zeros_like(mask))) == digest(clean)
