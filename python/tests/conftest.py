import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

import kvo

MODELS = Path("/usr/share/assimp/models")
ENGINE = MODELS / "glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb"


@pytest.fixture
def engine():
    return kvo.Model(ENGINE)


@pytest.fixture
def context():
    with kvo.Context() as one:
        yield one


@pytest.fixture
def kvorender():
    """The program of the same build, called with arguments."""
    program = os.environ.get("KVO_KVORENDER")
    assert program, "KVO_KVORENDER names the program"

    def run(*arguments):
        subprocess.run([program, "--quiet", *map(str, arguments)], check=True, capture_output=True)

    return run


def rectangle(width=2.0, height=2.0, z=0.0, **settings):
    """In the xy plane around the z axis, facing +z."""
    x, y = width / 2, height / 2
    vertices = [[-x, -y, z], [x, -y, z], [x, y, z], [-x, y, z]]
    return kvo.Model.from_arrays(vertices, [[0, 1, 2], [0, 2, 3]], uvs=[[0, 0], [1, 0], [1, 1], [0, 1]], **settings)


def read_ppm(path):
    data = Path(path).read_bytes()
    kind, width, height, most, pixels = data.split(maxsplit=4)[0:5]
    assert (kind, most) == (b"P6", b"255")
    pixels = data[-int(width) * int(height) * 3 :]
    return np.frombuffer(pixels, np.uint8).reshape(int(height), int(width), 3)
