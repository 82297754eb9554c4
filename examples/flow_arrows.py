"""The flow between two pictures as arrows over the first one."""

import matplotlib.pyplot as plt
import numpy as np
import pictures

import tarvo


def draw(axes, picture, flow, step=None, magnified=1):
    """Draws the picture, and the flow of every step-th pixel as an arrow from where it is towards where it moves."""
    step = step or max(1, flow.shape[1] // 24)
    y, x = np.mgrid[step // 2 : flow.shape[0] : step, step // 2 : flow.shape[1] : step]
    u, v = flow[y, x, 0], flow[y, x, 1]
    axes.imshow(picture, cmap="gray", alpha=0.75)
    # In data units of the picture, whose y axis points down: so v > 0 points down, and lengths are pixels.
    units = {"angles": "xy", "scale_units": "xy", "scale": 1 / magnified, "units": "inches", "width": 0.018}
    return axes.quiver(x, y, u, v, color="#d62728", **units)


def show(frame1, frame2):
    flow = tarvo.flow(frame1, frame2)
    height, width = flow.shape[:2]
    figure = plt.figure(figsize=(8, 8 * height / width + 0.5), layout="constrained")
    axes = figure.subplots()
    longest = np.hypot(flow[..., 0], flow[..., 1]).max()
    magnified = max(1, int(width / 16 / max(longest, 0.1)))  # so that short motion can be seen
    draw(axes, frame1, flow, magnified=magnified)
    shown = "true length" if magnified == 1 else f"{magnified} times their length"
    axes.set_title(f"Where pixels of frame 1 move (arrows: {shown}; longest motion {longest:.1f} px)")
    axes.set_axis_off()
    return figure


if __name__ == "__main__":
    pair, out = pictures.arguments(__doc__, "flow_arrows.png")
    show(*pair).savefig(out, dpi=150, bbox_inches="tight")
