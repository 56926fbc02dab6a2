"""Pipelines, passes, models and textures as objects."""

import json
import re

import numpy as np
import pytest
from conftest import rectangle

import kvo

TINT = """#version 150
uniform sampler2D u_Picture;
uniform vec3 u_Colour;
in vec2 vo_TexCoord;
out vec4 o_Frame;
void main() { o_Frame = vec4(texture(u_Picture, vo_TexCoord).rgb * u_Colour, 1.0); }
"""


def test_a_chain_from_nothing():
    pipeline = kvo.Pipeline()
    pipeline.add("Model", "ForwardRenderPass")
    pipeline.add("Blur", "GaussianBlurRenderPass", BlurRadius=3)
    pipeline.add("Present", "TextureToScreenRenderPass")
    pipeline.connect("Model.Frame", "Blur.Input")
    pipeline.connect("Blur.Output", "Present.Texture")
    pipeline.bind("Present.FramebufferOut", "screen")
    assert pipeline.order == ["Model", "Blur", "Present"]
    assert len(pipeline) == 3 and "Blur" in pipeline and [p.name for p in pipeline] == pipeline.order
    assert pipeline["Blur"].inputs["Input"] == "Model.Frame" and pipeline["Blur"].inputs["Viewport"] == "@viewport"
    blurred = pipeline.render(rectangle(), (64, 64))
    pipeline["Blur"].BlurRadius = 0
    sharp = pipeline.render(rectangle(), (64, 64))
    levels = [len(np.unique(image[32, :, 0])) for image in (blurred, sharp)]
    assert levels[0] > levels[1], "an edge becomes a ramp"
    assert pipeline.faults == [] and pipeline.warnings == []
    pipeline.remove("Blur")
    pipeline.connect("Model.Frame", "Present.Texture")
    assert (pipeline.render(rectangle(), (64, 64)) == sharp).all()
    assert "<svg" in pipeline.graph() and "<svg" in pipeline._repr_html_()


def test_insert_replace_rename_and_reset():
    pipeline = kvo.Pipeline("forward")
    before = pipeline.order
    presented = before[-1]
    source = pipeline[presented].Texture
    blur = pipeline.insert("Soft", "GaussianBlurRenderPass", f"{presented}.Texture", "Input", "Output")
    blur.set(BlurRadius=4.0, ResolutionDivider=2)
    assert pipeline[presented].Texture == "Soft.Output" and blur.Input == source
    assert (blur.BlurRadius, blur.ResolutionDivider) == (4.0, 2.0)
    blur.reset("ResolutionDivider")
    assert blur.ResolutionDivider == 1.0
    pipeline.rename("Soft", "Softer")
    assert "Soft" not in pipeline and pipeline["Softer"].BlurRadius == 4.0
    pipeline.replace("Softer", "GaussianBlurRenderPass")
    assert pipeline["Softer"].Input == source


def test_values_of_all_kinds_come_back_as_they_went():
    pipeline = kvo.Pipeline()
    wires = pipeline.add("Wires", "WireframeRenderPass")
    wires.WireColor = [0.25, 0.5, 0.75, 1.0]
    assert wires.WireColor == pytest.approx((0.25, 0.5, 0.75, 1.0), abs=1e-4)
    jitter = pipeline.add("Model", "ModelRenderPass")
    matrix = np.arange(16, dtype=float).reshape(4, 4)
    jitter.ProjectionMatrix = matrix
    assert (jitter.ProjectionMatrix == matrix).all()
    jitter.Viewport = (1, 2, 30, 40)
    assert jitter.Viewport == (1, 2, 30, 40)
    assert "setDiscardOnDiffuseAlpha" in dir(jitter) and "Viewport" in dir(jitter)
    loader = pipeline.add("Image", "TextureLoaderRenderPass")
    for text in ('@odd "name"\\.png', 'plain "ü"\n.png', "null"):
        loader.TexturePath = text
        assert loader.TexturePath == text


def test_a_shader_in_a_few_lines():
    pipeline = kvo.Pipeline()
    texels = np.random.default_rng(1).integers(0, 256, (6, 5, 3), np.uint8)
    pipeline.shader("Tint", TINT, {"Picture": kvo.Texture(texels)}, values={"Colour": (1, 0.5, 0)})
    frame = pipeline.render(size=(5, 6), outputs=["Tint.Frame"])["Tint.Frame"]
    # Texel centres meet pixel centres; the target keeps half floats.
    expected = texels / 255 * [1, 0.5, 0]
    assert np.abs(frame[..., :3] - expected).max() < 1e-3
    pipeline["Tint"].Colour = (0, 0, 1)
    frame = pipeline.render(size=(5, 6), outputs=["Tint.Frame"])["Tint.Frame"]
    assert np.abs(frame[..., 2] - texels[..., 2] / 255).max() < 1e-3 and frame[..., 0].max() == 0


def test_a_shader_that_fails_is_an_error_with_its_source():
    pipeline = kvo.Pipeline()
    pipeline.shader("Broken", "#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(nothing); }")
    with pytest.raises(kvo.Error, match="nothing"):
        pipeline.render(size=(4, 4), outputs=["Broken.Frame"])


@pytest.mark.parametrize("channels", [0, 1, 2, 3, 4])
@pytest.mark.parametrize("kind", [np.uint8, np.float32, np.float64])
def test_texels_come_back_as_they_went(channels, kind):
    shape = (3, 5, channels) if channels else (3, 5)
    texels = np.random.default_rng(2).uniform(0, 1, shape)
    texels = (texels * 255).astype(np.uint8) if kind == np.uint8 else (texels * 100 - 50).astype(kind)
    texture = kvo.Texture(texels)
    expected = texels.astype(np.float32) / (255 if kind == np.uint8 else 1)
    read = texture.read()
    assert read.shape == ((3, 5) if channels < 2 else shape)
    assert np.abs(read - expected.reshape(read.shape)).max() < 1e-6
    texture.set(np.ones((2, 2), np.float32))
    assert texture.read().tolist() == [[1, 1], [1, 1]]
    # Views of memory that is not contiguous.
    turned = np.asfortranarray(texels)[:, ::-1]
    assert np.abs(kvo.Texture(turned).read() - expected.reshape(read.shape)[:, ::-1]).max() < 1e-6


def test_models_from_arrays_with_materials_maps_and_transforms():
    model = kvo.Model()
    mesh = model.add_mesh([[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0]], [[0, 1, 2], [0, 2, 3]],
                          uvs=[[0, 0], [1, 0], [1, 1], [0, 1]])  # fmt: skip
    chequer = np.zeros((2, 2, 3), np.uint8)
    chequer[0, 0] = chequer[1, 1] = 255
    plain = model.add_material("plain", diffuse=(1, 0, 0))
    mapped = model.add_material("mapped", diffuse=(0, 1, 0), diffuse_map=chequer)
    shift = np.eye(4)
    for x, material in ((-1.5, plain), (1.5, mapped)):
        shift[0, 3] = x
        model.add_item(mesh, material, shift)
    assert model.materials == ["plain", "mapped"] and model.triangles == 4
    assert model.bounds.tolist() == [[-2.5, -1, 0], [2.5, 1, 0]]
    camera = kvo.Camera(eye=(0, 0, 8), target=(0, 0, 0), fov=40)
    out = kvo.Pipeline("deferred-model").render(model, (120, 60), camera, outputs=["Model.Diffuse", "Model.Depth"])
    seen = out["Model.Depth"] < 1
    diffuse = out["Model.Diffuse"]
    left, right = seen.copy(), seen.copy()
    left[:, 60:] = False
    right[:, :60] = False
    assert np.allclose(diffuse[left][:, :3], (1, 0, 0), atol=1 / 255)
    green = diffuse[right][:, 1]
    assert green.max() > 0.9 and green.min() < 0.1 and np.allclose(diffuse[right][:, 0], 0, atol=1 / 255)


SURFACES = {"passes": [{"name": "S", "class": "SurfacePass", "inputs": {
    "Viewport": "@viewport", "ProjectionMatrix": "@projection", "CameraMatrix": "@camera", "Geometry": "@model"}}]}


def test_a_surface_in_physical_terms_reaches_the_shaders(tmp_path):
    path = tmp_path / "surfaces.json"
    path.write_text(json.dumps(SURFACES))
    model = rectangle(diffuse=(1, 1, 1))
    grey = np.full((4, 4, 3), 188, np.uint8)  # half of the light
    rough = np.zeros((4, 4, 3), np.uint8)
    rough[..., 1], rough[..., 2] = 128, 255
    pipeline = kvo.Pipeline(path)
    camera = kvo.Camera(eye=(0, 0, 5), target=(0, 0, 0), near=1, far=20)

    def centre():
        out = pipeline.render(model, (32, 32), camera, outputs=["S.BaseColor", "S.Surface", "S.Emission"])
        return [out[name][16, 16] for name in ("S.BaseColor", "S.Surface", "S.Emission")]

    model.set_surface(0, base_color=(1, 0.5, 0.25), metalness=0.5, roughness=0.8, emission=(0, 2, 4),
                      base_color_map=grey, metal_roughness_map=rough, unlit=True)  # fmt: skip
    base, surface, emission = centre()
    assert np.allclose(base, (0.5, 0.25, 0.125, 1), atol=0.005)
    assert np.allclose(surface, (0.8 * 128 / 255, 0.5, 1, 0), atol=1 / 255)
    assert np.allclose(emission[:3], (0, 2, 4), rtol=1 / 32)
    model.set_surface(0)
    base, surface, emission = centre()
    assert np.allclose(base, 1) and np.allclose(surface, (1, 0, 1, 1)) and not emission[:3].any()

    for wrong, error in (({"metalness": 2}, ValueError), ({"roughness": float("nan")}, ValueError),
                         ({"base_color": (1, 2)}, ValueError), ({"alpha_mode": "thin"}, ValueError),
                         ({"normal_map": np.zeros(3)}, (TypeError, ValueError)), ({"shine": 1}, TypeError)):  # fmt: skip
        with pytest.raises(error):
            model.set_surface(0, **wrong)
    with pytest.raises(IndexError, match="no material 7"):
        model.set_surface(7)
    assert np.allclose(centre()[0], 1), "what was refused changed nothing"


def test_a_model_that_changes_is_drawn_as_it_is():
    model = rectangle(diffuse=(1, 1, 1))
    pipeline = kvo.Pipeline("deferred-model")
    camera = kvo.Camera(eye=(0, 0, 5), target=(0, 0, 0), near=1, far=20)
    first = (pipeline.render(model, (32, 32), camera, outputs=["Model.Depth"])["Model.Depth"] < 1).sum()
    model.scale(2)
    second = (pipeline.render(model, (32, 32), camera, outputs=["Model.Depth"])["Model.Depth"] < 1).sum()
    assert second > 3 * first > 0
    model.fit(1)
    assert np.abs(model.bounds).max() == pytest.approx(0.5)


def test_names_are_known():
    assert "viewport" in kvo.pipelines() and all(kvo.pipelines().values())
    assert len(kvo.pass_classes()) >= 33 and "BlendRenderPass" in kvo.pass_classes()


def test_times_by_pass(engine):
    pipeline = kvo.Pipeline("forward")
    pipeline.measure()
    pipeline.render(engine, (64, 64), frames=5)
    timings = pipeline.timings
    assert [entry["pass"] for entry in timings] == pipeline.order
    assert all(entry["cpu_ms"] > 0 and entry["frames"] >= 4 for entry in timings)


def test_the_observer_sees_each_pass_and_may_read():
    pipeline = kvo.Pipeline("deferred-model")
    seen = []

    def on_pass(name):
        seen.append(name)
        if name == "Model":
            seen.append(pipeline.output("Model.Depth").min())

    pipeline.render(rectangle(), (16, 16), on_pass=on_pass)
    assert [name for name in seen if isinstance(name, str)] == pipeline.order and seen[1] < 1

    def fails(name):
        raise KeyError(name)

    with pytest.raises(KeyError, match="Model"):
        pipeline.render(rectangle(), (16, 16), on_pass=fails)
    assert pipeline.render(rectangle(), (16, 16)).any(), "it goes on as before"


def test_slots_say_what_they_are():
    pipeline = kvo.Pipeline()
    blur = pipeline.add("Blur", "GaussianBlurRenderPass")
    blend = pipeline.add("Blend", "BlendRenderPass")
    assert "0 to 511 texels" in blur.help("BlurRadius")
    assert "colorDodge" in blend.help("BlendMode")
    assert blur.help().startswith("GaussianBlurRenderPass: blurs") and "Output" in blur.help()
    for entry in pipeline:
        assert all(line.split(": ", 1)[1] for line in entry.help().splitlines())
    blend.BlendMode = "colorDodge"
    assert blend.BlendMode == 18
    with pytest.raises(kvo.Error, match="colorDodge"):
        blend.BlendMode = "colourDodge"
    with pytest.raises(KeyError, match="Radius"):
        blur.help("Radius")


def test_a_pipeline_is_saved_and_read_again(tmp_path):
    pipeline = kvo.Pipeline("glow")
    pipeline["Glow"].GlowAmount = 0.75
    pipeline.save(tmp_path / "mine.json")
    again = kvo.Pipeline(tmp_path / "mine.json")
    assert again.order == pipeline.order and again["Glow"].GlowAmount == 0.75
    model = rectangle()
    assert (again.render(model, (64, 36)) == pipeline.render(model, (64, 36))).all()
    pipeline.add("Extra", "FastApproximateAntiAliasingRenderPass", Frame=kvo.Texture(np.ones((2, 2, 4))))
    with pytest.raises(kvo.Error, match="Extra"):
        pipeline.save(tmp_path / "mine.json")
    assert kvo.Pipeline(tmp_path / "mine.json").order == again.order


def test_views_are_what_render_gives():
    pipeline = kvo.Pipeline("deferred-model")
    model = rectangle()
    cameras = [kvo.orbit(yaw=yaw) for yaw in (0, 20, 40)]
    for camera, out in zip(cameras, pipeline.views(model, (16, 12), cameras, outputs=["Model.Depth"])):
        expected = pipeline.render(model, (16, 12), camera, outputs=["Model.Depth"])
        assert (out["Model.Depth"] == expected["Model.Depth"]).all()
    assert len(list(pipeline.views(model, (16, 12), iter(cameras), progress=False))) == 3


def test_versions_name_the_library_and_the_driver():
    details = kvo.version_details()
    assert kvo.__version__ == details["kvo"] and re.fullmatch(r"\d+\.\d+\.\d+", kvo.__version__)
    assert details["qt"].startswith("6.") and details["qt_built"].startswith("6.")
    assert details["gl_missing"] == "" and details["gl_version"]
    assert ", ".join(details[name] for name in ("gl_vendor", "gl_renderer", "gl_version")) == kvo.context().description
