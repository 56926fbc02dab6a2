"""Pictures and arrays against kvorender and against formulas in double precision."""

import os
import subprocess
import sys

import numpy as np
import pytest
from conftest import ENGINE, MODELS, read_ppm, rectangle

import kvo

SIZE = (96, 64)


@pytest.mark.parametrize("pipeline", ["forward", "viewport", "oit", "shadows"])
def test_a_picture_is_the_one_of_kvorender(tmp_path, kvorender, pipeline):
    file = tmp_path / "picture.ppm"
    kvorender(ENGINE, "-p", pipeline, "-s", "96x64", "-c", "yaw=45:pitch=10", "--scale", "fit", "--floor",
              "-o", file, "--background", "#204060")  # fmt: skip
    image = kvo.render(ENGINE, pipeline, SIZE, kvo.orbit(yaw=45, pitch=10), scale="fit", floor=True,
                       background="#204060")  # fmt: skip
    assert image.shape == (64, 96, 4) and image.dtype == np.uint8 and isinstance(image, kvo.Image)
    assert image.std() > 10, "something is drawn"
    # The background is mixed by Qt there, in 8 bits, and here in double: they may round apart.
    difference = np.abs(image[..., :3].astype(int) - read_ppm(file))
    assert difference.max() <= 1


def test_one_call_without_a_model_draws_a_gradient():
    image = kvo.render(size=(8, 32))
    assert image.shape == (32, 8, 4)
    assert len(np.unique(image[:, 0, 0])) > 4
    assert (image == image[:, :1]).all(), "it changes from row to row only"


def test_rows_come_top_first():
    # A rectangle above the axis of view.
    model = kvo.Model.from_arrays([[-1, 0.2, 0], [1, 0.2, 0], [1, 0.8, 0], [-1, 0.8, 0]], [[0, 1, 2], [0, 2, 3]])
    camera = kvo.Camera(eye=(0, 0, 3), target=(0, 0, 0), near=1, far=10)
    out = kvo.Pipeline("deferred-model").render(model, SIZE, camera, outputs=["Model.Depth", "Model.Normal", "image"])
    covered = out["Model.Depth"] < 1
    assert covered[:32].any() and not covered[32:].any()
    assert (out["image"][32:] == out["image"][-1, -1]).all()
    assert out["Model.Normal"].shape == (64, 96, 3)


def test_depths_are_those_of_the_formula():
    near, far, distance = 0.5, 20.0, 3.0
    camera = kvo.Camera(eye=(0, 0, distance), target=(0, 0, 0), near=near, far=far, fov=60)
    out = kvo.Pipeline("deferred-model").render(rectangle(1, 1), (64, 64), camera, outputs=["Model.Depth"])
    depth = out["Model.Depth"]
    assert depth.shape == (64, 64) and depth.dtype == np.float32
    expected = far * (distance - near) / (distance * (far - near))
    # 24 bits of depth at least, and a few float operations on the way.
    assert abs(depth[32, 32] - expected) < 3e-7 * 4
    assert depth[0, 0] == 1
    # How much of the picture the unit square covers: as wide as 1 at that distance.
    side = 64 / (2 * distance * np.tan(np.radians(30)))
    assert abs(np.sqrt((depth < 1).sum()) - side) < 1


def test_depth_and_pose_reproject_within_half_a_pixel():
    """Pixels of one view lie in the world where the surface is, and in the other view where that is seen."""
    size = (160, 120)
    turn = np.eye(4)
    turn[:3, :3] = [[0.8, 0, 0.6], [0, 1, 0], [-0.6, 0, 0.8]]
    model = kvo.Model.from_arrays([[-1, -0.75, 0.25], [1, -0.75, 0.25], [1, 0.75, 0.25], [-1, 0.75, 0.25]],
                                  [[0, 1, 2], [0, 2, 3]], transforms=[turn])  # fmt: skip
    pipeline = kvo.Pipeline("deferred-model")
    views = []
    for yaw in (20, 50):
        camera = kvo.orbit(yaw=yaw, pitch=15)
        view, projection, near, far = camera.matrices(model, size)
        depth = pipeline.render(model, size, camera, outputs=["Model.Depth"])["Model.Depth"]
        views.append((depth.astype(float), projection.astype(float) @ view.astype(float)))
    for (depth, a), (other, b) in (views, views[::-1]):
        rows, columns = np.nonzero(depth < 1)
        clip = np.stack([(columns + 0.5) / size[0] * 2 - 1, 1 - (rows + 0.5) / size[1] * 2,
                         depth[rows, columns] * 2 - 1, np.ones(len(rows))])  # fmt: skip
        world = np.linalg.solve(a, clip)
        world = (world / world[3])[:3]
        # In the plane of the rectangle, up to matrices in floats and depths of 24 bits.
        there = turn[:3, :3].T @ world
        assert np.abs(there[2] - 0.25).max() < 1e-4
        # Within its outline: half a pixel is half of the size of a pixel at that distance.
        pixel = 2 / np.sqrt((depth < 1).sum() / 3.0)
        assert (np.abs(there[0]) < 1 + pixel).all() and (np.abs(there[1]) < 0.75 + pixel).all()
        # In the other view the same point is where something is drawn, at that depth.
        inner = (np.abs(there[0]) < 1 - 2 * pixel) & (np.abs(there[1]) < 0.75 - 2 * pixel)
        seen = b @ np.vstack([world[:, inner], np.ones(inner.sum())])
        seen /= seen[3]
        x = (seen[0] + 1) / 2 * size[0] - 0.5
        y = (1 - seen[1]) / 2 * size[1] - 0.5
        assert inner.sum() > 500
        slopes = np.gradient(np.where(other < 1, other, np.nan))
        slope = np.nanmax(np.abs(slopes))
        drawn = other[np.rint(y).astype(int), np.rint(x).astype(int)]
        # Half a pixel in both directions.
        assert np.abs(drawn - (seen[2] + 1) / 2).max() < slope


def test_matrices_of_ones_own_are_those_of_a_camera(engine):
    camera = kvo.orbit(yaw=30, pitch=5, zoom=1.5)
    own = kvo.Camera.from_matrices(*camera.matrices(engine, SIZE))
    pipeline = kvo.Pipeline("forward")
    assert (pipeline.render(engine, SIZE, camera) == pipeline.render(engine, SIZE, own)).all()


def test_matrices_are_those_of_the_formula():
    camera = kvo.Camera(eye=(1, 2, 6), target=(0, 1, 0), fov=50, near=0.5, far=30)
    view, projection, near, far = camera.matrices(np.array([[-1, -1, -1], [1, 1, 1]], float), (300, 200))
    z = np.array([1, 1, 6]) / np.linalg.norm([1, 1, 6])
    x = np.cross([0, 1, 0], z) / np.linalg.norm(np.cross([0, 1, 0], z))
    expected = np.eye(4)
    expected[:3, :3] = [x, np.cross(z, x), z]
    expected[:3, 3] = -expected[:3, :3] @ [1, 2, 6]
    assert np.abs(view - expected).max() < 1e-5  # floats of size 6
    f = 1 / np.tan(np.radians(25))
    frustum = [[f / 1.5, 0, 0, 0], [0, f, 0, 0], [0, 0, -(30.5) / 29.5, -2 * 30 * 0.5 / 29.5], [0, 0, -1, 0]]
    assert np.abs(projection - frustum).max() < 1e-5
    assert (near, far) == (0.5, 30)


def test_orbits_are_those_of_the_formula():
    bounds = np.array([[-1, -1, -1], [1, 1, 1]], float)

    def eye_of(**settings):
        view, projection, *_ = kvo.orbit(**settings).matrices(bounds, (100, 100))
        return np.linalg.inv(view)[:3, 3], projection

    yaw, pitch = np.radians(35), np.radians(25)
    direction = [np.sin(yaw) * np.cos(pitch), np.sin(pitch), np.cos(yaw) * np.cos(pitch)]
    eye, _ = eye_of(yaw=35, pitch=25, distance=4, target=(1, 2, 3))
    assert np.abs(eye - np.array([1, 2, 3]) - 4 * np.array(direction)).max() < 1e-5
    fits, _ = eye_of(yaw=35, pitch=25)
    near, _ = eye_of(yaw=35, pitch=25, zoom=2)
    assert np.abs(fits - 2 * near).max() < 1e-5, "twice as near to the middle, which is the origin"
    _, projection = eye_of(fov=30)
    assert abs(projection[1, 1] - 1 / np.tan(np.radians(15))) < 1e-5
    up_z, _ = eye_of(yaw=0, pitch=0, distance=2, up=(0, 0, 1))
    assert np.abs(up_z - [0, -2, 0]).max() < 1e-5


def test_a_picture_goes_into_an_array_of_the_callers():
    pipeline = kvo.Pipeline("gradient")
    out = np.zeros((16, 8, 4), np.uint8)
    result = pipeline.render(size=(8, 16), out=out)
    assert np.shares_memory(result, out)
    assert (out == pipeline.render(size=(8, 16))).all() and out.any()


def test_frames_go_on_from_one_another(engine):
    pipeline = kvo.Pipeline("taa")
    first = pipeline.render(engine, SIZE).astype(int)
    later = kvo.Pipeline("taa").render(engine, SIZE, frames=8).astype(int)
    assert np.abs(first - later).max() > 10, "edges are smoothed over frames"


def test_lights_and_values_reach_the_passes(engine):
    white, red = (
        kvo.render(engine, "shadows", SIZE, outputs=["Light.Frame"],
                   lights=[kvo.Light("directional", direction=(0.2, -1, -0.5), color=color)])["Light.Frame"]
        for color in ((1.0, 1.0, 1.0), "#ff0000")
    )  # fmt: skip
    assert np.abs(white[..., 0] - red[..., 0]).max() < 1e-6, "what is red in the light stays"
    assert white[..., 2].mean() > red[..., 2].mean() + 0.01 and (white[..., 2] - red[..., 2]).min() > -1e-6
    glow = kvo.render(engine, "glow", SIZE)
    strong = kvo.render(engine, "glow", SIZE, values={"Glow.GlowAmount": 3.0, "Glow.GlowThreshold": 0.2})
    assert strong.astype(int).mean() > glow.mean() + 1


def test_opacity_of_a_file_by_material_and_for_all():
    path = MODELS / "OBJ/spider.obj"
    solid = kvo.render(path, "oit", SIZE)
    assert np.abs(kvo.render(path, "oit", SIZE, opacity=0.3).astype(int) - solid).max() > 20
    name = "HLeibTex"
    assert name in kvo.Model(path).materials
    assert np.abs(kvo.render(path, "oit", SIZE, opacity={name: 0.1}).astype(int) - solid).max() > 0


def test_shadow_maps_and_layers():
    model = rectangle()
    out = kvo.Pipeline("shadows").render(model, SIZE, outputs=["Shadows.ShadowMapData"])
    maps = out["Shadows.ShadowMapData"]
    assert maps.ndim >= 3 and maps.dtype == np.float32


def test_an_image_knows_how_to_show_itself(tmp_path):
    image = kvo.render(size=(8, 8))
    assert image._repr_png_().startswith(b"\x89PNG")
    assert image[..., 0]._repr_png_() is None, "a channel is no picture"
    image.save(tmp_path / "a.png")
    assert (tmp_path / "a.png").read_bytes().startswith(b"\x89PNG")
    over = np.zeros((1, 2, 4), np.uint8).view(kvo.Image)
    over[0, 0] = (255, 0, 0, 128)
    mixed = over.over((0, 0, 1))
    assert mixed.tolist() == [[[128, 0, 127, 255], [0, 0, 255, 255]]]


def test_rows_come_top_first_without_the_drivers_help():
    code = "import kvo, sys; sys.stdout.buffer.write(kvo.render(size=(5, 8)).tobytes())"
    environment = dict(os.environ, MESA_EXTENSION_OVERRIDE="-GL_MESA_pack_invert")
    run = subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True, check=True)
    expected = kvo.render(size=(5, 8))
    assert run.stdout == expected.tobytes() and (expected[0] != expected[-1]).any()
