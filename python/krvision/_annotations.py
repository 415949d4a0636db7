"""What a module saw in an image."""

from __future__ import annotations

import dataclasses
from dataclasses import dataclass, field
from typing import Any, List, Tuple

from . import _krvision

_VERSION = 1


@dataclass
class Box:
    """A rectangle around an object; coordinates as in Annotations."""

    left: float
    top: float
    right: float
    bottom: float
    #: kind of object
    label: str = ""
    #: confidence, 0 to 1
    score: float = 1.0
    #: the same for one object in consecutive images; -1 if it is not tracked
    identity: int = -1


@dataclass
class Polyline:
    """Lines between points."""

    #: at least two
    points: List[Tuple[float, float]]
    #: a line joins the last point and the first
    closed: bool = False


@dataclass
class Text:
    """A text; x and y are the upper left corner of its first character."""

    x: float
    y: float
    text: str


@dataclass
class Annotations:
    """What a module saw in one image.

    Coordinates are relative to the image: 0, 0 is its upper left corner, 1, 1 its lower right one; they may be outside. By
    convention a module writes ``annotations.value`` to "NAME/Annotations" with every image, even if it saw nothing.
    """

    camera: int = 0
    #: of the image, microseconds since the Unix epoch; -1: not set
    time_stamp: int = -1
    boxes: List[Box] = field(default_factory=list)
    points: List[Tuple[float, float]] = field(default_factory=list)
    polylines: List[Polyline] = field(default_factory=list)
    texts: List[Text] = field(default_factory=list)

    @classmethod
    def of(cls, image: _krvision.Image) -> Annotations:
        """No annotations yet, for an image: takes over its camera and time stamp."""
        return cls(image.camera, image.time_stamp)

    @property
    def value(self) -> List[Any]:
        """The value that travels between modules.

        Raises:
            Error: a coordinate or score that is not a number; a box whose right edge is left of its left edge, or its bottom
                edge above its top edge; a polyline of fewer than two points.
        """
        seconds, microseconds = divmod(self.time_stamp, 1_000_000) if self.time_stamp >= 0 else (0, self.time_stamp)
        value = [
            _VERSION,
            self.camera,
            seconds,
            microseconds,
            [_box(each) for each in self.boxes],
            [[float(x), float(y)] for x, y in self.points],
            [
                [int(line.closed), *(float(coordinate) for point in line.points for coordinate in point)]
                for line in self.polylines
            ],
            [[float(each.x), float(each.y), each.text] for each in self.texts],
        ]
        checked: List[Any] = _krvision.check_annotations(value)
        return checked

    @classmethod
    def from_value(cls, value: Any) -> Annotations:
        """Reads such a value.

        Raises:
            Error: it is not one; the text names the element.
        """
        _, camera, seconds, microseconds, boxes, points, polylines, texts = _krvision.check_annotations(value)
        return cls(
            camera,
            seconds * 1_000_000 + microseconds,
            [Box(*each) for each in boxes],
            [(x, y) for x, y in points],
            [Polyline(list(zip(each[1::2], each[2::2])), bool(each[0])) for each in polylines],
            [Text(*each) for each in texts],
        )

    def draw(self, image: _krvision.Image) -> None:
        """Draws into an image: luma, YUV422, RGB, BGR or BGRx.

        Raises:
            Error: another colour space; an image on a read-only array; what ``value`` raises.
        """
        image.draw(self.value)


def _box(box: Box) -> List[Any]:
    left, top, right, bottom, label, score, identity = dataclasses.astuple(box)
    return [float(left), float(top), float(right), float(bottom), label, float(score), identity]


