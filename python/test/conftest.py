"""Fixtures of the tests."""

from __future__ import annotations

import os
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Callable, Iterator, List

import pytest

import krvision as kr

PATIENCE_S = 20.0


@pytest.fixture
def broker() -> Iterator[kr.Broker]:
    with kr.Broker() as made:
        yield made


class Diary:
    """Records events in order. Thread-safe."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self.entries: List[Any] = []

    def note(self, entry: Any) -> None:
        with self._changed:
            self.entries.append(entry)
            self._changed.notify_all()

    def wait_for(self, count: int) -> List[Any]:
        with self._changed:
            assert self._changed.wait_for(lambda: len(self.entries) >= count, PATIENCE_S), self.entries
            return list(self.entries)


@pytest.fixture
def diary() -> Diary:
    return Diary()


def run_program(path: Path, source: str, *, timeout: float = 60.0, **environment: str) -> "subprocess.CompletedProcess[str]":
    """Runs a program in a separate interpreter, with the package of this one."""
    file = path / "program.py"
    file.write_text(source)
    return subprocess.run(
        [sys.executable, str(file)],
        env={**os.environ, **environment},
        text=True,
        capture_output=True,
        timeout=timeout,
        check=False,
    )


@pytest.fixture
def run(tmp_path: Path) -> Callable[..., "subprocess.CompletedProcess[str]"]:
    return lambda source, **keywords: run_program(tmp_path, source, **keywords)


@pytest.fixture
def domain() -> Iterator[str]:
    """The address of a DDS domain that no other test uses; the C++ tests choose domains in the same way."""
    import fcntl

    first, count = 10, 90
    with open("/tmp/krdds-test-domain.turn", "a+b") as turns:
        fcntl.flock(turns, fcntl.LOCK_EX)
        turns.seek(0)
        turn = int.from_bytes(turns.read(4), sys.byteorder)
        turns.truncate(0)
        turns.write(((turn + 1) & 0xFFFFFFFF).to_bytes(4, sys.byteorder))
    for i in range(count):
        number = first + (turn + i) % count
        with open(f"/tmp/krdds-test-domain-{number}.lock", "a+b") as lock:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except OSError:
                continue
            yield f"dds:?domain={number}&interfaces=lo"
            return
    raise RuntimeError("no DDS domain is free for a test")
