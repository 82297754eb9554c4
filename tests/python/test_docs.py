"""What the documents show runs as it stands."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import scene

ROOT = Path(__file__).parents[2]
DOCUMENTS = [str(path.relative_to(ROOT)) for path in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]]
# Shell blocks with one of these install, build, measure for minutes, or need a program that is not ours.
NOT_RUN = ("make ", "cmake ", "ninja", "scripts/", "bench/", "bin/tarvo_bench", "pip install", "sbatch", "parallel ", "nvcc")
NOT_RUN += () if shutil.which("ffmpeg") else (".mp4", ".mkv")


def blocks_of(document, language):
    return re.findall(rf"^```{language}\n(.*?)^```", (ROOT / document).read_text(), re.DOTALL | re.MULTILINE)


def write_frames(folder):
    """What the documents take as there: frames/frame1.png ..., and the same as PPM in stream/."""
    for name in ("frames", "stream"):
        (folder / name).mkdir()
    for k in range(1, 5):
        frame = scene(60, 90, 2.0 * k, 0.0)
        (folder / "stream" / f"frame{k}.ppm").write_bytes(b"P6\n90 60\n255\n" + frame.tobytes())
        pytest.importorskip("matplotlib.pyplot").imsave(folder / "frames" / f"frame{k}.png", frame)


@pytest.mark.parametrize("document", [name for name in DOCUMENTS if blocks_of(name, "sh")])
def test_shell_blocks_run_in_order(document, tmp_path, tool):
    write_frames(tmp_path)
    path = os.pathsep.join([os.path.dirname(tool), os.environ["PATH"]])
    script = "".join(block for block in blocks_of(document, "sh") if not any(word in block for word in NOT_RUN))
    run = subprocess.run(
        ["bash", "-e", "-u", "-c", script], cwd=tmp_path, env={**os.environ, "PATH": path}, capture_output=True, text=True, timeout=300
    )
    assert run.returncode == 0, script + run.stderr


@pytest.mark.parametrize("document", [name for name in DOCUMENTS if blocks_of(name, "python")])
def test_python_blocks_run_in_order(document, tmp_path, monkeypatch):
    pyplot = pytest.importorskip("matplotlib.pyplot")
    monkeypatch.chdir(tmp_path)
    for k in (1, 2):
        pyplot.imsave(f"frame{k}.png", scene(60, 90, 2.0 * k, 0.0))
    names = {"__name__": "document"}
    for number, block in enumerate(blocks_of(document, "python")):
        exec(compile(block, f"{document}, block {number + 1}", "exec"), names)
