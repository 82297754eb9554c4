"""The flow between two pictures as colours: the hue is the direction, fuller colours are longer motion."""

import matplotlib.pyplot as plt
import numpy as np
import pictures

import tarvo


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
    right.text(100, 215, f"centre: no motion\nrim: {longest:.1f} px", ha="center", va="top")
    for axes in (left, middle, right):
        axes.set_axis_off()
    return figure


if __name__ == "__main__":
    pair, out = pictures.arguments(__doc__, "flow_colors.png")
    show(*pair).savefig(out, dpi=150, bbox_inches="tight")
