#!/usr/bin/env python3
"""A data set: views of a model with depth, normals, masks of the parts, and poses, as one NPZ file.

    data_set.py MODEL [VIEWS [OUTPUT.npz]]

Checks what it wrote: each pixel's depth and pose lead to a point in the world, and that point back into its pixel, and
onto the box of the model, within half a pixel. Of the box one pixel in a thousand may miss: drivers extrapolate the
depths of triangles that are thinner than a pixel.
"""

import sys

import numpy as np

import kvo

SIZE = (160, 120)  # width, height


def directions(count):
    """Directions that cover the upper part of a sphere evenly: yaw and pitch."""
    i = np.arange(count) + 0.5
    pitch = np.degrees(np.arcsin(i / count * 0.9))
    yaw = np.degrees(i * np.pi * (1 + np.sqrt(5))) % 360
    return np.stack([yaw, pitch], axis=1)


def points(depth, view, projection):
    """Where in the world the drawn pixels lie, (n, 3), and which they are."""
    rows, columns = np.nonzero(depth < 1)
    height, width = depth.shape
    ndc = np.stack([(columns + 0.5) / width * 2 - 1, 1 - (rows + 0.5) / height * 2, depth[rows, columns] * 2.0 - 1,
                    np.ones(len(rows))])  # fmt: skip
    world = np.linalg.solve(projection.astype(float) @ view.astype(float), ndc)
    return (world[:3] / world[3]).T, rows, columns


def check(data, bounds):
    """Half a pixel for all of them, or an error."""
    worst = 0.0
    for depth, view, projection in zip(data["depth"], data["view"], data["projection"]):
        world, rows, columns = points(depth, view, projection)
        clip = projection.astype(float) @ view.astype(float) @ np.vstack([world.T, np.ones(len(world))])
        x = (clip[0] / clip[3] + 1) / 2 * SIZE[0] - 0.5
        y = (1 - clip[1] / clip[3]) / 2 * SIZE[1] - 0.5
        worst = max(worst, np.abs(x - columns).max(), np.abs(y - rows).max())
        # A pixel is so large, at its distance from the camera.
        pixel = 2 * clip[3].max() / projection[1, 1] / SIZE[1]
        outside = np.maximum(bounds[0] - world, world - bounds[1]).max(axis=1) > pixel / 2
        assert outside.mean() < 1e-3, f"{outside.sum()} of {len(world)} points lie outside of the model"
    assert worst < 0.5, f"a point comes back {worst} pixels beside"
    return worst


def main(path, count=500, output="data-set.npz"):
    model = kvo.Model(path)
    pipeline = kvo.Pipeline("deferred-model")
    views = directions(int(count))
    data = {name: [] for name in ("image", "depth", "normal", "diffuse", "view", "projection")}
    cameras = [kvo.orbit(yaw=yaw, pitch=pitch) for yaw, pitch in views]
    outputs = ["image", "Model.Depth", "Model.Normal", "Model.Diffuse"]
    for camera, out in zip(cameras, pipeline.views(model, SIZE, cameras, outputs=outputs)):
        view, projection, _, _ = camera.matrices(model, SIZE)
        data["image"].append(np.asarray(out["image"]))
        data["depth"].append(out["Model.Depth"])
        data["normal"].append(out["Model.Normal"].astype(np.float16))
        data["diffuse"].append(np.rint(np.clip(out["Model.Diffuse"][..., :3], 0, 1) * 255).astype(np.uint8))
        data["view"].append(view)
        data["projection"].append(projection)
    arrays = {name: np.stack(values) for name, values in data.items()}
    # A part is what has a colour of its own; 0 is where nothing is.
    colors = arrays.pop("diffuse").astype(np.uint32) @ np.array([1, 256, 65536], np.uint32)
    known = np.unique(colors[arrays["depth"] < 1])
    arrays["part"] = np.where(arrays["depth"] < 1, np.searchsorted(known, colors) + 1, 0).astype(np.uint16)
    np.savez_compressed(output, **arrays)
    worst = check(np.load(output), model.bounds)
    print(f"{len(views)} views of {len(known)} parts in {output}; points come back within {worst:.1e} pixels")
    return arrays


if __name__ == "__main__":
    main(*sys.argv[1:])
