"""How well a flow explains two pictures: frame 2 warped back to frame 1, and what still differs."""

import matplotlib.pyplot as plt
import numpy as np
import pictures

import tarvo


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
    shown = right.imshow(error, cmap="gray", vmin=0, vmax=max(np.percentile(error[visible], 99), 10))
    blue = np.zeros((height, width, 4))
    blue[~visible] = 0.1, 0.5, 1.0, 1.0
    right.imshow(blue)
    right.set_title(f"Absolute error, mean of visible pixels {error[visible].mean():.1f} (blue: hidden)")
    figure.colorbar(shown, ax=right, label="grey levels of 255", extend="max", shrink=0.8)
    for axes in (left, right):
        axes.set_axis_off()
    return figure


if __name__ == "__main__":
    pair, out = pictures.arguments(__doc__, "warp_error.png")
    show(*pair).savefig(out, dpi=150, bbox_inches="tight")
