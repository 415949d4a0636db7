"""The Python side of python.cpp."""

import tempfile
import threading
import time
from pathlib import Path

import numpy as np

import krvision as kr

FILM_IMAGES = 300


class Hook(kr.VisionExtractor):
    """Measures; times are in seconds per image or call."""

    def __init__(self, broker: kr.Broker, name: str, color_space: kr.ColorSpace = kr.ColorSpace.YUV422) -> None:
        super().__init__(broker, name, resolution=kr.Resolution.VGA, color_space=color_space, fps=30)
        self.count = self.begin = self.end = 0
        self.done = threading.Event()

    def process_image(self, image: kr.Image) -> None:
        self.count += 1
        if self.count == self.begin:
            self.start = time.perf_counter()
        elif self.count == self.end:
            self.time = time.perf_counter() - self.start
            self.done.set()

    @kr.published
    def watch(self, images: int) -> float:
        self.done.clear()
        self.end = self.count + 10 + images
        self.begin = self.end - images
        self.done.wait()
        return self.time / images

    @kr.published
    def call(self, calls: int) -> float:
        adder = self.broker["Adder"]
        start = time.perf_counter()
        for number in range(calls):
            adder.addOne(number)
        return (time.perf_counter() - start) / calls

    @kr.published
    def pixels(self, width: int, height: int) -> float:
        array = np.zeros((height, width), np.uint8)
        images = [kr.Image(array) for _ in range(5000)]
        start = time.perf_counter()
        for image in images:
            image.pixels
        return (time.perf_counter() - start) / len(images)

    @kr.published
    def capture(self, images: int) -> float:
        import cv2

        film = cv2.VideoCapture(str(make_film()))
        count, start = 0, time.perf_counter()
        while count < images:
            good, picture = film.read()
            if not good:
                raise RuntimeError("the film has ended")
            count += 1
        return (time.perf_counter() - start) / images

    @kr.published
    def acquire(self, images: int) -> float:
        recording = make_film().with_suffix(".oxv")
        with kr.Broker("local:?clock=recording") as broker, kr.CameraService(broker, [f"oxv:{recording}?pace=fetch"]):
            with broker.create(Hook, "Film", kr.ColorSpace.BGR) as hook:
                hook.begin, hook.end = 10, 10 + images
                hook.subscribe("benchmark")
                hook.done.wait()
                return hook.time / images


def make_film() -> Path:
    """The same 640x480 pictures as an uncompressed film, in a format for each reader."""
    import cv2

    film = Path(tempfile.gettempdir()) / "krvision-benchmark.avi"
    if not film.with_suffix(".oxv").exists():
        pictures = np.random.default_rng(1).integers(0, 256, (8, 480, 640, 3), np.uint8)
        writer = cv2.VideoWriter(str(film), 0, 30, (640, 480))
        stream = (640, 480, kr.ColorSpace.BGR)
        with kr.Video.record(film.with_suffix(".oxv"), [stream]) as recording:
            for number in range(FILM_IMAGES):
                writer.write(pictures[number % 8])
                image = kr.Image(pictures[number % 8])
                image.time_stamp = 1_000_000 + number * 33_333
                recording.write(image)
        writer.release()
    return film
