"""Pictures, depths and ids of 3D models as NumPy arrays.

    import kvo
    image = kvo.render("engine.glb", pipeline="viewport", size=(1280, 720), camera=kvo.orbit(yaw=45, pitch=10))

Needs neither a display nor a GPU. Arrays have their top row first; pictures are ``(h, w, 4)`` of uint8, not
premultiplied. World space is right-handed, +y up; view space looks along -z; depths are what OpenGL keeps, 0 at the
near plane and 1 at the far plane and where nothing is. Matrices are ``(4, 4)`` and multiply columns from the left.

Mistakes raise ``kvo.Error`` (a RuntimeError) with what was wrong and the nearest right name, wrong types and shapes
TypeError and ValueError; what the library has to say besides comes as ``kvo.Warning``.

Every thread may have contexts of its own. One thread at a time works with the library, while Python's other threads
go on; to use more cores, start more processes.
"""

from __future__ import annotations

import atexit
import functools
import html
import inspect
import json
import math
import numbers
import os
import threading
import warnings
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from pathlib import Path
from typing import Any, Union

import numpy as np

from . import _kvo
from ._kvo import ContextError, Error, Warning

__all__ = [
    "Camera", "Context", "ContextError", "Error", "Image", "Light", "Model", "Pass", "Pipeline", "Texture", "Warning",
    "batch", "context", "live_objects", "orbit", "pass_classes", "pipelines", "render",
    "version_details",
]  # fmt: skip

__version__: str = _kvo.__version__

atexit.register(_kvo.close_all)

PathLike = Union[str, "os.PathLike[str]"]

_ENVIRONMENT = "KVO_PIPELINES"

# The program that reads models, where this package runs from a build folder; an installation knows its own.
_importer = Path(__file__).parents[2] / "bin" / "kvo-import"
if _importer.is_file():
    os.environ.setdefault("KVO_IMPORT_PROGRAM", str(_importer))


def _folders() -> list[str]:
    """Where pipelines are looked for: what the environment names, then what was installed with this package."""
    folders = [folder for folder in os.environ.get(_ENVIRONMENT, "").split(os.pathsep) if folder]
    for parent in Path(__file__).resolve().parents:
        shared = parent / "share" / "kvo" / "pipelines"
        if shared.is_dir():
            folders.append(str(shared))
            break
    return folders


def pipelines() -> dict[str, str]:
    """The pipelines that ``Pipeline`` finds by name, with what they draw."""
    return {name: description for name, description, _ in _kvo.pipelines(_folders())}


def version_details() -> dict[str, str]:
    """What this library is and what it runs on, for reports: "kvo", "qt", "qt_built", "gl_vendor", "gl_renderer",
    "gl_version"; "gl_missing" says why there is no OpenGL, and is empty where there is."""
    return _kvo.version_details()


def pass_classes() -> list[str]:
    """The classes that ``Pipeline.add`` makes passes of."""
    return _kvo.pass_classes()


class Context:
    """An OpenGL context without a window, and all that lives in it.

    ``close``, or the end of a ``with`` block, frees it; models keep their data, pipelines and textures of it raise
    ContextError from then on. Without either it lives as long as anything that was made in it.
    """

    def __init__(self, debug: bool = False) -> None:
        self._gpu = _kvo.Context(debug)

    def close(self) -> None:
        """Frees the context and everything in it. A second time does nothing."""
        self._gpu.close()

    @property
    def closed(self) -> bool:
        return self._gpu.closed

    @property
    def description(self) -> str:
        """Vendor, renderer and version of the driver."""
        return self._gpu.description

    def live_objects(self) -> dict[str, int]:
        """How many objects of OpenGL the library has in the context, by kind; all 0 in a closed one."""
        return self._gpu.live_objects()

    def __enter__(self) -> Context:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return "<kvo.Context, closed>" if self.closed else f"<kvo.Context: {self.description}>"


_local = threading.local()


def context() -> Context:
    """The context that is used where none is given: one for each thread, made when it is first needed."""
    current: Context | None = getattr(_local, "context", None)
    if current is None or current.closed:
        current = _local.context = Context()
    return current


def live_objects() -> int:
    """Objects of OpenGL that the library has in this thread's own context; 0 where there is none yet."""
    current: Context | None = getattr(_local, "context", None)
    return sum(current.live_objects().values()) if current else 0


class Image(np.ndarray):
    """A picture: an array ``(h, w, 4)`` of uint8 that notebooks show."""

    def save(self, path: PathLike) -> None:
        """Writes it as a file of the kind that the ending names: .png, .jpg, .bmp …"""
        _kvo.save(np.asarray(self), os.fspath(path))

    def __array_wrap__(self, array: np.ndarray, context: Any = None) -> Any:
        # Sums and the like are numbers.
        return array[()] if array.ndim == 0 else super().__array_wrap__(array, context)

    def _is_picture(self) -> bool:
        return self.dtype == np.uint8 and self.ndim == 3 and self.shape[2] in (3, 4) and self.size > 0

    def _repr_png_(self) -> bytes | None:
        return _kvo.png(np.asarray(self)) if self._is_picture() else None

    def over(self, color: Sequence[float] | str) -> Image:
        """The picture on a background of (r, g, b) from 0 to 1, or "#rrggbb", opaque."""
        background = np.asarray(_color(color)[:3]) * 255
        alpha = self[..., 3:].astype(np.float64) / 255
        mixed = np.asarray(self[..., :3], np.float64) * alpha + background * (1 - alpha)
        result = np.full(self.shape, 255, np.uint8)
        result[..., :3] = np.rint(mixed)
        return result.view(Image)


def _color(value: Sequence[float] | str) -> tuple[float, float, float, float]:
    if isinstance(value, str):
        digits = value.removeprefix("#")
        if not value.startswith("#") or len(digits) not in (6, 8):
            raise ValueError(f"a colour is (r, g, b) from 0 to 1, or '#rrggbb', not {value!r}")
        try:
            parts = [int(digits[i : i + 2], 16) / 255 for i in range(0, len(digits), 2)]
        except ValueError:
            raise ValueError(f"a colour is (r, g, b) from 0 to 1, or '#rrggbb', not {value!r}") from None
    else:
        try:
            parts = [float(part) for part in value]
        except TypeError:
            raise TypeError(f"a colour is (r, g, b) from 0 to 1, or '#rrggbb', not {value!r}") from None
        if len(parts) not in (3, 4):
            raise ValueError(f"a colour has 3 or 4 parts, not {len(parts)}")
    return (parts[0], parts[1], parts[2], parts[3] if len(parts) == 4 else 1.0)


def _number(value: float) -> str:
    number = float(value)
    if not math.isfinite(number):
        raise ValueError(f"{value} is not finite")
    return repr(number)


def _numbers(values: Iterable[float], count: int, what: str) -> str:
    parts = [_number(value) for value in values]
    if len(parts) != count:
        raise ValueError(f"{what} has {count} numbers, not {len(parts)}")
    return ",".join(parts)


class Camera:
    """A perspective camera. Angles are in degrees, lengths in units of the model.

    Either a place, ``eye`` looking at ``target``, or a direction as ``orbit`` takes it; or matrices, see
    ``from_matrices``. What is not given follows from the model: it fills the picture.
    """

    def __init__(self, eye: Sequence[float] | None = None, target: Sequence[float] | None = None,
                 up: Sequence[float] | None = None, fov: float | None = None, near: float | None = None,
                 far: float | None = None, *, yaw: float | None = None, pitch: float | None = None,
                 distance: float | None = None, zoom: float | None = None) -> None:  # fmt: skip
        self._matrices: tuple[np.ndarray, np.ndarray, float, float] | None = None
        parts = []
        for name, place in (("eye", eye), ("target", target), ("up", up)):
            if place is not None:
                parts.append(f"{name}={_numbers(place, 3, name)}")
        numbers = {"yaw": yaw, "pitch": pitch, "distance": distance, "zoom": zoom, "fov": fov, "near": near, "far": far}
        parts += [f"{name}={_number(value)}" for name, value in numbers.items() if value is not None]
        self._text = ":".join(parts)

    @staticmethod
    def from_matrices(view: Any, projection: Any, near: float, far: float) -> Camera:
        """A camera by its matrices, world to view and view to clip space, and the distances of its clip planes."""
        camera = Camera()
        camera._matrices = (np.asarray(view, np.float32), np.asarray(projection, np.float32), float(near), float(far))
        return camera

    def matrices(self, model: Model | Any, size: tuple[int, int]) -> tuple[np.ndarray, np.ndarray, float, float]:
        """View matrix, projection matrix, near and far plane for a model (or its bounds) in a picture of that size."""
        if self._matrices is not None:
            return self._matrices
        bounds = model.bounds if isinstance(model, Model) else np.asarray(model)
        width, height = _sides(size)
        return _kvo.camera_view(self._text, bounds, width / height)

    def _view(self) -> Any:
        return self._text if self._matrices is None else self._matrices

    def __repr__(self) -> str:
        return f"kvo.Camera({self._text or 'fit'})" if self._matrices is None else "kvo.Camera(by matrices)"


def orbit(yaw: float = -30, pitch: float = 20, zoom: float | None = None, distance: float | None = None,
          target: Sequence[float] | None = None, fov: float | None = None, up: Sequence[float] | None = None) -> Camera:  # fmt: skip
    """A camera that looks at the model, or at ``target``, from a direction.

    At yaw 0 and pitch 0 it stands on the +z side; yaw turns it towards +x, pitch (-90 to 90) lifts it. The model
    fills the picture; ``zoom`` is a factor on that, ``distance`` one of your own.
    """
    return Camera(yaw=yaw, pitch=pitch, zoom=zoom, distance=distance, target=target, fov=fov, up=up)


class Light:
    """A light that casts shadows: ``Light("directional", direction=(0.3, -1, 0.2), cascades=3)``.

    Kinds are directional, spot and point. Settings are ``position``, ``direction``, ``color`` (linear RGB, or
    "#rrggbb"), ``intensity``, ``range``, ``nearPlane``, ``angle``, ``softAngle`` (degrees), ``cascades`` (1 to 4),
    ``splitBalance``, ``distance`` and ``enabled``.
    """

    def __init__(self, kind: str, *, direction: Sequence[float] | None = None,
                 position: Sequence[float] | None = None, **settings: Any) -> None:  # fmt: skip
        places = {"directional": (direction,), "spot": (position, direction), "point": (position,)}
        if kind not in places:
            raise ValueError(f"a light is directional, spot or point, not {kind!r}")
        needed = {"directional": "direction", "spot": "position and direction", "point": "position"}[kind]
        if any(place is None for place in places[kind]):
            raise ValueError(f"a {kind} light has a {needed}")
        head = ",".join(_numbers(place, 3, "a place or direction") for place in places[kind] if place is not None)
        parts = [f"{kind}:{head}"]
        for name, value in settings.items():
            if isinstance(value, bool):
                parts.append(f"{name}={'true' if value else 'false'}")
            elif isinstance(value, (int, np.integer)):
                parts.append(f"{name}={int(value)}")
            elif isinstance(value, (float, np.floating)):
                parts.append(f"{name}={_number(value)}")
            elif isinstance(value, str):
                parts.append(f"{name}={value}")
            else:
                numbers = _numbers(value, 3, name)
                parts.append(f"{name}=[{numbers}]" if name == "color" else f"{name}={numbers}")
        self._text = ":".join(parts)

    def __repr__(self) -> str:
        return f"kvo.Light({self._text})"


class Model:
    """A model: meshes, materials, and items that show a mesh in a material at a place.

    ``Model("engine.glb")`` reads a file of any kind that assimp knows, in a process of its own, since damaged files
    crash it; ``isolated=False`` does without. ``Model()`` is empty, for ``add_mesh``,
    ``add_material`` and ``add_item``; ``from_arrays`` does all three. It goes to a GPU when it is first drawn there.
    """

    def __init__(self, path: PathLike | None = None, *, images: bool = True, crease_angle: float = 66.0,
                 isolated: bool = True) -> None:  # fmt: skip
        if path is None:
            self._model = _kvo.Model()
        else:
            self._model = _kvo.Model.load(os.fspath(path), images, crease_angle, isolated)

    @staticmethod
    def from_arrays(vertices: Any, indices: Any = None, *, normals: Any = None, uvs: Any = None,
                    diffuse: Sequence[float] = (0.8, 0.8, 0.8), specular: Sequence[float] = (0, 0, 0),
                    shininess: float = 1, opacity: float = 1, diffuse_map: Any = None, transforms: Any = None) -> Model:  # fmt: skip
        """A model of one mesh in one material.

        ``vertices`` (n, 3) and, where given, ``normals`` (n, 3) and ``uvs`` (n, 2) are floats, ``indices`` (m, 3)
        whole numbers, three to a triangle; without them each three vertices are one. ``transforms`` (k, 4, 4) are
        object to world, one per item; one item at the origin without.
        """
        model = Model()
        mesh = model.add_mesh(vertices, indices, normals=normals, uvs=uvs)
        material = model.add_material(diffuse=diffuse, specular=specular, shininess=shininess, opacity=opacity,
                                      diffuse_map=diffuse_map)  # fmt: skip
        for transform in [None] if transforms is None else np.asarray(transforms):
            model.add_item(mesh, material, transform)
        return model

    def add_mesh(self, vertices: Any, indices: Any = None, *, normals: Any = None, uvs: Any = None,
                 name: str = "") -> int:  # fmt: skip
        """Adds a mesh as in ``from_arrays`` and gives its number. Missing normals are made."""
        return self._model.add_mesh(vertices, indices, normals, uvs, name)

    def add_material(self, name: str = "", *, diffuse: Sequence[float] = (0.8, 0.8, 0.8),
                     specular: Sequence[float] = (0, 0, 0), shininess: float = 1, opacity: float = 1,
                     diffuse_map: Any = None, specular_map: Any = None) -> int:  # fmt: skip
        """Adds a material and gives its number.

        Colours are (r, g, b) from 0 to 1 as they are displayed, ``shininess`` is the specular exponent; maps are
        arrays (h, w), (h, w, 3) or (h, w, 4) of uint8 that multiply the colours.
        """
        return self._model.add_material(name, diffuse, specular, shininess, opacity, diffuse_map, specular_map)

    def set_surface(self, material: int, *, base_color: Sequence[float] = (1, 1, 1), metalness: float = 0,
                    roughness: float = 1, emission: Sequence[float] = (0, 0, 0), base_color_map: Any = None,
                    metal_roughness_map: Any = None, normal_map: Any = None, occlusion_map: Any = None,
                    emission_map: Any = None, normal_scale: float = 1, occlusion_strength: float = 1,
                    alpha_mode: str = "opaque", alpha_cutoff: float = 0.5, two_sided: bool = True,
                    unlit: bool = False) -> None:  # fmt: skip
        """Gives a material its surface in physical terms, which pipelines such as "studio" shade.

        Colours are (r, g, b) in linear light. Maps are arrays as in ``add_material``; those of colours are decoded from
        sRGB, of ``metal_roughness_map`` roughness is in g and metalness in b, ``occlusion_map`` counts with its r.
        ``alpha_mode`` is "opaque", "mask" or "blend". Without a surface a material gets one from its other colours.
        """
        values = {name: value for name, value in locals().items() if name not in ("self", "material")}
        self._model.set_surface(material, values)

    def add_item(self, mesh: int, material: int = 0, transform: Any = None, flags: int = 0) -> int:
        """Shows a mesh in a material, object to world by ``transform`` (4, 4), and gives the item's number."""
        return self._model.add_item(mesh, material, transform, flags)

    def set_opacity(self, opacity: float, material: str = "") -> None:
        """Gives the materials of a name, or all of them, another opacity, 0 to 1."""
        self._model.set_opacity(opacity, material)

    def scale(self, factor: float) -> None:
        """Makes it larger or smaller around the origin."""
        self._model.scale(factor)

    def fit(self, side: float = 2.0) -> None:
        """Scales it until its longest side has that many units: many passes count in units of the scene."""
        self._model.fit(side)

    def add_floor(self) -> None:
        """Puts it on a light grey floor that reaches beyond it on all sides; +y is up."""
        self._model.add_floor()

    @property
    def bounds(self) -> np.ndarray:
        """(2, 3): the lowest and the highest corner in world space."""
        return self._model.bounds()

    @property
    def materials(self) -> list[str]:
        return self._model.materials()

    @property
    def triangles(self) -> int:
        """Over all items."""
        return self._model.triangles()

    def __repr__(self) -> str:
        meshes, materials, items = self._model.counts()
        return f"<kvo.Model: {items} items of {meshes} meshes in {materials} materials, {self.triangles} triangles>"


class Texture:
    """A 2D texture whose texels come from an array (h, w) or (h, w, c), c from 1 to 4: uint8 (which shaders read from
    0 to 1) or floats. Top row first. A value for texture slots."""

    def __init__(self, array: Any, *, context: Context | None = None) -> None:
        self._texture = _kvo.Texture((context or globals()["context"]())._gpu, array)

    def set(self, array: Any) -> None:
        """Replaces texels, size and kind."""
        self._texture.set(array)

    def read(self) -> np.ndarray:
        """The texels as floats."""
        return self._texture.read()


def _sides(size: Any) -> tuple[int, int]:
    try:
        width, height = (int(side) for side in size)
    except (TypeError, ValueError) as error:
        raise type(error)(f"a size is (width, height) in pixels, not {size!r}") from None
    return width, height


def _slot_text(value: Any) -> str:
    """A value as pipeline files write it."""
    if value is None:
        return "null"
    if isinstance(value, str):
        return json.dumps(value)
    if isinstance(value, (bool, np.bool_)):
        return "true" if value else "false"
    if isinstance(value, (int, np.integer)):
        return str(int(value))
    if isinstance(value, (float, np.floating)):
        return _number(value)
    if isinstance(value, os.PathLike):
        return json.dumps(os.fspath(value))
    if isinstance(value, np.ndarray):
        value = value.reshape(-1) if value.shape == (4, 4) else value
        return _slot_text(value.tolist())
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(_slot_text(element) for element in value) + "]"
    raise TypeError(f"a {type(value).__name__} is no value for a slot")


class Pass:
    """A pass of a pipeline. Its inputs are attributes by their short names, to read and to set; so are the
    operations of its class, to call::

        glow = pipeline["Glow"]
        glow.BlurRadius = 8
        pipeline["Sky"].addOutput("Kvo_KvoTexture*_Sky")
    """

    _pipeline: Pipeline
    _name: str

    def __init__(self, pipeline: Pipeline, name: str) -> None:
        object.__setattr__(self, "_pipeline", pipeline)
        object.__setattr__(self, "_name", name)

    @property
    def name(self) -> str:
        return self._name

    @property
    def class_name(self) -> str:
        """Of the library's class."""
        return self._pipeline._pipeline.class_name(self._name)

    @property
    def inputs(self) -> dict[str, Any]:
        """Values by short names; of what is wired the source, "Pass.Slot" or "@host value"."""
        return {_short(entry["slot"]): entry["source"] or entry["value"] for entry in self._inputs()}

    @property
    def outputs(self) -> list[str]:
        return [_short(entry["slot"]) for entry in self._pipeline._pipeline.outputs(self._name)]

    def help(self, slot: str | None = None) -> str:
        """What the pass is for and what its slots mean, with units, ranges and choices; or one slot alone."""
        entries = self._inputs() + self._pipeline._pipeline.outputs(self._name)
        if slot is not None:
            for entry in entries:
                if slot in (entry["slot"], _short(entry["slot"])):
                    return _described(entry)
            raise KeyError(f"{self.class_name} '{self._name}' has no slot '{slot}'")
        lines = [f"{self.class_name}: {self._pipeline._pipeline.meaning(self._name)}"]
        return "\n".join(lines + ["  " + _described(entry) for entry in entries])

    def set(self, **values: Any) -> Pass:
        """Gives inputs values, several at a time."""
        for slot, value in values.items():
            self._pipeline.set(self._name, slot, value)
        return self

    def reset(self, slot: str) -> None:
        """Puts an input back to its default."""
        self._pipeline._pipeline.reset(self._name, slot)

    def clear_color(self, color: Sequence[float] | str | None) -> None:
        """What OpenGL clears to right before the pass, for passes that clear to what is current; None: black."""
        self._pipeline._pipeline.set_clear_color(self._name, None if color is None else list(_color(color)))

    def _inputs(self) -> list[dict[str, Any]]:
        return self._pipeline._pipeline.inputs(self._name)

    def _takes_image(self, slot: str) -> bool:
        names = [entry["slot"] for entry in self._inputs()]
        return any("KvoTexture*" in name and slot in (name, _short(name)) for name in names)

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        for entry in self._inputs():
            if name in (entry["slot"], _short(entry["slot"])):
                return entry["source"] or entry["value"]
        if name in self._pipeline._pipeline.operations(self._name):
            return lambda *arguments: self._pipeline._pipeline.call(
                self._name, name, [_slot_text(argument) for argument in arguments]
            )
        known = ", ".join(sorted(dir(self)))
        raise AttributeError(f"{self.class_name} '{self._name}' has no '{name}'; it has {known}")

    def __setattr__(self, name: str, value: Any) -> None:
        self._pipeline.set(self._name, name, value)

    def __dir__(self) -> list[str]:
        inputs = [_short(entry["slot"]) for entry in self._inputs()]
        own = [name for name in vars(Pass) if not name.startswith("_")]
        return sorted({*inputs, *self._pipeline._pipeline.operations(self._name), *own})

    def __repr__(self) -> str:
        return f"<kvo.Pass {self._name}: {self.class_name}>"


def _short(slot: str) -> str:
    return slot.rsplit("_", 1)[-1]


def _described(entry: Mapping[str, Any]) -> str:
    parts = [entry["meaning"]]
    least, most = entry.get("least", -math.inf), entry.get("most", math.inf)
    unit = f" {entry['unit']}" if entry.get("unit") else ""
    if math.isfinite(least) and math.isfinite(most):
        parts.append(f"{least:g} to {most:g}{unit}")
    elif math.isfinite(least):
        parts.append(f"at least {least:g}{unit}")
    elif unit:
        parts.append(unit.strip())
    if entry.get("choices"):
        parts.append(", ".join(entry["choices"]))
    if entry.get("format"):
        parts.append(entry["format"])
    return f"{_short(entry['slot'])}: {'; '.join(part for part in parts if part)}"


def _split(output: str) -> tuple[str, str]:
    name, dot, slot = output.rpartition(".")
    if not dot:
        raise ValueError(f"an output is 'Pass.Slot', not {output!r}")
    return name, slot


class Pipeline:
    """A chain of passes. ``Pipeline("viewport")`` reads a file by its name (see ``pipelines``) or path;
    ``Pipeline()`` is empty, for ``add`` and ``connect``."""

    def __init__(self, name: PathLike | None = None, *, context: Context | None = None) -> None:
        self._pipeline = _kvo.Pipeline((context or globals()["context"]())._gpu)
        if name is not None:
            self.load(name)

    def load(self, name: PathLike) -> None:
        """Reads a pipeline file in the place of what there is. A file with mistakes changes nothing."""
        self._pipeline.load(os.fspath(name), _folders())

    def save(self, path: PathLike) -> None:
        """Writes it as a pipeline file. What a file at that path has already keeps its place, its comments and its way
        of writing. Error where something has no text, such as a Texture."""
        self._pipeline.save(os.fspath(path))

    # Passes

    def add(self, name: str, class_name: str, **values: Any) -> Pass:
        """Adds a pass and gives its inputs values. Viewport, camera, projection, clip planes and model are bound
        where it has slots of these names. Where a value is wrong, no pass is added."""
        self._pipeline.add(name, class_name)
        try:
            self._pipeline.bind_standard()
            return self[name].set(**values)
        except BaseException:
            self._pipeline.remove(name)
            raise

    def shader(self, name: str, fragment: str, inputs: Mapping[str, str | Texture] | None = None,
               outputs: Sequence[str] = ("Frame",), values: Mapping[str, Any] | None = None) -> Pass:  # fmt: skip
        """Adds a full-screen pass of your own GLSL.

        ``inputs`` are textures by name, "Pass.Slot" or Texture: uniform sampler2D u_NAME. ``outputs`` are written
        as out vec4 o_NAME. ``values`` are numbers, vectors, colours and matrices by name: uniform u_NAME.
        The texture coordinate comes as in vec2 vo_TexCoord.
        """
        names = {slot: f"Kvo_{_type_word(value)}_{slot}" for slot, value in (values or {}).items()}
        version, line, rest = fragment.partition("\n")
        if names and not version.lstrip().startswith("#version"):
            raise ValueError("the first line of a shader says its #version")
        # The library calls such uniforms by the whole name of the slot.
        defines = "".join(f"#define u_{slot} {full}\n" for slot, full in names.items())
        added = self.add(name, "ShaderRenderPass")
        sources = dict(inputs or {})
        try:
            added.setName(name)
            for slot in sources:
                added.addInput(f"Kvo_KvoTexture*_{slot}")
            for full in names.values():
                added.addInput(full)
            for slot in outputs:
                added.addOutput(f"Kvo_KvoTexture*_{slot}")
            added.setFragmentShaderSource(version + line + defines + rest)
            for slot, source in sources.items():
                if isinstance(source, str):
                    self.connect(source, f"{name}.{slot}")
                else:
                    self.set(name, slot, source)
            return added.set(**dict(values or {}))
        except BaseException:
            self.remove(name)
            raise

    def insert(self, name: str, class_name: str, to: str, input: str, output: str) -> Pass:
        """Adds a pass in the middle of the link that feeds ``to`` ("Pass.Slot"): what came in goes to its ``input``,
        and its ``output`` goes on."""
        pass_name, slot = _split(to)
        self._pipeline.insert(name, class_name, pass_name, slot, input, output)
        return self[name]

    def replace(self, name: str, class_name: str) -> Pass:
        """Puts a pass of another class in the place of one, with all links and values."""
        self._pipeline.replace(name, class_name)
        return self[name]

    def remove(self, name: str) -> None:
        """Takes a pass out. Inputs that it fed go back to their defaults."""
        self._pipeline.remove(name)

    def rename(self, name: str, new_name: str) -> None:
        self._pipeline.rename(name, new_name)

    @property
    def order(self) -> list[str]:
        """The names of the passes in the order of running."""
        return self._pipeline.order()

    def __getitem__(self, name: str) -> Pass:
        names = self._pipeline.pass_names()
        if name not in names:
            raise KeyError(f"there is no pass '{name}'; there are {', '.join(names)}")
        return Pass(self, name)

    def __iter__(self) -> Iterator[Pass]:
        return iter([Pass(self, name) for name in self._pipeline.pass_names()])

    def __len__(self) -> int:
        return len(self._pipeline.pass_names())

    def __contains__(self, name: object) -> bool:
        return name in self._pipeline.pass_names()

    # Inputs

    def set(self, name: str, slot: str, value: Any) -> None:
        """Gives an input a value: a number, text, a sequence (vectors, colours, rectangles, matrices), a Texture or a
        Model; None for the empty value."""
        if isinstance(value, Texture):
            self._pipeline.set_texture(name, slot, value._texture)
        elif isinstance(value, Model):
            self._pipeline.set_model(name, slot, value._model)
        elif isinstance(value, np.ndarray) and self[name]._takes_image(slot):
            raise TypeError(f"'{name}.{slot}' takes an image: make one of the array by kvo.Texture(array)")
        else:
            self._pipeline.set_text(name, slot, _slot_text(value))

    def connect(self, source: str, to: str) -> None:
        """Links an output to an input: ``connect("Model.Diffuse", "Present.Texture")``."""
        self._pipeline.connect(source, to)

    def bind(self, to: str, host_value: str) -> None:
        """Binds an input to what the host knows: viewport, camera, projection, near, far, model, opaque, screen,
        lights, frame, or a part of the viewport, "viewport[0.5, 0, 0.5, 1]"."""
        name, slot = _split(to)
        self._pipeline.bind(name, slot, host_value)

    def set_lights(self, lights: Iterable[Light]) -> None:
        """The lights of the scene, for passes that are bound to them."""
        self._pipeline.set_lights([light._text for light in lights])

    def set_path(self, name: str, path: PathLike) -> None:
        """The file that inputs bound to "@paths.NAME" read."""
        if not os.path.exists(path):
            raise FileNotFoundError(f"there is no file '{os.fspath(path)}'")
        self._pipeline.set_path(name, os.fspath(path))

    # Frames

    def render(self, model: Model | None = None, size: tuple[int, int] = (1280, 720), camera: Camera | str | None = None,
               *, frames: int = 1, outputs: Iterable[str] | None = None, out: np.ndarray | None = None,
               on_pass: Callable[[str], object] | None = None) -> Any:  # fmt: skip
        """Draws frames and gives the last one's picture, an Image ``(h, w, 4)``.

        With ``outputs``, names as "Model.Depth", a dict of arrays by these names, as they were right behind the
        pass: float32 ``(h, w)`` or ``(h, w, c)``, uint32 for textures of integers, layers in front of that; other values as numbers
        and tuples. "image" among them is the picture.

        ``size`` is (width, height) in pixels. ``out`` takes the picture: a contiguous array ``(h, w, 4)`` of uint8.
        ``on_pass`` is called with the name of each pass of the last frame behind it; ``output`` reads what it made.
        """
        width, height = _sides(size)
        names = None if outputs is None else list(outputs)
        picture = names is None or "image" in names or out is not None
        slots = [_split(name) for name in names or [] if name != "image"]
        if camera is None:
            view: Any = ""
        elif isinstance(camera, Camera):
            view = camera._view()
        else:
            view = camera
        result = self._pipeline.render(width=width, height=height, model=model._model if model else None, view=view,
                                       frames=frames, outputs=slots, picture=picture, out=out, on_pass=on_pass)  # fmt: skip
        if picture:
            result["image"] = result["image"].view(Image)
        return result["image"] if names is None else {name: result[name] for name in names}

    def views(self, model: Model | None, size: tuple[int, int], cameras: Iterable[Camera | str], *,
              outputs: Iterable[str] | None = None, frames: int = 1, progress: bool = True) -> Iterator[Any]:  # fmt: skip
        """What ``render`` gives, for one camera after the other. On a terminal tqdm, where it is installed, tells how
        far it is."""
        names = None if outputs is None else list(outputs)
        for camera in _watched(cameras) if progress else cameras:
            yield self.render(model, size, camera, frames=frames, outputs=names)

    def output(self, output: str) -> Any:
        """The value of an output as the last frame left it. A texture may have been used again since its pass: read
        it by ``render(outputs=…)``, or in ``on_pass``."""
        return self._pipeline.output(*_split(output))

    # Checks and times

    @property
    def warnings(self) -> list[str]:
        """What is likely a mistake though it runs."""
        return self._pipeline.warnings()

    @property
    def faults(self) -> list[str]:
        """What was wrong in the last frame."""
        return self._pipeline.faults()

    def measure(self, enabled: bool = True) -> None:
        """Takes times from now on, or no longer."""
        self._pipeline.set_timing(enabled)

    @property
    def timings(self) -> list[dict[str, Any]]:
        """By pass, in the order of running: medians of the CPU's and the GPU's milliseconds; waits for the GPU."""
        return self._pipeline.timings()

    def graph(self) -> str:
        """A drawing of the chain, as SVG."""
        return self._pipeline.graph()

    def _repr_html_(self) -> str:
        return self.graph() or html.escape(repr(self))

    def __repr__(self) -> str:
        return f"<kvo.Pipeline: {' > '.join(self.order)}>"


def _watched(things: Iterable[Any]) -> Iterable[Any]:
    try:
        from tqdm import tqdm
    except ImportError:
        return things
    return tqdm(list(things), disable=None, unit="view")  # silent where nobody looks


def _type_word(value: Any) -> str:
    """The word for a value in the name of a slot."""
    if isinstance(value, (bool, np.bool_)):
        return "bool"
    if isinstance(value, (int, np.integer)):
        return "int"
    if isinstance(value, (float, np.floating)):
        return "float"
    if isinstance(value, str):
        return "QColor"
    shape = np.shape(value)
    if shape == (4, 4):
        return "QMatrix4x4"
    if len(shape) == 1 and 2 <= shape[0] <= 4:
        return f"QVector{shape[0]}D"
    raise TypeError(f"a {type(value).__name__} of shape {shape} is no value for a uniform")


def render(model: Model | PathLike | None = None, pipeline: Pipeline | PathLike | None = None,
           size: tuple[int, int] = (1280, 720), camera: Camera | str | None = None, *,
           outputs: Iterable[str] | None = None, frames: int = 1, values: Mapping[str, Any] | None = None,
           lights: Iterable[Light] | None = None, scale: float | str | None = None, floor: bool = False,
           opacity: float | Mapping[str, float] | None = None, background: Sequence[float] | str | None = None) -> Any:  # fmt: skip
    """A picture of a model, in one call.

    ``model`` is a Model or a file, ``pipeline`` a Pipeline, a name (see ``pipelines``) or a file: "studio" where
    there is a model, "gradient" without. ``values`` are inputs by "Pass.Slot". ``scale``, a factor or "fit" for a
    longest side of 2 units, ``floor`` and ``opacity``, of all materials or by name, are for models that are files.
    ``background`` is a colour under the picture. Gives what ``Pipeline.render`` gives.
    """
    if not isinstance(model, Model) and model is not None:
        model = Model(model)
        if scale == "fit":
            model.fit()
        elif isinstance(scale, str):
            raise ValueError(f"a scale is a number or 'fit', not {scale!r}")
        elif scale is not None:
            model.scale(scale)
        if floor:
            model.add_floor()
        if isinstance(opacity, Mapping):
            for material, value in opacity.items():
                model.set_opacity(value, material)
        elif opacity is not None:
            model.set_opacity(opacity)
    elif scale is not None or floor or opacity is not None:
        raise ValueError("scale, floor and opacity are for models that are files; see the methods of Model")
    if not isinstance(pipeline, Pipeline):
        pipeline = Pipeline(pipeline or _kvo.default_pipeline(model is not None))
    for name, value in (values or {}).items():
        pass_name, slot = _split(name)
        pipeline.set(pass_name, slot, value)
    if lights is not None:
        pipeline.set_lights(lights)
    for warning in pipeline.warnings + _without_effect(pipeline, model, camera):
        warnings.warn(warning, Warning, stacklevel=_callers_level())
    result = pipeline.render(model, size, camera, frames=frames, outputs=outputs)
    if background is None:
        return result
    if outputs is None:
        return result.over(background)
    if "image" in result:
        result["image"] = result["image"].over(background)
    return result


def _without_effect(pipeline: Pipeline, model: Model | None, camera: Any) -> list[str]:
    """What was given though nothing of the pipeline asks for it."""

    def uses(*names: str) -> bool:
        return any(pipeline._pipeline.uses(name) for name in names)

    found = []
    if model is not None and not uses("model", "opaque", "camera", "projection"):
        found.append("the model has no effect: the pipeline draws none")
    if camera is not None and not uses("camera", "projection", "near", "far"):
        found.append("the camera has no effect: the pipeline asks for none")
    return found


def batch(jobs: PathLike | Iterable[Mapping[str, Any]], *, defaults: Mapping[str, Any] | None = None,
          resume: bool = False, manifest: PathLike | None = None, retries: int = 0, shard: tuple[int, int] = (1, 1),
          cache: int = 1024, on_picture: Callable[[dict[str, Any]], Any] | None = None) -> list[dict[str, Any]]:  # fmt: skip
    """Many pictures, to files, as ``kvorender --batch`` makes them: models and pipelines stay loaded between them.

    ``jobs`` is a file (.jsonl or .csv) or a row of dictionaries, whose keys are kvorender's long options beside
    "model" and "output": ``{"model": "engine.glb", "camera": {"yaw": {"from": 0, "to": 350, "count": 36}},
    "size": "640x360", "output": "{camera.yaw}.png"}``. ``defaults`` hold for all of them; of jobs in a file they are
    options with values that do not vary.

    Gives a dictionary for each picture, with its "status" ("done", "skipped" or "failed"), "output", "seconds" and,
    of one that failed, "error": one picture does not keep the others from being made. ``on_picture`` gets each of them
    as soon as it is there. ``resume`` leaves out what is complete by the ``manifest``, which is beside a job file where
    none is named; ``retries`` tries again what failed; ``shard`` (2, 4) makes the second of four parts. ``cache`` is
    the memory for models, in megabytes.
    """
    is_file = isinstance(jobs, (str, os.PathLike))
    given: dict[str, Any] = dict(defaults or {})
    options = {"pipelines": _folders()}
    if is_file:
        text = os.fspath(jobs)
        for key, value in given.items():
            values = value if isinstance(value, (list, tuple)) else [value]
            options[key] = ["true" if v is True else os.fspath(v) if isinstance(v, os.PathLike) else str(v) for v in values]
    else:
        rows = [{"defaults": given}] if given else []
        rows += [dict(job) for job in jobs]
        text = "".join(json.dumps(row, default=os.fspath) + "\n" for row in rows)
    if resume and manifest is None and not is_file:
        raise ValueError("to resume, name a manifest")
    try:
        index, count = (int(number) for number in shard)
    except (TypeError, ValueError):
        raise TypeError(f"a shard is (2, 4), the second of four, not {shard!r}") from None
    reports = _kvo.batch(text, is_file, options, os.fspath(manifest) if manifest is not None else "", resume, retries,
                         index, count, cache,
                         None if on_picture is None else lambda line: on_picture(json.loads(line)))  # fmt: skip
    return [json.loads(report) for report in reports]


# What is checked of arguments before they go to the library, by annotation: what is asked for, and whether it is that.
_Check = Callable[[Any], bool]


def _is_number(value: Any) -> bool:
    return hasattr(value, "__float__") and getattr(value, "ndim", 0) == 0


def _is_whole(value: Any) -> bool:
    return hasattr(value, "__index__") and getattr(value, "ndim", 0) == 0


def _is_path(value: Any) -> bool:
    return isinstance(value, (str, os.PathLike)) and isinstance(os.fspath(value), str)


def _is(*kinds: type) -> _Check:
    return lambda value: isinstance(value, kinds)


def _row_of(check: _Check) -> _Check:
    def is_row(value: Any) -> bool:
        if isinstance(value, (str, bytes, Mapping)) or not isinstance(value, Iterable):
            return False
        # Of what can be gone through only once, the elements are left to the function.
        return not isinstance(value, (list, tuple)) or all(check(one) for one in value)

    return is_row


_KINDS: dict[str, tuple[str, _Check]] = {
    "None": ("None", lambda value: value is None),
    "bool": ("True or False", _is(bool, np.bool_)),
    "int": ("a whole number", _is_whole),
    "float": ("a number", _is_number),
    "str": ("a text", _is(str)),
    "PathLike": ("a path", _is_path),
    "Model": ("a kvo.Model", _is(Model)),
    "Pipeline": ("a kvo.Pipeline", _is(Pipeline)),
    "Context": ("a kvo.Context", _is(Context)),
    "Camera": ("a kvo.Camera", _is(Camera)),
    "np.ndarray": ("an array", _is(np.ndarray)),
    "Sequence[float]": ("a row of numbers", _row_of(_is_number)),
    "Sequence[str]": ("a list of texts", _row_of(_is(str))),
    "Iterable[str]": ("a list of texts", _row_of(_is(str))),
    "Iterable[Light]": ("a list of kvo.Light", _row_of(_is(Light))),
    "Iterable[Camera | str]": ("a list of cameras", _row_of(_is(Camera, str))),
    "Iterable[Mapping[str, Any]]": ("a list of dicts", _row_of(_is(Mapping))),
    "Mapping[str, Any]": ("a dict", _is(Mapping)),
    "Mapping[str, float]": ("a dict of numbers", _is(Mapping)),
    "Mapping[str, str | Texture]": ("a dict", _is(Mapping)),
    "Callable[[str], object]": ("a function", callable),
    "Callable[[dict[str, Any]], Any]": ("a function", callable),
}
_UNCHECKED = {"Any", "object", "tuple[int, int]"}  # each function says itself what these are
_LEAST, _MOST = -(2**31), 2**31 - 1


def _alternatives(annotation: str) -> list[str]:
    """The parts of "A | B[C | D] | None"."""
    parts, depth = [""], 0
    for word in annotation.split(" | "):
        parts[-1] += (" | " if parts[-1] else "") + word
        depth += word.count("[") - word.count("]")
        if depth == 0:
            parts.append("")
    return parts[:-1]


def _checked(function: Callable[..., Any]) -> Callable[..., Any]:
    """The function, but that wrong arguments are told by their names, and not by what is underneath."""
    signature = inspect.signature(function)
    title = function.__qualname__.removesuffix(".__init__")
    kinds: dict[str, list[str]] = {}
    for name, parameter in signature.parameters.items():
        parts = _alternatives(parameter.annotation) if isinstance(parameter.annotation, str) else ["Any"]
        if parameter.kind is not inspect.Parameter.VAR_KEYWORD and not _UNCHECKED.intersection(parts):
            kinds[name] = parts

    @functools.wraps(function)
    def call(*arguments: Any, **named: Any) -> Any:
        try:
            given = signature.bind(*arguments, **named).arguments
        except TypeError:
            return function(*arguments, **named)  # which tells it with its name
        for name, value in given.items():
            parts = kinds.get(name)
            if parts is None:
                continue
            if not any(_KINDS[part][1](value) for part in parts):
                wanted = " or ".join(_KINDS[part][0] for part in parts if part != "None")
                raise TypeError(f"{title}: {name} has to be {wanted}, not {value!r}")
            least, most = (0, 2**64 - 1) if name == "flags" else (_LEAST, _MOST)
            if parts == ["int"] and not least <= value <= most:
                raise ValueError(f"{title}: {name} is beyond all bounds: {value}")
        return function(*arguments, **named)

    return call


def _callers_level() -> int:
    """Of warnings, so that they name the line of who uses this package."""
    level, frame = 0, inspect.currentframe()
    while frame is not None and frame.f_globals.get("__name__") == __name__:
        level, frame = level + 1, frame.f_back
    return level


def _check_arguments() -> None:
    for public in __all__:
        thing = globals()[public]
        if inspect.isfunction(thing):
            globals()[public] = _checked(thing)
        elif inspect.isclass(thing) and thing.__module__ == __name__:
            for name, member in list(vars(thing).items()):
                if name.startswith("_") and name != "__init__":
                    continue
                if isinstance(member, staticmethod):
                    setattr(thing, name, staticmethod(_checked(member.__func__)))
                elif inspect.isfunction(member):
                    setattr(thing, name, _checked(member))


_check_arguments()
