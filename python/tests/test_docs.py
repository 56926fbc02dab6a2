"""What the documentation prints runs."""

import re
from pathlib import Path

import pytest
from conftest import ENGINE

ROOT = Path(__file__).parents[2]


@pytest.mark.parametrize("page", ["docs/python.md", "README.md"])
def test_blocks_run_in_their_order(page, tmp_path, monkeypatch):
    blocks = re.findall(r"^```python\n(.*?)^```$", (ROOT / page).read_text(), re.M | re.S)
    assert blocks
    monkeypatch.chdir(tmp_path)
    (tmp_path / "engine.glb").symlink_to(ENGINE)
    names = {"__name__": "a page"}
    for block in blocks:
        exec(compile(block, page, "exec"), names)
    assert names["image"].shape[2] == 4 and names["image"].std() > 10


def test_all_that_is_public_is_documented():
    import inspect

    import kvo

    missing = []
    for name in kvo.__all__:
        thing = getattr(kvo, name)
        if not inspect.getdoc(thing):
            missing.append(name)
        if inspect.isclass(thing) and thing.__module__ == "kvo":
            for member, value in vars(thing).items():
                says_enough = {"name", "rename", "order", "materials", "outputs", "closed", "from_arrays"}
                if not member.startswith("_") and callable(value) and not value.__doc__ and member not in says_enough:
                    missing.append(f"{name}.{member}")
    assert not missing
