"""What the documents show runs as it stands."""

import re
from pathlib import Path

import pytest
from conftest import scene

ROOT = Path(__file__).parents[2]


@pytest.mark.parametrize("document", ["docs/python.md", "README.md"])
def test_python_blocks_run_in_order(document, tmp_path, monkeypatch):
    pyplot = pytest.importorskip("matplotlib.pyplot")
    monkeypatch.chdir(tmp_path)
    for k in (1, 2):
        pyplot.imsave(f"frame{k}.png", scene(60, 90, 2.0 * k, 0.0))
    blocks = re.findall(r"^```python\n(.*?)^```", (ROOT / document).read_text(), re.DOTALL | re.MULTILINE)
    assert blocks
    names = {"__name__": "document"}
    for number, block in enumerate(blocks):
        exec(compile(block, f"{document}, block {number + 1}", "exec"), names)
