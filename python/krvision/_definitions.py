"""Names for the small integers that images and settings carry."""

from __future__ import annotations

import enum
from typing import Any, Sequence, Union

#: The values passed between modules: None, a number of 32 bits, a text, bytes, or a list of these. A bool is passed as an int.
Value = Union[None, bool, int, float, str, bytes, bytearray, memoryview, Sequence[Any]]


class Resolution(enum.IntEnum):
    """Sizes of images in pixels. Vision extractors take those up to ``R1920X1080``, the camera service all."""

    R40X30 = 8
    R80X60 = 7
    R160X120 = 0
    R320X240 = 1
    QVGA = 1
    R640X480 = 2
    VGA = 2
    R1280X960 = 3
    R2560X1920 = 4
    R1280X720 = 5
    R1920X1080 = 6
    R640X360 = 9
    R320X180 = 10
    R160X90 = 11
    R80X45 = 12
    R2560X720 = 13
    R1280X360 = 14
    R640X180 = 15
    R320X90 = 16
    R160X45 = 17

    @property
    def size(self) -> tuple[int, int]:
        """Width and height in pixels."""
        from . import _krvision

        return _krvision.resolution_size(self.value)


class ColorSpace(enum.IntEnum):
    """What the bytes of a pixel are: those that the camera service delivers. Images may have other codes, up to 26."""

    #: 1 byte: Y. Pixels have the shape (height, width).
    LUMA = 0
    #: 2 bytes: Y0 U Y1 V for two neighbours in a row. (height, width, 2)
    YUV422 = 9
    #: 3 bytes: R G B. (height, width, 3)
    RGB = 11
    #: 3 bytes: B G R, as in OpenCV. (height, width, 3)
    BGR = 13
    #: 4 bytes: B G R and an unused one. (height, width, 4)
    BGRX = 18
