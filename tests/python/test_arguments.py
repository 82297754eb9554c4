"""Wrong arguments are answered by a sentence that names the argument and the value."""

import array as array_module

import numpy as np
import pytest

import tarvo

GOOD = np.zeros((20, 30, 3), np.uint8)
FLOAT = np.full((20, 30, 3), 0.5, np.float32)
WITH_NAN = FLOAT.copy()
WITH_NAN[7, 11, 1] = np.nan
FLOW = np.zeros((20, 30, 2), np.float32)


def flow(image1=GOOD, image2=GOOD, **options):
    return tarvo.flow(image1, image2, **options)


BAD = [
    (TypeError, ["image1", "None"], lambda: flow(None)),
    (TypeError, ["image2", "list"], lambda: flow(image2=[[0, 1], [2, 3]])),
    (TypeError, ["image1", "'frame1.png'"], lambda: flow("frame1.png")),
    (TypeError, ["image1", "b'abc'"], lambda: flow(b"abc")),
    (TypeError, ["image1", "int"], lambda: flow(3)),
    (TypeError, ["image1", "bool"], lambda: flow(GOOD.astype(bool))),
    (TypeError, ["image1", "complex128"], lambda: flow(GOOD.astype(complex))),
    (TypeError, ["image2", "int32"], lambda: flow(image2=GOOD.astype(np.int32))),
    (TypeError, ["image1", "uint32"], lambda: flow(GOOD.astype(np.uint32))),
    (TypeError, ["image1", "object"], lambda: flow(GOOD.astype(object))),
    (TypeError, ["image1", "byte order", ">u2"], lambda: flow(GOOD.astype(">u2"))),
    (TypeError, ["image1", "MaskedArray"], lambda: flow(np.ma.masked_equal(GOOD, 0))),
    (ValueError, ["image1", "(600,)"], lambda: flow(np.zeros(600, np.uint8))),
    (ValueError, ["image1", "(5,)"], lambda: flow(array_module.array("B", [1, 2, 3, 4, 5]))),
    (ValueError, ["image1", "(20, 30, 5)"], lambda: flow(np.zeros((20, 30, 5), np.uint8))),
    (ValueError, ["image1", "(20, 30, 2)"], lambda: flow(np.zeros((20, 30, 2), np.uint8))),
    (ValueError, ["image1", "(0, 30, 3)"], lambda: flow(GOOD[:0], GOOD[:0])),
    (ValueError, ["image1", "image2", "20 x 30", "20 x 29"], lambda: flow(image2=GOOD[:, 1:])),
    (ValueError, ["range", "image1", "float32"], lambda: flow(FLOAT, FLOAT)),
    (ValueError, ["image1", "range=1.0", "127.5"], lambda: flow(FLOAT * 255, FLOAT, range=1.0)),
    (ValueError, ["image2", "range=1.0", "-0.5"], lambda: flow(FLOAT, -FLOAT, range=1.0)),
    (ValueError, ["image1", "range=1023", "65535"], lambda: flow(GOOD + np.uint16(65535), GOOD, range=1023)),
    (ValueError, ["range", "(1.0, 0.0)"], lambda: flow(FLOAT, FLOAT, range=(1.0, 0.0))),
    (ValueError, ["range", "nan"], lambda: flow(FLOAT, FLOAT, range=float("nan"))),
    (TypeError, ["range", "'full'"], lambda: flow(FLOAT, FLOAT, range="full")),
    (ValueError, ["image1", "1 pixels", "[7, 11]", "nan"], lambda: flow(WITH_NAN, FLOAT, range=1.0)),
    (ValueError, ["image2", "1 pixels", "[7, 11]"], lambda: flow(FLOAT, np.nan_to_num(WITH_NAN, nan=np.inf, posinf=None), range=1.0)),
    (TypeError, ["mask", "uint8"], lambda: flow(mask=GOOD[..., 0])),
    (ValueError, ["mask2", "(20, 29)", "(20, 30)"], lambda: flow(mask2=np.zeros((20, 29), bool))),
    (ValueError, ["mask", "'inf'"], lambda: flow(mask="inf")),
    (ValueError, ["preset", "slow", "accurate"], lambda: flow(preset="slow")),
    (ValueError, ["preset", "array"], lambda: flow(preset=np.array(["fast", "slow"]))),
    (TypeError, ["flow()", "aplha", "alpha"], lambda: flow(aplha=3)),
    (ValueError, ["final_passes", "-1"], lambda: tarvo.matches(GOOD, GOOD, final_passes=-1)),
    (TypeError, ["occlusion"], lambda: flow(occlusion=True)),
    (TypeError, ["alpha", "'3'"], lambda: flow(alpha="3")),
    (ValueError, ["alpha", "-1"], lambda: flow(alpha=-1)),
    (ValueError, ["eta", "1.0"], lambda: flow(eta=1.0)),
    (TypeError, ["final_passes", "2.5"], lambda: flow(final_passes=2.5)),
    (TypeError, ["median_radius", "True"], lambda: flow(median_radius=True)),
    (ValueError, ["match_spacing", "6", "multiple of 4"], lambda: flow(match_spacing=6)),
    (ValueError, ["solver", "multigrid", "relaxation"], lambda: flow(solver="multigrid")),
    (ValueError, ["zeta_data", "zeta_gradient", "0.5"], lambda: flow(zeta_data=0.5)),
    (TypeError, ["backward", "'yes'"], lambda: flow(backward="yes")),
    (TypeError, ["progress", "3"], lambda: flow(progress=3)),
    (TypeError, ["flow", "int64"], lambda: tarvo.color(np.zeros((4, 5, 2), int))),
    (ValueError, ["flow", "(4, 5)"], lambda: tarvo.color(np.zeros((4, 5), np.float32))),
    (ValueError, ["max_motion", "0"], lambda: tarvo.color(FLOW, max_motion=0)),
    (ValueError, ["max_motion", "'most'"], lambda: tarvo.color(FLOW, max_motion="most")),
    (ValueError, ["wheel", "'grey'"], lambda: tarvo.color(FLOW, wheel="grey")),
    (ValueError, ["forward", "backward", "(20, 30, 2)"], lambda: tarvo.occlusion(FLOW, FLOW[1:])),
    (ValueError, ["image", "flow", "(20, 29, 3)"], lambda: tarvo.warp(GOOD[:, 1:], FLOW)),
    (TypeError, ["fill", "None"], lambda: tarvo.warp(GOOD, FLOW, fill=None)),
    (ValueError, ["flow", "truth"], lambda: tarvo.evaluate(FLOW, FLOW[:, 1:])),
    (ValueError, ["path", "f.gif"], lambda: tarvo.write_flow("f.gif", FLOW)),
    (OSError, ["/nowhere/f.flo"], lambda: tarvo.write_flow("/nowhere/f.flo", FLOW)),
    (OSError, ["/nowhere/f.flo"], lambda: tarvo.read_flow("/nowhere/f.flo")),
    (ValueError, ["device", "'gpu'"], lambda: tarvo.select_device("gpu")),
    (ValueError, ["threads", "0"], lambda: tarvo.set_threads(0)),
    (TypeError, ["threads", "2.0"], lambda: tarvo.set_threads(2.0)),
    (ValueError, ["height", "0"], lambda: tarvo.memory_required(0, 5)),
    (TypeError, ["occlusion", "1"], lambda: tarvo.memory_required(5, 5, occlusion=1)),
]


@pytest.mark.parametrize("kind, words, call", BAD, ids=[" ".join(words) for _, words, _ in BAD])
def test_wrong_arguments_are_named(kind, words, call):
    with pytest.raises(kind) as caught:
        call()
    message = str(caught.value)
    assert "incompatible function arguments" not in message
    for word in words:
        assert word in message


def test_damaged_files_are_told_from_missing_ones(tmp_path):
    (tmp_path / "f.flo").write_bytes(b"PIEH\x05\0\0\0\x05\0\0\0")
    with pytest.raises(tarvo.FormatError, match="f.flo"):
        tarvo.read_flow(tmp_path / "f.flo")
