"""Whatever comes in: an exception with a message, never a crash, and all works afterwards."""

import inspect
import math
import warnings

import numpy as np
import pytest
from conftest import ENGINE, rectangle

import kvo


@pytest.fixture(scope="module")
def forward():
    return kvo.Pipeline("forward")


TRIANGLE = [[0, 0, 0], [1, 0, 0], [0, 1, 0]]
MISTAKES = {
    "a file that is not there": (kvo.Error, lambda p: kvo.Model("/nowhere/model.glb"), "/nowhere/model.glb"),
    "a model of a number": (TypeError, lambda p: kvo.Model(3), ""),
    "a pipeline that is not there": (kvo.Error, lambda p: kvo.Pipeline("forwrad"), "forward"),
    "vertices of text": (TypeError, lambda p: kvo.Model.from_arrays([["a", "b", "c"]]), "vertices"),
    "vertices of complex numbers": (TypeError, lambda p: kvo.Model.from_arrays(np.ones((3, 3), complex)), "vertices"),
    "vertices of objects": (TypeError, lambda p: kvo.Model.from_arrays([[None] * 3] * 3), "vertices"),
    "flat vertices": (ValueError, lambda p: kvo.Model.from_arrays([1.0, 2, 3]), "(n, 3)"),
    "vertices of two": (ValueError, lambda p: kvo.Model.from_arrays([[1.0, 2]] * 3), "(n, 3)"),
    "four vertices without indices": (ValueError, lambda p: kvo.Model.from_arrays(np.zeros((4, 3))), "multiple"),
    "vertices that are no numbers": (ValueError, lambda p: kvo.Model.from_arrays([[math.nan] * 3] * 3), "finite"),
    "an index beyond": (ValueError, lambda p: kvo.Model.from_arrays(TRIANGLE, [[0, 1, 3]]), "3"),
    "a negative index": (ValueError, lambda p: kvo.Model.from_arrays(TRIANGLE, [[0, 1, -1]]), "-1"),
    "indices with fractions": (TypeError, lambda p: kvo.Model.from_arrays(TRIANGLE, [[0, 1, 1.5]]), "indices"),
    "normals of another length": (
        ValueError,
        lambda p: kvo.Model.from_arrays(TRIANGLE, [[0, 1, 2]], normals=[[0, 0, 1]]),
        "normals",
    ),
    "a map of floats": (TypeError, lambda p: kvo.Model.from_arrays(TRIANGLE, diffuse_map=np.ones((2, 2))), "uint8"),
    "a map without texels": (
        ValueError,
        lambda p: kvo.Model.from_arrays(TRIANGLE, diffuse_map=np.ones((0, 2), np.uint8)),
        "shape",
    ),
    "an opacity of 2": (ValueError, lambda p: kvo.Model.from_arrays(TRIANGLE, opacity=2), "0 to 1"),
    "an item of no mesh": (IndexError, lambda p: kvo.Model().add_item(0), "mesh 0"),
    "a transform of nine": (
        ValueError,
        lambda p: kvo.Model.from_arrays(TRIANGLE, transforms=np.eye(3)[None]),
        "transform",
    ),
    "a material that is not there": (kvo.Error, lambda p: rectangle().set_opacity(0.5, "glass"), "glass"),
    "a scale of 0": (ValueError, lambda p: rectangle().scale(0), "above 0"),
    "a pass that is not there": (KeyError, lambda p: p["Forwrad"], "Forwrad"),
    "an input that is not there": (AttributeError, lambda p: p["Forward"].Colour, "Colour"),
    "a value for an input that is not there": (kvo.Error, lambda p: p.set("Forward", "Viewprt", 1), "Viewport"),
    "a value of the wrong type": (kvo.Error, lambda p: p.set("Forward", "Viewport", "wide"), "Viewport"),
    "a value that is not a number": (ValueError, lambda p: p.set("Forward", "Viewport", [0, 0, math.nan, 1]), "nan"),
    "a value of no kind": (TypeError, lambda p: p.set("Forward", "Viewport", object()), "object"),
    "an array for an image": (TypeError, lambda p: p.set("Present", "Texture", np.ones((4, 4, 3))), "kvo.Texture(array)"),
    "a size of one side": (TypeError, lambda p: p.render(size=64), "(width, height) in pixels, not 64"),
    "a size of text": (ValueError, lambda p: p.render(size="64x64"), "(width, height)"),
    "a size of three": (ValueError, lambda p: kvo.orbit().matrices(rectangle(), (3, 4, 5)), "(width, height)"),
    "a class that is not there": (kvo.Error, lambda p: p.add("X", "BlendPass"), "Blend"),
    "a name that is taken": (kvo.Error, lambda p: p.add("Forward", "BlendRenderPass"), "Forward"),
    "an output without a pass": (ValueError, lambda p: p.render(rectangle(), outputs=["Depth"]), "Pass.Slot"),
    "an output that is not there": (kvo.Error, lambda p: p.render(rectangle(), outputs=["Forward.Dpth"]), "Forward"),
    "a size of 0": (ValueError, lambda p: p.render(rectangle(), (0, 10)), "pixel"),
    "a negative size": (ValueError, lambda p: p.render(rectangle(), (10, -1)), "pixel"),
    "a size beyond the driver": (kvo.Error, lambda p: p.render(rectangle(), (100000, 10)), "100000"),
    "a size of three": (ValueError, lambda p: p.render(rectangle(), (1, 2, 3)), ""),
    "no frames": (ValueError, lambda p: p.render(rectangle(), frames=0), "frame"),
    "no model": (kvo.Error, lambda p: p.render(size=(4, 4)), "model"),
    "a model that is a path": (TypeError, lambda p: p.render("a.glb"), "Model"),
    "a camera of a number": (TypeError, lambda p: p.render(rectangle(), (4, 4), 3), "camera"),
    "a camera of nonsense": (kvo.Error, lambda p: p.render(rectangle(), (4, 4), "yow=3"), "yow"),
    "a camera at no place": (ValueError, lambda p: kvo.Camera(eye=(0, math.inf, 0)), "finite"),
    "a camera at two numbers": (ValueError, lambda p: kvo.Camera(eye=(0, 1)), "3"),
    "matrices of three": (
        ValueError,
        lambda p: p.render(rectangle(), (4, 4), kvo.Camera.from_matrices(np.eye(3), np.eye(4), 1, 2)),
        "(4, 4)",
    ),
    "a light of a kind that is not there": (ValueError, lambda p: kvo.Light("area"), "area"),
    "a light without a direction": (ValueError, lambda p: kvo.Light("directional"), "direction"),
    "a light with a setting that is not there": (
        kvo.Error,
        lambda p: p.set_lights([kvo.Light("point", position=(0, 0, 0), brightness=3.0)]),
        "brightness",
    ),
    "texels of text": (TypeError, lambda p: kvo.Texture("abc"), ""),
    "texels of whole numbers": (TypeError, lambda p: kvo.Texture(np.zeros((2, 2), np.int32)), "int32"),
    "texels of five channels": (ValueError, lambda p: kvo.Texture(np.zeros((2, 2, 5), np.uint8)), "channels"),
    "no texels": (ValueError, lambda p: kvo.Texture(np.zeros((0, 2), np.uint8)), "shape"),
    "too many texels": (kvo.Error, lambda p: kvo.Texture(np.zeros((1, 100000), np.uint8)), "100000"),
    "an out of floats": (TypeError, lambda p: p.render(rectangle(), (4, 4), out=np.zeros((4, 4, 4))), "uint8"),
    "an out of another size": (
        ValueError,
        lambda p: p.render(rectangle(), (4, 4), out=np.zeros((4, 5, 4), np.uint8)),
        "(4, 4, 4)",
    ),
    "an out that is not contiguous": (
        ValueError,
        lambda p: p.render(rectangle(), (4, 4), out=np.zeros((4, 8, 4), np.uint8)[:, ::2]),
        "contiguous",
    ),
    "a path that is not there": (FileNotFoundError, lambda p: p.set_path("sky", "/nowhere.png"), "/nowhere.png"),
    "a picture in a folder that is not there": (
        kvo.Error,
        lambda p: kvo.render(size=(4, 4)).save("/nowhere/a.png"),
        "/nowhere",
    ),
    "a scale of text": (ValueError, lambda p: kvo.render(ENGINE, size=(4, 4), scale="big"), "fit"),
    "a scale of a model": (ValueError, lambda p: kvo.render(rectangle(), size=(4, 4), scale=2), "files"),
    "a colour of text": (ValueError, lambda p: kvo.render(size=(4, 4), background="reddish"), "reddish"),
}


@pytest.mark.parametrize("name", MISTAKES)
def test_is_an_exception(forward, name):
    kind, mistake, words = MISTAKES[name]
    with pytest.raises(kind) as caught:
        mistake(forward)
    assert words in str(caught.value)
    assert forward.render(rectangle(), (8, 8)).any()


def test_a_read_only_array_is_not_written_to(forward):
    out = np.zeros((4, 4, 4), np.uint8)
    out.flags.writeable = False
    with pytest.raises(ValueError, match="writable"):
        forward.render(rectangle(), (4, 4), out=out)
    assert not out.any()


def test_what_is_said_is_a_warning(tmp_path):
    (tmp_path / "broken.obj").write_text("mtllib broken.mtl\nusemtl a\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")
    (tmp_path / "broken.mtl").write_text("newmtl a\nmap_Kd missing.png\n")
    with pytest.warns(kvo.Warning, match="missing.png"):
        kvo.Model(tmp_path / "broken.obj")


def test_damaged_models_are_errors_and_no_crashes(tmp_path):
    """Flipped bits and cut ends: some can be read all the same."""
    whole = ENGINE.read_bytes()
    random = np.random.default_rng(3)
    failed = 0
    for i in range(24):
        data = bytearray(whole)
        # In the JSON in front, mostly, where most can go wrong.
        for _ in range(1 + i % 4):
            data[int(random.integers(12, 40000 if i % 3 else len(data)))] ^= 1 << int(random.integers(8))
        path = tmp_path / f"{i}.glb"
        path.write_bytes(data[: len(data) // 2] if i % 6 == 5 else data)
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", kvo.Warning)
            try:
                kvo.Model(path)
            except kvo.Error as error:
                assert str(path) in str(error)
                failed += 1
    assert failed > 3


def test_a_failure_is_told_once_by_the_call_that_it_belongs_to():
    pipeline = kvo.Pipeline()
    pipeline.shader("Broken", "#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(nothing); }")
    pipeline.add("Reader", "LuminanceAverageRenderPass")

    def fails(name):
        raise KeyError(name)

    # The shader fails, and then the caller's own function does: the first reason is told.
    with pytest.raises(kvo.Error, match="(?s)program 'Broken' failed.*nothing"):
        pipeline.render(size=(4, 4), outputs=["Broken.Frame"], on_pass=fails)
    assert kvo.render(size=(4, 4)).any(), "nothing of it is left for another call"


def public_functions():
    for name in kvo.__all__:
        thing = getattr(kvo, name)
        if inspect.isfunction(thing):
            yield name, thing
        elif inspect.isclass(thing) and thing.__module__ == "kvo":
            for key, member in vars(thing).items():
                function = member.__func__ if isinstance(member, staticmethod) else member
                if inspect.isfunction(function) and (key == "__init__" or not key.startswith("_")):
                    yield f"{name}.{key}", function


# By what their annotations begin with.
RIGHT = {
    "bool": True,
    "int": 1,
    "float": 1.0,
    "str": "x",
    "PathLike": "x",
    "Any": None,
    "Model": None,
    "Iterable[str]": [],
    "Iterable[Light]": [],
    "Iterable[Camera | str]": [],
    "Sequence[float]": [],
    "tuple[int, int]": (4, 4),
}
WRONG = {
    "bool": ["yes", 1],
    "int": ["1", 1.5, [1], np.array([1]), 2**70, -(2**70)],
    "float": ["1", [1.0], np.array([1.0]), 1j],
    "str": [1, ["x"]],
    "PathLike": [1, ["x"]],
    "Iterable[str]": ["x", 1, ["x", 1]],
    "Sequence[str]": ["x", 1, ("x", 1)],
    "Sequence[float]": [1, ["x"], {1: 2}],
}


@pytest.mark.parametrize(("title", "function"), list(public_functions()))
def test_every_argument_of_a_wrong_type_is_told_by_its_name(forward, title, function):
    """Before anything else happens, in words of this package."""
    parameters = inspect.signature(function).parameters
    kinds = {p.name: kvo._alternatives(p.annotation) for p in parameters.values() if p.annotation is not p.empty}
    needed = [name for name in kinds if parameters[name].default is inspect.Parameter.empty]
    right = {name: forward if kinds[name] == ["Pipeline"] else RIGHT.get(kinds[name][0]) for name in needed}
    if "self" in parameters:
        right["self"] = None
    for name, parts in kinds.items():
        if parameters[name].kind is inspect.Parameter.VAR_KEYWORD:
            continue
        assert set(parts) <= set(kvo._KINDS) | kvo._UNCHECKED, f"{title}: {name} is not checked"
        if kvo._UNCHECKED.intersection(parts):
            continue
        wrongs = [object(), b""] + (WRONG.get(parts[0], []) if parts[1:] in ([], ["None"]) else [])
        for wrong in wrongs if "None" in parts else [*wrongs, None]:
            with pytest.raises((TypeError, ValueError)) as caught:
                function(**{**right, name: wrong})
            message = str(caught.value)
            assert f" {name} " in message and "incompatible" not in message and "_kvo" not in message


def test_numbers_of_numpy_are_numbers():
    model = rectangle()
    model.set_opacity(np.float32(0.5))
    model.scale(np.array(2.0))
    model.add_item(np.int64(0), np.uint8(0), flags=2**63)
    pipeline = kvo.Pipeline("forward")
    assert pipeline.render(model, np.array([8, 4]), frames=np.int32(2)).shape == (4, 8, 4)
    assert kvo.Camera(eye=np.array([1, 2, 3]), fov=np.float32(30)).matrices(model, (4, 4))[0].shape == (4, 4)


def test_a_pass_with_a_wrong_value_is_not_there():
    pipeline = kvo.Pipeline()
    with pytest.raises(kvo.Error, match="Foo"):
        pipeline.add("Backdrop", "GradientRenderPass", Foo=1)
    with pytest.raises(TypeError):
        pipeline.shader("Mine", "#version 150\nvoid main() {}", values={"a": object()})
    with pytest.raises(kvo.Error):
        pipeline.shader("Mine", "#version 150\nvoid main() {}", inputs={"a": "Nobody.Frame"})
    assert len(pipeline) == 0
    pipeline.add("Backdrop", "GradientRenderPass")


def test_what_has_no_effect_is_said_and_where(tmp_path):
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        kvo.render(rectangle(), "gradient", (4, 4), "yaw=3", lights=[kvo.Light("point", position=(1, 2, 3))])
    said = [str(warning.message) for warning in caught]
    assert len(said) == 3 and {line.split(" has no effect")[0] for line in said} == {"@lights", "the model", "the camera"}
    assert {warning.filename for warning in caught} == {__file__}
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        kvo.render(rectangle(), "viewport", (4, 4), "yaw=3", lights=[kvo.Light("point", position=(1, 2, 3))])
        kvo.render(size=(4, 4))
    assert not caught
    # What the library says beneath names the line that called, too.
    (tmp_path / "broken.obj").write_text("mtllib broken.mtl\nusemtl a\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")
    (tmp_path / "broken.mtl").write_text("newmtl a\nmap_Kd missing.png\n")
    with pytest.warns(kvo.Warning, match="missing.png") as caught:
        kvo.Model(tmp_path / "broken.obj")
    assert {warning.filename for warning in caught} == {__file__}
