"""Images, and the NumPy arrays on their memory."""

from __future__ import annotations

import gc
import weakref
from pathlib import Path
from typing import Any

import numpy as np
import pytest

import krvision as kr


def make_array(*shape: int) -> "np.ndarray[Any, np.dtype[np.uint8]]":
    return np.random.default_rng(7).integers(0, 256, shape, np.uint8)


@pytest.mark.parametrize(
    "color_space, shape",
    [
        (kr.ColorSpace.LUMA, (4, 6)),
        (kr.ColorSpace.YUV422, (4, 6, 2)),
        (kr.ColorSpace.RGB, (4, 6, 3)),
        (kr.ColorSpace.BGR, (4, 6, 3)),
        (kr.ColorSpace.BGRX, (4, 6, 4)),
        (10, (4, 6, 3)),
        (19, (4, 6, 12)),
    ],
)
def test_pixels_have_the_shape_of_the_color_space(color_space: int, shape: Any) -> None:
    image = kr.Image.blank(6, 4, color_space)
    assert image.pixels.shape == shape
    assert image.pixels.dtype == np.uint8
    assert (image.width, image.height, image.layers) == (6, 4, int(np.prod(shape[2:])))
    assert kr.Image(np.zeros(shape, np.uint8), color_space).color_space == color_space


def test_pixels_are_the_memory_of_the_image() -> None:
    image = kr.Image.blank(6, 4, kr.ColorSpace.LUMA)
    image.pixels[1, 2] = 7
    assert image.pixels[1, 2] == 7
    assert np.shares_memory(image.pixels, image.pixels)


def test_an_image_of_an_array_shares_its_memory() -> None:
    array = make_array(4, 6, 3)
    image = kr.Image(array)
    assert image.color_space == kr.ColorSpace.BGR
    assert np.shares_memory(image.pixels, array)
    array[0, 0] = (1, 2, 3)
    assert image.pixels[0, 0].tolist() == [1, 2, 3]


def test_an_array_outlives_its_image() -> None:
    image = kr.Image.blank(640, 480, kr.ColorSpace.LUMA)
    pixels = image.pixels
    pixels[:] = 5
    del image
    gc.collect()
    assert pixels.sum() == 5 * 640 * 480


def test_an_image_keeps_its_array() -> None:
    array = make_array(480, 640)
    expected, gone = array.sum(), weakref.ref(array)
    image = kr.Image(array)
    del array
    gc.collect()
    assert image.pixels.sum() == expected
    del image
    gc.collect()
    assert gone() is None


def test_a_read_only_array_stays_read_only() -> None:
    array = make_array(4, 6)
    array.flags.writeable = False
    image = kr.Image(array)
    assert not image.pixels.flags.writeable
    with pytest.raises(kr.Error, match="read-only"):
        kr.Annotations(boxes=[kr.Box(0, 0, 1, 1)]).draw(image)


@pytest.mark.parametrize(
    "array, error, reason",
    [
        (np.zeros((4, 6), np.uint16), TypeError, r"uint16 \(4, 6\)"),
        (np.zeros((4, 6), float), TypeError, "float64"),
        (np.zeros(24, np.uint8), TypeError, r"uint8 \(24\)"),
        (np.zeros((1, 4, 6, 3), np.uint8), TypeError, "uint8"),
        (np.zeros((4, 6, 5), np.uint8), ValueError, "no colour space has 5 bytes per pixel"),
        (np.zeros((0, 6), np.uint8), ValueError, "1 to 65536"),
        (np.zeros((1, 65537), np.uint8), ValueError, "1 to 65536"),
        (np.zeros((4, 12), np.uint8)[:, ::2], ValueError, "ascontiguousarray"),
        (np.zeros((4, 12), np.uint8)[:, :6], ValueError, "ascontiguousarray"),
        (np.zeros((6, 4), np.uint8).T, ValueError, "ascontiguousarray"),
        ([[1, 2]], TypeError, "array"),
    ],
)
def test_an_array_with_an_unsuitable_layout_is_refused(array: Any, error: Any, reason: str) -> None:
    with pytest.raises(error, match=reason):
        kr.Image(array)


def test_a_color_space_that_does_not_fit_the_array_is_refused() -> None:
    with pytest.raises(ValueError, match="colour space 9 has 2 bytes per pixel, the array 3"):
        kr.Image(np.zeros((4, 6, 3), np.uint8), kr.ColorSpace.YUV422)
    with pytest.raises(ValueError, match="27 does not exist"):
        kr.Image(np.zeros((4, 6), np.uint8), 27)


@pytest.mark.parametrize("width, height, color_space", [(0, 1, 0), (1, -1, 0), (65537, 1, 0), (65536, 65536, 0), (1, 1, 27), (1, 1, -1)])
def test_an_impossible_image_is_refused(width: int, height: int, color_space: int) -> None:
    with pytest.raises(ValueError):
        kr.Image.blank(width, height, color_space)


def test_a_region_is_a_view_with_strides() -> None:
    image = kr.Image(make_array(8, 10, 3))
    image.rois = [kr.Roi(2, 1, 4, 5)]
    (roi,) = image.rois
    region = image.region(roi.x, roi.y, roi.width, roi.height)
    assert region.shape == (5, 4, 3)
    assert region.strides == (30, 3, 1)
    assert np.array_equal(region, image.pixels[1:6, 2:6])
    region[:] = 9
    assert (image.pixels[1:6, 2:6] == 9).all()
    with pytest.raises(ValueError, match="ascontiguousarray"):
        kr.Image(region)


@pytest.mark.parametrize("region", [(-1, 0, 1, 1), (0, 0, 0, 1), (9, 0, 2, 1), (0, 8, 1, 1), (2147483647, 0, 1, 1)])
def test_a_region_outside_the_image_is_refused(region: Any) -> None:
    with pytest.raises(ValueError, match="is not inside the image, which has 10x8"):
        kr.Image.blank(10, 8, kr.ColorSpace.LUMA).region(*region)


def test_a_region_of_yuv422_begins_with_a_pair() -> None:
    image = kr.Image.blank(10, 8, kr.ColorSpace.YUV422)
    assert image.region(2, 0, 4, 8).shape == (8, 4, 2)
    with pytest.raises(ValueError, match="must be even"):
        image.region(1, 0, 4, 8)


def test_conversions_between_bgr_rgb_and_bgrx_are_exact() -> None:
    bgr = kr.Image(make_array(5, 7, 3))
    rgb = bgr.to(kr.ColorSpace.RGB)
    assert np.array_equal(rgb.pixels, bgr.pixels[:, :, ::-1])
    bgrx = rgb.to(kr.ColorSpace.BGRX)
    assert np.array_equal(bgrx.pixels[:, :, :3], bgr.pixels)
    assert np.array_equal(bgrx.to(kr.ColorSpace.BGR).pixels, bgr.pixels)


@pytest.mark.parametrize("width, height", [(6, 4), (5, 3)])
def test_grey_stays_grey_between_all_color_spaces(width: int, height: int) -> None:
    luma = kr.Image(np.full((height, width), 126, np.uint8))
    yuv422 = luma.to(kr.ColorSpace.YUV422)
    assert (yuv422.pixels[:, :, 0] == 126).all() and (yuv422.pixels[:, :, 1] == 128).all()
    bgr = yuv422.to(kr.ColorSpace.BGR)
    assert bgr.pixels.min() >= 127 and bgr.pixels.max() <= 129  # (126 - 16) * 255 / 219
    assert np.array_equal(luma.to(kr.ColorSpace.BGR).pixels, bgr.pixels)
    back = bgr.to(kr.ColorSpace.YUV422).to(kr.ColorSpace.LUMA)
    assert abs(back.pixels.astype(int) - 126).max() <= 1
    assert np.array_equal(back.to(kr.ColorSpace.LUMA).pixels, back.pixels)


def test_a_conversion_keeps_the_other_properties() -> None:
    image = kr.Image.blank(4, 2, kr.ColorSpace.BGR)
    image.time_stamp, image.camera, image.angles = 2**40 + 1, 3, (0.5, 0.25, -0.5, -0.25)
    other = image.to(kr.ColorSpace.LUMA)
    assert (other.time_stamp, other.camera, other.angles) == (2**40 + 1, 3, (0.5, 0.25, -0.5, -0.25))


def test_other_color_spaces_are_not_converted() -> None:
    with pytest.raises(kr.Error, match="colour space 10 is not converted"):
        kr.Image.blank(4, 2, 10).to(kr.ColorSpace.BGR)
    with pytest.raises(kr.Error, match="colour space 12 is not converted"):
        kr.Image.blank(4, 2, kr.ColorSpace.BGR).to(12)


def test_a_copy_has_its_own_pixels() -> None:
    image = kr.Image(make_array(4, 6))
    copy = image.copy()
    assert np.array_equal(copy.pixels, image.pixels)
    assert not np.shares_memory(copy.pixels, image.pixels)


def test_an_image_survives_the_round_trip_through_a_file(tmp_path: Path) -> None:
    image = kr.Image(make_array(4, 6, 2))
    image.time_stamp, image.camera, image.angles = 1234567, 1, (0.5, 0.25, -0.5, -0.25)
    path = str(tmp_path / "image.oxi")
    image.write(path)
    read = kr.Image.read(path)
    assert np.array_equal(read.pixels, image.pixels)
    assert (read.color_space, read.time_stamp, read.camera, read.angles) == (9, 1234567, 1, (0.5, 0.25, -0.5, -0.25))


def test_a_picture_is_written_as_ppm(tmp_path: Path) -> None:
    image = kr.Image(make_array(2, 3, 3))
    path = tmp_path / "image.ppm"
    image.write(str(path))
    assert path.read_bytes() == b"P6\n3 2\n255\n" + image.pixels[:, :, ::-1].tobytes()


def test_a_file_that_is_not_an_image_is_an_error(tmp_path: Path) -> None:
    path = tmp_path / "image.oxi"
    path.write_bytes(b"1IXO")
    for file in (path, tmp_path / "absent.oxi"):
        with pytest.raises(kr.Error, match=file.name):
            kr.Image.read(str(file))
    with pytest.raises(kr.Error, match="selects the format: .oxi or .ppm"):
        kr.Image.blank(1, 1, 0).write(str(tmp_path / "image.png"))
    with pytest.raises(kr.Error, match="cannot be written"):
        kr.Image.blank(1, 1, 0).write(str(tmp_path / "absent" / "image.oxi"))


def test_names_and_sizes_match_the_library() -> None:
    sizes = {name: resolution.size for name, resolution in kr.Resolution.__members__.items()}
    assert sizes.pop("QVGA") == (320, 240)
    assert sizes.pop("VGA") == (640, 480)
    assert all(name == f"R{width}X{height}" for name, (width, height) in sizes.items())
    assert sorted(each.value for each in kr.Resolution) == list(range(18))


def test_annotations_survive_the_round_trip_and_are_drawn() -> None:
    image = kr.Image.blank(64, 48, kr.ColorSpace.BGR)
    image.time_stamp, image.camera = 5_000_001, 2
    seen = kr.Annotations.of(image)
    seen.boxes.append(kr.Box(0.25, 0.25, 0.5, 0.75, "person", 0.5, 7))
    seen.points.append((0.5, 0.5))
    seen.polylines.append(kr.Polyline([(0, 0), (1, 1)], closed=True))
    seen.texts.append(kr.Text(0.125, 0.5, "hello"))
    assert kr.Annotations.from_value(seen.value) == seen
    seen.draw(image)
    assert image.pixels.any()


@pytest.mark.parametrize("stamp", [-1, 0, 1, 999_999, 1_000_000, 1_700_000_000_123_456])
def test_annotations_keep_their_time(stamp: int) -> None:
    assert kr.Annotations.from_value(kr.Annotations(time_stamp=stamp).value).time_stamp == stamp


def test_invalid_annotations_are_an_error() -> None:
    with pytest.raises(kr.Error):
        _ = kr.Annotations(boxes=[kr.Box(0.5, 0, 0.25, 1)]).value
    with pytest.raises(kr.Error):
        kr.Annotations.from_value([1, 2])


def test_a_recording_survives_the_round_trip(tmp_path: Path) -> None:
    path = tmp_path / "film.oxv"
    images = [kr.Image(make_array(120, 160, 2)) for _ in range(3)]
    with kr.Video.record(path, [(160, 120, kr.ColorSpace.YUV422)]) as recording:
        for number, image in enumerate(images):
            image.time_stamp, image.angles = 1000 + number, (0.5, 0.25, -0.5, -0.25)
            recording.write(image)
        assert len(recording) == 3
    assert len(recording) == 3
    video = kr.Video(path)
    assert len(video) == 3
    assert video.streams == [(160, 120, kr.ColorSpace.YUV422)]
    for number, read in enumerate(video):
        assert read.time_stamp == 1000 + number
        assert np.array_equal(read.pixels[1:], images[number].pixels[1:])
    assert video[-1].time_stamp == 1002
    for frame in (3, -4):
        with pytest.raises(IndexError, match="does not exist; there are 3 frames"):
            video[frame]


def test_an_image_that_does_not_fit_a_recording_is_refused(tmp_path: Path) -> None:
    recording = kr.Video.record(tmp_path / "film.oxv", [(160, 120, 0)])
    with pytest.raises(kr.Error):
        recording.write(kr.Image.blank(80, 60, 0))
    with pytest.raises(kr.Error):
        recording.write()
    recording.write(kr.Image.blank(160, 120, 0))
    recording.close()
    with pytest.raises(kr.Error, match="the recording is closed"):
        recording.write(kr.Image.blank(160, 120, 0))
    assert len(kr.Video(tmp_path / "film.oxv")) == 1
    with pytest.raises(kr.Error, match="absent.oxv"):
        kr.Video(tmp_path / "absent.oxv")
