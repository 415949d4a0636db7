"""The log of the library."""

from __future__ import annotations

from . import _krvision


def log(level: str, message: str, category: str = "python") -> None:
    """Logs one record, in the log of the library. Thread-safe; does not block.

    Args:
        level: "error", "warning", "info" or "verbose".
        message: one line.
        category: part of the system that logs it.

    Raises:
        ValueError: there is no such level.
    """
    _krvision.log(level, category, message)


def set_log_levels(levels: str) -> None:
    """Selects what is printed on standard error, like the variable KR_LOG: for example "warning,krdds=verbose".

    Raises:
        ValueError: a malformed selection; nothing has changed.
    """
    _krvision.set_log_levels(levels)


def get_log_levels() -> str:
    """What is printed on standard error."""
    return _krvision.log_levels()


def flush_log(timeout: float = 30.0) -> bool:
    """Waits until all records logged so far are written.

    Returns:
        False: the timeout, in seconds, expired first.
    """
    return _krvision.flush_log(timeout)
