#!/usr/bin/env python3
"""How far weighted transparency is from the exact one, over opacity.

The two passes light surfaces in their own ways: at opacity 1, where both show what is in front, the light is all of the
difference.

    transparency_error.py MODEL [OUTPUT.png]
"""

import sys

import numpy as np

import kvo

SIZE = (320, 180)
OPACITIES = np.linspace(0.1, 1.0, 10)


def main(path, output="transparency-error.png"):
    model = kvo.Model(path)
    camera = kvo.orbit(yaw=30, pitch=20)
    pipeline = kvo.Pipeline("oit-compare")
    errors = []
    for opacity in OPACITIES:
        model.set_opacity(float(opacity))
        both = pipeline.render(model, SIZE, camera, outputs=["Compose.Frame", "Opaque.Frame", "Record.HeadPointers"])
        exact, weighted = (np.clip(both[name][..., :3].astype(float), 0, 1) * 255 for name in ("Compose.Frame", "Opaque.Frame"))
        drawn = both["Record.HeadPointers"] != 0
        errors.append(np.abs(exact - weighted)[drawn].mean())
        print(f"opacity {opacity:.1f}: {errors[-1]:.2f} of 255 in the mean over the pixels of the model")

    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    axes.plot(OPACITIES, errors, marker="o")
    axes.set(xlabel="opacity", ylabel="mean difference, of 255", ylim=(0, None), title="Weighted transparency")
    figure.savefig(output, dpi=100)
    return errors


if __name__ == "__main__":
    main(*sys.argv[1:])
