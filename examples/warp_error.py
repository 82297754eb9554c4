"""How well a flow explains two pictures: frame 2 warped back to frame 1, and what still differs."""

import argparse

import matplotlib.pyplot as plt
import numpy as np

import tarvo


def read(path):
    """A picture file as uint8; Matplotlib reads PNG files as floats in 0 ... 1."""
    picture = plt.imread(path)
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


def show(frame1, frame2):
    result = tarvo.compute(frame1, frame2, occlusion=True)
    back = tarvo.warp(frame2, result.forward)  # looks like frame 1; NaN where the motion leaves frame 2
    error = np.abs(back - frame1)
    error = error.mean(axis=2) if error.ndim == 3 else error  # mean over the channels
    visible = ~result.occlusion & np.isfinite(error)

    height, width = error.shape
    figure = plt.figure(figsize=(12, 5.6 * height / width + 0.6), layout="constrained")
    left, right = figure.subplots(1, 2)
    left.imshow(np.nan_to_num(back, nan=255).astype(np.uint8), cmap="gray")
    left.set_title("Frame 2 warped back (white: outside frame 2)")
    shown = right.imshow(error, cmap="gray", vmin=0, vmax=max(np.percentile(error[visible], 99), 1))
    blue = np.zeros((height, width, 4))
    blue[~visible] = 0.1, 0.5, 1.0, 0.8
    right.imshow(blue)
    right.set_title(f"Absolute error, mean of visible pixels {error[visible].mean():.1f} (blue: hidden)")
    figure.colorbar(shown, ax=right, label="grey values, 0 ... 255", extend="max")
    for axes in (left, right):
        axes.set_axis_off()
    return figure


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("frames", nargs="*", metavar="frame", help="two pictures of one size; none: a synthetic pair")
    parser.add_argument("-o", "--out", default="warp_error.png", help="picture to write (%(default)s)")
    arguments = parser.parse_args()
    if len(arguments.frames) not in (0, 2):
        parser.error("give two frames or none")
    pair = [read(path) for path in arguments.frames] or synthetic_pair()
    show(*pair).savefig(arguments.out, dpi=150)
