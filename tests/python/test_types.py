"""Type checkers see the interface as it is documented."""

import subprocess
import sys
from pathlib import Path

import pytest

import tarvo

EVERY_NAME = Path(__file__).with_name("typed_use.py")


def test_the_typed_file_uses_every_public_name():
    text = EVERY_NAME.read_text()
    assert [name for name in tarvo.__all__ if f"tarvo.{name}" not in text] == []


@pytest.mark.parametrize("checker", [["mypy", "--strict"], ["pyright", "--pythonpath", sys.executable]], ids=["mypy", "pyright"])
def test_type_checkers_accept_it(checker, tmp_path):
    pytest.importorskip(checker[0])
    copy = tmp_path / EVERY_NAME.name
    copy.write_text(EVERY_NAME.read_text())
    run = subprocess.run([sys.executable, "-m", *checker, copy.name], cwd=tmp_path, capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stdout + run.stderr
