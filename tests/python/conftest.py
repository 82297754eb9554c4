"""Pictures for the tests, and the tool of the installed package."""

import os
from pathlib import Path

import numpy as np
import pytest

import tarvo


def scene(height, width, dx=0.0, dy=0.0):
    """A textured picture, uint8 H x W x 3, whose content is moved by (dx, dy)."""
    y, x = np.mgrid[:height, :width].astype(np.float64)
    x, y = x - dx, y - dy
    waves = [(0.11, 0.05, 0.0), (-0.07, 0.13, 1.0), (0.31, 0.23, 2.0), (0.53, -0.41, 0.5), (0.9, 0.7, 0.2)]
    planes = [sum(np.sin(a * x * (1 + 0.1 * k) + b * y + c + k) for a, b, c in waves) for k in range(3)]
    return (128 + 24 * np.stack(planes, axis=2)).astype(np.uint8)


@pytest.fixture(scope="session")
def pair():
    return scene(96, 128), scene(96, 128, 3.0, -2.0)


@pytest.fixture(scope="session")
def tool():
    return str(Path(tarvo.__file__).parent / "bin" / "tarvo")


def data_pairs():
    """Folders of picture pairs with known flow; none where TARVO_TEST_DATA names none."""
    folder = os.environ.get("TARVO_TEST_DATA", "")
    return sorted(Path(folder).glob("*/frame1.png")) if folder else []
