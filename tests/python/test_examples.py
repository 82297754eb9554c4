"""The examples run and draw what they say."""

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from conftest import scene

import tarvo

pyplot = pytest.importorskip("matplotlib.pyplot")
EXAMPLES = Path(__file__).parents[2] / "examples"


def run(name, *arguments):
    environment = {**os.environ, "MPLBACKEND": "Agg"}
    subprocess.run([sys.executable, EXAMPLES / name, *arguments], check=True, timeout=120, env=environment)


@pytest.mark.parametrize("name", ["flow_colors.py", "flow_arrows.py", "warp_error.py"])
def test_examples_draw_pictures(name, tmp_path):
    for k in (1, 2):
        pyplot.imsave(tmp_path / f"{k}.png", scene(60, 90, 2.0 * k, 0.0))
    run(name, "-o", tmp_path / "synthetic.png")
    run(name, tmp_path / "1.png", tmp_path / "2.png", "-o", tmp_path / "files.png")
    for out in ("synthetic.png", "files.png"):
        picture = pyplot.imread(tmp_path / out)
        assert min(picture.shape[:2]) > 300 and picture[..., :3].std() > 0.05


def test_arrows_of_motion_downwards_point_downwards(monkeypatch):
    monkeypatch.syspath_prepend(EXAMPLES)
    import flow_arrows

    figure, axes = pyplot.subplots()
    flow = np.zeros((60, 90, 2), np.float32)
    flow[..., 1] = 10
    arrows = flow_arrows.draw(axes, scene(60, 90), flow)
    assert (arrows.angles, arrows.scale_units, arrows.scale) == ("xy", "xy", 1)  # in the data's units, so that
    foot, tip = axes.transData.transform([(40, 20), (40, 20 + 10)])  # the arrow ends where the pixel moves
    assert tip[1] < foot[1] and tip[0] == foot[0]
    pyplot.close(figure)


def test_many_pairs_on_a_cluster_are_those_of_one_process(tmp_path):
    pytest.importorskip("distributed")
    frames = [scene(60, 90, float(k), 0.5 * k) for k in range(4)]
    (tmp_path / "in").mkdir()
    for k, frame in enumerate(frames):
        pyplot.imsave(tmp_path / "in" / f"{k}.png", frame)
    run("many_pairs.py", tmp_path / "in", "-o", tmp_path / "out")
    assert sorted(path.name for path in (tmp_path / "out").iterdir()) == ["0.flo", "1.flo", "2.flo"]
    for k in range(3):
        assert np.array_equal(tarvo.read_flow(tmp_path / "out" / f"{k}.flo"), tarvo.flow(*frames[k : k + 2], preset="fast"))
