"""The example programs do what they say, on small inputs."""

import sys
from pathlib import Path

import numpy as np
import pytest
from conftest import ENGINE

sys.path.insert(0, str(Path(__file__).parents[1] / "examples"))


def test_contact_sheet(tmp_path, monkeypatch):
    import contact_sheet

    monkeypatch.setattr(contact_sheet, "TILE", (48, 27))
    sheet = contact_sheet.main(ENGINE, tmp_path / "sheet.png")
    assert (tmp_path / "sheet.png").exists() and sheet.std() > 20


def test_data_set(tmp_path):
    import data_set

    arrays = data_set.main(ENGINE, 6, tmp_path / "set.npz")
    assert arrays["depth"].shape == (6, 120, 160) and arrays["image"].shape == (6, 120, 160, 4)
    assert len(np.unique(arrays["part"])) > 5
    assert ((arrays["part"] == 0) == (arrays["depth"] == 1)).all()
    normal = np.linalg.norm(arrays["normal"].astype(float), axis=-1)[arrays["depth"] < 1]
    assert np.median(np.abs(normal - 1)) < 2e-3, "normals have length 1, in half floats"
    with np.load(tmp_path / "set.npz") as read:
        damaged = {name: read[name] for name in read.files}
    damaged["depth"] = np.where(damaged["depth"] < 1, damaged["depth"] * 0.9, 1)
    with pytest.raises(AssertionError):
        data_set.check(damaged, arrays_bounds())


def arrays_bounds():
    import kvo

    return kvo.Model(ENGINE).bounds


def test_taa_convergence(tmp_path, monkeypatch):
    import taa_convergence

    pytest.importorskip("matplotlib")
    monkeypatch.setattr(taa_convergence, "SIZE", (96, 54))
    errors, distances = taa_convergence.main(ENGINE, tmp_path / "taa.png")
    assert errors[-1] < 0.6 * errors[0] and distances[-1] == 0
    assert (tmp_path / "taa.png").exists()


def test_transparency_error(tmp_path, monkeypatch):
    import transparency_error

    pytest.importorskip("matplotlib")
    monkeypatch.setattr(transparency_error, "SIZE", (96, 54))
    errors = transparency_error.main(ENGINE, tmp_path / "error.png")
    assert len(errors) == 10 and np.argmin(errors) not in (0, 9), "least between where layers and where light differ"
    assert (tmp_path / "error.png").exists()


def test_blend_modes():
    import blend_modes

    worst = blend_modes.main()
    # Targets of half floats: 11 bits of values up to 2.
    assert len(worst) == 26 and max(worst.values()) < 2e-3
