#!/usr/bin/env python3
"""How fast temporal antialiasing converges: the distance of its frames from the picture that it ends with.

    taa_convergence.py MODEL [OUTPUT.png]
"""

import sys

import numpy as np

import kvo

SIZE = (320, 180)
FRAMES = 30  # the pipeline jitters no more after these


def main(path, output="taa-convergence.png"):
    model = kvo.Model(path)
    camera = kvo.orbit(yaw=40, pitch=15)
    # Sixteen samples a pixel, by one frame at four times the size.
    large = kvo.Pipeline("taa").render(model, (SIZE[0] * 4, SIZE[1] * 4), camera).over("#000000")
    reference = np.asarray(large[..., :3], float).reshape(SIZE[1], 4, SIZE[0], 4, 3).mean(axis=(1, 3))
    pipeline = kvo.Pipeline("taa")
    errors = []
    pictures = []
    for _ in range(FRAMES):
        frame = np.asarray(pipeline.render(model, SIZE, camera).over("#000000")[..., :3], float)
        pictures.append(frame)
        errors.append(np.sqrt(((frame - reference) ** 2).mean()))
    distances = [np.sqrt(((frame - pictures[-1]) ** 2).mean()) for frame in pictures]
    print(f"error against 16 samples: {errors[0]:.2f} of 255 after 1 frame, {errors[-1]:.2f} after {FRAMES}")

    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    axes.plot(range(1, FRAMES + 1), errors, label="from 16 samples a pixel")
    axes.plot(range(1, FRAMES), distances[:-1], label="from its own last frame")
    axes.set(xlabel="frames", ylabel="root of the mean square, of 255", ylim=(0, None), title="Temporal antialiasing")
    axes.legend()
    figure.savefig(output, dpi=100)
    return errors, distances


if __name__ == "__main__":
    main(*sys.argv[1:])
