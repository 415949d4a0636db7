"""Recordings: oxv files."""

from __future__ import annotations

from os import PathLike, fspath
from typing import Iterator, NamedTuple, Sequence, Union

from . import _krvision
from ._lifetime import Closable

Path = Union[str, "PathLike[str]"]


class Stream(NamedTuple):
    """Size in pixels and colour space of the images of a stream."""

    width: int
    height: int
    color_space: int


class Video:
    """Reads a recording (an oxv file), even if truncated or not closed.

    A sequence of the images of the first stream: ``len(video)``, ``video[0]``, ``for image in video``. Each is read when it
    is accessed. The first 25 bytes of the pixels are not in the file: they are copied from the row below. Thread-safe.

    Args:
        path: of the file.

    Raises:
        Error: it cannot be read, or is not a recording.
    """

    def __init__(self, path: Path) -> None:
        self._reader = _krvision.VideoReader(fspath(path))

    def __len__(self) -> int:
        return self._reader.frames()

    def __getitem__(self, frame: int) -> _krvision.Image:
        return self.frame(frame)

    def __iter__(self) -> Iterator[_krvision.Image]:
        return (self.frame(number) for number in range(len(self)))

    def frame(self, frame: int, stream: int = 0) -> _krvision.Image:
        """One image.

        Args:
            frame: number; from the end if it is negative.
            stream: number.

        Raises:
            IndexError: there is no such frame or stream.
            Error: the file cannot be read there.
        """
        number = frame + len(self) if frame < 0 else frame
        if number < 0 or stream < 0:
            raise IndexError(f"frame {frame} of stream {stream} does not exist; there are {len(self)} frames")
        return self._reader.read(number, stream)

    @property
    def streams(self) -> list[Stream]:
        """The streams, one per camera."""
        return [Stream(*each) for each in self._reader.streams()]

    @staticmethod
    def record(path: Path, streams: Sequence[tuple[int, int, int]]) -> Recording:
        """Creates a recording, or empties it.

        Args:
            path: of the file, with its extension.
            streams: width, height and colour space of each.
        """
        return Recording(path, streams)


class Recording(Closable):
    """An oxv file being written. Created by Video.record(). Close it, preferably with ``with``. Thread-safe.

    Raises:
        Error: it cannot be written; a stream with an impossible geometry.
    """

    def __init__(self, path: Path, streams: Sequence[tuple[int, int, int]]) -> None:
        self._writer = _krvision.VideoWriter(fspath(path), [(int(w), int(h), int(c)) for w, h, c in streams])

    def write(self, *images: _krvision.Image) -> None:
        """Appends a frame: one image per stream.

        Raises:
            Error: an image is missing, or not of its stream's size; the file cannot be written, or would exceed 4 GiB.
        """
        self._writer.write(list(images))

    def __len__(self) -> int:
        return self._writer.frames()

    def close(self) -> None:
        """Completes the file. May be called again."""
        self._writer.close()
