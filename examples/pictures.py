"""Pictures for the other examples: two files, or a synthetic pair."""

import argparse

import matplotlib.pyplot as plt
import numpy as np


def read(path):
    """A picture file as uint8, grey or RGB; Matplotlib reads PNG files as floats in 0 ... 1."""
    picture = plt.imread(path)
    picture = picture[..., :3] if picture.ndim == 3 else picture
    return picture if picture.dtype == np.uint8 else np.uint8(np.rint(255 * picture))


def synthetic_pair(height=240, width=320):
    """A disc that moves by (12, 6) pixels before a background that moves by (-3, 0)."""

    def texture(x, y, colors):
        waves = sum(np.sin(a * x + b * y + 3 * a) for a, b in ((0.2, 0.1), (-0.1, 0.3), (0.5, 0.4), (0.7, -0.6)))
        return waves[..., None] * 25 + colors

    def frame(t):
        y, x = np.mgrid[:height, :width].astype(float)
        disc = np.hypot(x - width / 2 - 12 * t, y - height / 2 - 6 * t) < height / 4
        near, far = texture(x - 12 * t, y - 6 * t, (200, 150, 100)), texture(x + 3 * t, y, (90, 120, 150))
        return np.uint8(np.clip(np.where(disc[..., None], near, far), 0, 255))

    return frame(0), frame(1)


def arguments(description, output):
    """The pair that the command line names, and the file to write."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("frames", nargs="*", metavar="frame", help="two pictures of one size; none: a synthetic pair")
    parser.add_argument("-o", "--out", default=output, help="picture to write (%(default)s)")
    given = parser.parse_args()
    if len(given.frames) not in (0, 2):
        parser.error("give two frames or none")
    return [read(path) for path in given.frames] or synthetic_pair(), given.out
