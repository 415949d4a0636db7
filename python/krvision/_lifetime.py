"""Closable objects, and the exit of the interpreter."""

from __future__ import annotations

import atexit
import signal
import threading
from types import FrameType, TracebackType
from typing import Any, Optional, Type, TypeVar

from . import _krvision

_EXIT_S = 10.0  # for all modules to shut down


C = TypeVar("C", bound="Closable")


class Closable:
    """Base of objects that ``with`` closes."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: C) -> C:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()


_open: dict[Any, None] = {}  # brokers, in order of creation


def add(broker: Any) -> None:
    _open[broker] = None


def remove(broker: Any) -> None:
    _open.pop(broker, None)


@atexit.register
def _close_all() -> None:
    names = [
        getattr(client, "name", type(client).__name__) for broker in list(_open) for client in list(broker._clients)
    ]
    _krvision.end_after(_EXIT_S, ", ".join(names) or "a thread that runs Python for a module")
    try:
        while _open:
            broker = next(reversed(_open))
            broker.close()
            remove(broker)
        _krvision.close_interpreter()
    finally:
        _krvision.end_not()


def wait(timeout: Optional[float] = None) -> bool:
    """Waits until the program is interrupted: by Ctrl-C (SIGINT), or by SIGTERM unless it has a handler.

    Modules run in the meantime, as they do whenever this thread is not running Python.

    Args:
        timeout: seconds; None: no limit.

    Returns:
        Whether the program was interrupted; False at the end of the timeout.

    Raises:
        RuntimeError: not called on the main thread, the only one that receives signals.
    """
    if threading.current_thread() is not threading.main_thread():
        raise RuntimeError("krvision.wait() waits for signals, which only the main thread gets")
    interrupted = threading.Event()

    def interrupt(number: int, frame: Optional[FrameType]) -> None:
        interrupted.set()

    before = signal.getsignal(signal.SIGTERM)
    try:
        if before is signal.SIG_DFL:
            signal.signal(signal.SIGTERM, interrupt)
        return interrupted.wait(timeout)
    except KeyboardInterrupt:
        return True
    finally:
        if before is signal.SIG_DFL:
            signal.signal(signal.SIGTERM, before)
