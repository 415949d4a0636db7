"""Builds the wheel of krvision with CMake. Needs only Python, so pip needs no network for it."""

from __future__ import annotations

import base64
import hashlib
import os
import re
import subprocess
import sys
import sysconfig
import tempfile
import zipfile
from pathlib import Path
from typing import Any, Optional

ROOT = Path(__file__).resolve().parent.parent
NAME = "krvision"


def _read(field: str) -> str:
    found = re.search(rf'^{field} = "(.*)"$', (ROOT / "pyproject.toml").read_text(), re.MULTILINE)
    assert found, field
    return found[1]


def _metadata() -> dict[str, str]:
    tag = f"cp{sys.version_info[0]}{sys.version_info[1]}"
    platform = re.sub(r"[-.]", "_", sysconfig.get_platform())
    return {
        "METADATA": f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {_read('version')}\nSummary: {_read('description')}\n"
        f"Requires-Python: {_read('requires-python')}\nRequires-Dist: numpy\n",
        "WHEEL": f"Wheel-Version: 1.0\nGenerator: {NAME}\nRoot-Is-Purelib: false\nTag: {tag}-{tag}-{platform}\n",
    }


def _info() -> str:
    return f"{NAME}-{_read('version')}.dist-info"


def get_requires_for_build_wheel(config_settings: Any = None) -> list[str]:
    return []


def prepare_metadata_for_build_wheel(metadata_directory: str, config_settings: Any = None) -> str:
    folder = Path(metadata_directory) / _info()
    folder.mkdir()
    for name, text in _metadata().items():
        (folder / name).write_text(text)
    return _info()


def build_wheel(wheel_directory: str, config_settings: Any = None, metadata_directory: Optional[str] = None) -> str:
    os.environ.setdefault("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
    tag = _metadata()["WHEEL"].split("Tag: ")[1].strip()
    wheel = f"{NAME}-{_read('version')}-{tag}.whl"
    with tempfile.TemporaryDirectory() as folder:
        build, place = os.path.join(folder, "build"), os.path.join(folder, "place")
        for command in (
            ["-S", str(ROOT), "-B", build, "-DCMAKE_BUILD_TYPE=Release", f"-DPython_EXECUTABLE={sys.executable}",
             f"-DCMAKE_INSTALL_PREFIX={place}", "-DKR_PYTHON_PLACE=.", "-DCMAKE_UNITY_BUILD=ON"],
            ["--build", build],
            ["--install", build],
        ):  # fmt: skip
            subprocess.run(["cmake", *command], check=True)
        contents = {
            str(file.relative_to(place)): file.read_bytes() for file in sorted(Path(place).rglob("*")) if file.is_file()
        }
    contents.update({f"{_info()}/{name}": text.encode() for name, text in _metadata().items()})
    record = ""
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel), "w", zipfile.ZIP_DEFLATED) as file:
        for name, data in contents.items():
            file.writestr(name, data)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            record += f"{name},sha256={digest},{len(data)}\n"
        file.writestr(f"{_info()}/RECORD", record + f"{_info()}/RECORD,,\n")
    return wheel
