"""Finds people with OpenCV's HOG detector, and writes their boxes as annotations. Needs python3-opencv.

    kr serve --camera 0=file:/usr/share/doc/opencv-doc/examples/data/vtest.avi --run people.py --subscribe People
    kr memory watch People/

The film of pedestrians comes from the package opencv-doc. Run as a program without a system, this plays a
film itself and shows what it finds:

    python3 people.py /usr/share/doc/opencv-doc/examples/data/vtest.avi
"""

import sys
from typing import Any

import cv2

import krvision as kr


class PeopleExtractor(kr.VisionExtractor):
    """Finds upright people; the precision is the share of scales that are searched."""

    def __init__(self, broker: kr.Broker, name: str) -> None:
        super().__init__(broker, name, resolution=kr.Resolution.VGA, color_space=kr.ColorSpace.BGR, fps=10)
        self.memory = kr.Memory(broker)
        self.threshold = 0.3
        self.declare_event(f"{name}/Seen")
        self.declare_memory_key(f"{name}/Annotations")
        self.declare_parameter(
            "threshold", "Lowest confidence that counts.", 0.3, self.set_threshold, minimum=0.0, maximum=2.0
        )
        self.detector = cv2.HOGDescriptor()
        self.detector.setSVMDetector(cv2.HOGDescriptor_getDefaultPeopleDetector())

    def set_threshold(self, threshold: float) -> None:
        self.threshold = threshold

    def process_image(self, image: kr.Image) -> None:
        boxes, weights = self.detector.detectMultiScale(image.pixels, winStride=(8, 8), scale=1.1)
        seen = kr.Annotations.of(image)
        for (x, y, width, height), weight in zip(boxes, weights):
            if weight >= self.threshold:
                seen.boxes.append(
                    kr.Box(
                        x / image.width,
                        y / image.height,
                        (x + width) / image.width,
                        (y + height) / image.height,
                        "person",
                        min(1.0, float(weight)),
                    )
                )
        self.memory[f"{self.name}/Annotations"] = seen.value
        if seen.boxes:
            self.memory.raise_event(f"{self.name}/Seen", len(seen.boxes))


def show(event: str, value: Any) -> None:
    print(f"{event}: {value}", flush=True)


if __name__ == "__main__":
    film = sys.argv[1] if len(sys.argv) > 1 else "/usr/share/doc/opencv-doc/examples/data/vtest.avi"
    with kr.Broker() as broker, kr.CameraService(broker, [f"file:{film}"]):
        broker.create(PeopleExtractor, "People")
        kr.Memory(broker).on("People/Seen", show)  # subscribes to People, too
        kr.wait()
