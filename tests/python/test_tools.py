"""What is done with a flow, against values known beforehand."""

import numpy as np
from conftest import scene

import tarvo


def test_warp_undoes_the_motion_and_marks_what_it_cannot_see():
    first, second = scene(60, 80), scene(60, 80, 3.0, -2.0)
    moved = np.full((60, 80, 2), (3, -2), np.float32)
    back = tarvo.warp(second, moved)
    seen = np.isfinite(back).all(axis=2)
    assert seen.sum() == (60 - 2) * (80 - 3)
    assert np.array_equal(back[seen], first[seen])
    assert np.array_equal(tarvo.warp(first[..., 0], np.zeros((60, 80, 2), np.float32)), first[..., 0])
    moved[5, 6] = np.nan
    assert (tarvo.warp(second, moved, fill=-1)[5, 6] == -1).all()


def test_evaluation_counts_known_pixels_only():
    truth, found = np.zeros((10, 10, 2), np.float32), np.zeros((10, 10, 2), np.float32)
    truth[0], found[1], found[2, 0] = np.nan, (3, 4), np.nan
    errors = tarvo.evaluate(found, truth)
    assert (errors.used, errors.missing) == (90, 1)
    assert np.isclose(errors.epe, 10 * 5 / 89) and np.isclose(errors.fl_all, 11 / 90) and errors.median == 0


def test_files_keep_bits_and_unknown_motion(tmp_path):
    flow = np.random.default_rng(0).normal(size=(7, 9, 2)).astype(np.float32)
    flow[3, 4] = np.nan
    tarvo.write_flow(tmp_path / "f.flo", flow[:, ::-1])
    assert np.array_equal(tarvo.read_flow(bytes(tmp_path / "f.flo")), flow[:, ::-1], equal_nan=True)


def test_colors_show_direction_length_and_unknown_motion():
    flow = np.zeros((90, 90, 2), np.float32)
    flow[0, :4] = (5, 0), (-5, 0), (0, 2.5), (np.nan, 0)
    colors = tarvo.color(flow, wheel="dark", max_motion=5)
    assert colors.dtype == np.uint8 and colors[0, 0].tolist() == [255, 0, 0] and colors[1, 0].tolist() == [0, 0, 0]
    assert np.argmax(colors[0, 1]) == 1 and 100 < colors[0, 2].max() < 150 and colors[0, 3].tolist() == [128] * 3
    assert np.array_equal(tarvo.color(flow, wheel="dark", max_motion="longest"), colors)
    with_legend = tarvo.color(flow, legend=True)
    assert with_legend[0, :2].tolist() == [[255, 0, 0], [0, 209, 255]] and with_legend[60, 20].tolist() == [255] * 3
    assert (with_legend[70:, 40:] == 0).all(axis=2).any()
