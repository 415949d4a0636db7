"""The types of the package, and its docstrings."""

from __future__ import annotations

import ast
import inspect
import os
import subprocess
import sys
from pathlib import Path

import pytest

import krvision as kr
from krvision import _krvision


@pytest.fixture(scope="module")
def cache(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return tmp_path_factory.mktemp("cache")


def check(cache: Path, tmp_path: Path, *command: str) -> None:
    built = str(Path(kr.__file__).parent.parent)
    done = subprocess.run(
        [sys.executable, *command],
        env={**os.environ, "MYPYPATH": built, "MYPY_CACHE_DIR": str(cache)},
        cwd=tmp_path,
        text=True,
        capture_output=True,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_the_package_is_typed_strictly(cache: Path, tmp_path: Path) -> None:
    check(cache, tmp_path, "-m", "mypy", "--strict", "-p", "krvision")


def test_the_stubs_match_the_module(cache: Path, tmp_path: Path) -> None:
    # Classes of pybind11 have their own metaclass; a check below finds missing ones.
    classes = [name for name, thing in vars(_krvision).items() if inspect.isclass(thing)]
    allowed = tmp_path / "allowed"
    allowed.write_text("".join(f"krvision._krvision.{name}\n" for name in classes) + "krvision._krvision.ModuleBody.__init__\n")
    check(cache, tmp_path, "-m", "mypy.stubtest", "krvision._krvision", "--allowlist", str(allowed), "--ignore-unused-allowlist")
    stubs = ast.parse(Path(kr.__file__).with_name("_krvision.pyi").read_text())
    assert sorted(classes) == sorted(each.name for each in stubs.body if isinstance(each, ast.ClassDef))


def test_the_example_of_the_package_is_typed(cache: Path, tmp_path: Path) -> None:
    (tmp_path / "user.py").write_text(
        """
import pytest

import krvision as kr
import numpy as np

class Brightness(kr.VisionExtractor):
    def process_image(self, image: kr.Image) -> None:
        kr.Memory(self.broker)["Brightness"] = float(image.pixels.mean())

with kr.Broker() as broker, broker.create(Brightness, "Brightness") as module:
    reveal_type(module)
    broker["Brightness"].subscribe("me", 100, 1.0)
"""
    )
    check(cache, tmp_path, "-m", "mypy", "--strict", "user.py")


def test_everything_public_has_a_docstring() -> None:
    bare = []
    for name in kr.__all__:
        thing = getattr(kr, name)
        if not inspect.isclass(thing) and not inspect.isroutine(thing):
            continue
        if not thing.__doc__:
            bare.append(name)
        for attribute, member in vars(thing).items() if inspect.isclass(thing) else ():
            if not attribute.startswith("_") and (callable(member) or isinstance(member, property)) and not member.__doc__:
                bare.append(f"{name}.{attribute}")
    assert bare == []
