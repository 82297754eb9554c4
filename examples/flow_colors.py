"""The flow between two pictures as colours: the hue is the direction, the brightness the length."""

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
    flow = tarvo.flow(frame1, frame2)
    length = np.hypot(flow[..., 0], flow[..., 1])
    longest = max(float(np.percentile(length, 99)), 1.0)  # a few wild pixels must not darken all others

    height, width = flow.shape[:2]
    figure = plt.figure(figsize=(12, 5.1 * height / width + 0.5), layout="constrained")
    left, middle, right = figure.subplots(1, 3, width_ratios=(5, 5, 1.2))
    left.imshow(frame1, cmap="gray")
    left.set_title("Frame 1")
    middle.imshow(tarvo.color(flow, max_motion=longest))
    middle.set_title("Flow from frame 1 to frame 2")

    y, x = np.mgrid[-1:1:201j, -1:1:201j]  # the legend: the colour of every motion up to the longest
    disc = tarvo.color(np.dstack([x, y]).astype(np.float32), max_motion=1)
    disc[np.hypot(x, y) > 1] = 255
    right.imshow(disc)
    right.set_title("Direction of motion", fontsize="medium")
    right.text(100, 215, f"centre: no motion\nrim: {longest:.1f} px or more", ha="center", va="top")
    for axes in (left, middle, right):
        axes.set_axis_off()
    return figure


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("frames", nargs="*", metavar="frame", help="two pictures of one size; none: a synthetic pair")
    parser.add_argument("-o", "--out", default="flow_colors.png", help="picture to write (%(default)s)")
    arguments = parser.parse_args()
    if len(arguments.frames) not in (0, 2):
        parser.error("give two frames or none")
    pair = [read(path) for path in arguments.frames] or synthetic_pair()
    show(*pair).savefig(arguments.out, dpi=150)
