"""Runs the Python code of README.md and docs/python.md, and checks that the page names everything
public."""

import re
import shutil
import sys
import types

import numpy as np
import PIL.Image
import pytest

import tolcompatible
from conftest import MODELS, NETWORKS, ROOT

PAGE = (ROOT / "docs/python.md").read_text("utf-8")
CODE = [
    code
    for page in ((ROOT / "README.md").read_text("utf-8"), PAGE)
    for code in re.findall(r"^```python\n(.*?)^```", page, re.M | re.S)
]


@pytest.mark.parametrize("code", CODE)
def test_code_runs(code, tmp_path, monkeypatch, capsys):
    if not (MODELS / "text/recognition.xml").is_file():
        pytest.skip("the text models are not installed")
    shutil.copytree(ROOT / "examples", tmp_path / "examples")
    (tmp_path / ".deps").symlink_to(MODELS.parent)
    for network, name in (("person640", "yolov8n"), ("ones256", "person-reid")):
        for file in NETWORKS.glob(f"{network}.*"):
            shutil.copy(file, tmp_path / f"{name}{file.suffix}")
    shutil.copy(ROOT / "examples/pictures/sign.png", tmp_path / "page.png")
    cv2 = types.ModuleType("cv2")  # the tests do not install OpenCV's package for one function
    cv2.imread = lambda path: np.ascontiguousarray(
        np.array(PIL.Image.open(path).convert("RGB"))[..., ::-1]
    )
    monkeypatch.setitem(sys.modules, "cv2", cv2)
    monkeypatch.chdir(tmp_path)
    exec(compile(code, "page", "exec"), {})
    assert capsys.readouterr().out


def test_page_names_everything_public():
    assert len(CODE) >= 3
    for name in tolcompatible.__all__:
        assert re.search(rf"\b{name}\b", PAGE), name
        kind = getattr(tolcompatible, name)
        for member in (
            vars(kind) if isinstance(kind, type) and not issubclass(kind, Exception) else ()
        ):
            if not member.startswith("_"):
                assert re.search(rf"\b{member}\b", PAGE), f"{name}.{member}"
                assert getattr(kind, member).__doc__ or name == "Object", f"{name}.{member}"
    assert tolcompatible.Model.__doc__ and tolcompatible.Pipeline.__doc__


def test_stub_lists_what_the_extension_has():
    import ast

    stub = ast.parse((ROOT / "python/tolcompatible/_native.pyi").read_text("utf-8")).body
    defined = {
        node.name: node for node in stub if isinstance(node, (ast.ClassDef, ast.FunctionDef))
    }
    native = tolcompatible._native
    assert {name for name in vars(native) if not name.startswith("_")} == {
        *defined,
        "interface_version",
    }
    for kind in ("Model", "Objects"):
        names = {node.name for node in defined[kind].body if not node.name.startswith("_")}
        assert names == {name for name in vars(getattr(native, kind)) if not name.startswith("_")}
