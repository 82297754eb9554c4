"""The flow between two pictures as arrows over the first one."""

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


def draw(axes, picture, flow, step=None):
    """Draws the picture, and the flow of every step-th pixel as an arrow from where it is to where it moves."""
    step = step or max(1, flow.shape[1] // 24)
    y, x = np.mgrid[step // 2 : flow.shape[0] : step, step // 2 : flow.shape[1] : step]
    u, v = flow[y, x, 0], flow[y, x, 1]
    axes.imshow(picture, cmap="gray", alpha=0.6)
    # In data units of the picture, whose y axis points down: so v > 0 points down, and lengths are pixels.
    units = {"angles": "xy", "scale_units": "xy", "scale": 1, "units": "inches", "width": 0.018}
    return axes.quiver(x, y, u, v, color="#d62728", **units)


def show(frame1, frame2):
    flow = tarvo.flow(frame1, frame2)
    height, width = flow.shape[:2]
    figure = plt.figure(figsize=(8, 8 * height / width + 0.5), layout="constrained")
    axes = figure.subplots()
    draw(axes, frame1, flow)
    longest = np.hypot(flow[..., 0], flow[..., 1]).max()
    axes.set_title(f"Where pixels of frame 1 move (arrows in true length, longest {longest:.1f} px)")
    axes.set_axis_off()
    return figure


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("frames", nargs="*", metavar="frame", help="two pictures of one size; none: a synthetic pair")
    parser.add_argument("-o", "--out", default="flow_arrows.png", help="picture to write (%(default)s)")
    arguments = parser.parse_args()
    if len(arguments.frames) not in (0, 2):
        parser.error("give two frames or none")
    pair = [read(path) for path in arguments.frames] or synthetic_pair()
    show(*pair).savefig(arguments.out, dpi=150)
