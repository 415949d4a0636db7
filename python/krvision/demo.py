"""python -m krvision.demo: a whole system in this process for a few seconds.

A broker with its memory, a camera service with a moving ball, a vision extractor in Python that follows the ball, and a
client that subscribes to its event, changes its settings and closes everything.
"""

from __future__ import annotations

import argparse
import os
import sys
from typing import Any

import numpy as np

import krvision as kr


class Ball(kr.VisionExtractor):
    """Finds the centre of the bright pixels."""

    def __init__(self, broker: kr.Broker, name: str) -> None:
        super().__init__(broker, name, resolution=kr.Resolution.QVGA, color_space=kr.ColorSpace.LUMA, fps=15)
        self.memory = kr.Memory(broker)
        self.threshold = 128
        self.images = 0
        self.declare_event(f"{name}/Seen")
        self.declare_memory_key(f"{name}/Annotations")
        self.declare_parameter(
            "threshold", "Brightness of a ball.", self.threshold, self.set_threshold, minimum=1, maximum=255
        )

    def set_threshold(self, threshold: int) -> None:
        """Setter of the parameter."""
        self.threshold = threshold

    @kr.published
    def count(self) -> int:
        """Counts the images so far.

        Returns:
            images: how many were processed.
        """
        return self.images

    def process_image(self, image: kr.Image) -> None:
        """Finds the ball."""
        self.images += 1
        seen = kr.Annotations.of(image)
        rows, columns = np.nonzero(image.pixels >= self.threshold)
        if rows.size > 0:
            x, y = float(columns.mean()) / image.width, float(rows.mean()) / image.height
            seen.points.append((x, y))
            self.memory.raise_event(f"{self.name}/Seen", [x, y])
        self.memory[f"{self.name}/Annotations"] = seen.value


def main() -> None:
    """Runs the demonstration."""
    try:
        run()
        sys.stdout.flush()
    except BrokenPipeError:  # the reader of the output has closed it
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # otherwise the flush at exit fails
        sys.exit(1)


def run() -> None:
    parser = argparse.ArgumentParser(prog="python -m krvision.demo", description="Follow a ball in a test picture.")
    parser.add_argument("--seconds", type=float, default=5.0, help="duration (default 5)")
    parser.add_argument("--camera", default="test:ball", help="source of the camera (default test:ball)")
    options = parser.parse_args()

    def show(event: str, value: Any) -> None:
        x, y = value
        try:
            print(f"the ball is at {x:.2f}, {y:.2f}", flush=True)
        except BrokenPipeError:
            pass  # the main thread's next print ends the program

    with kr.Broker() as broker, kr.CameraService(broker, [options.camera]):
        broker.create(Ball, "Ball")
        print("modules:", *broker.modules())
        print(broker["Ball"].method_help("count"), end="")
        subscription = kr.Memory(broker).on("Ball/Seen", show)
        interrupted = kr.wait(options.seconds / 2)
        if not interrupted:
            subscription.close()
            print("now at 640x480, every 200 ms:", broker["Ball"].setResolution(int(kr.Resolution.VGA)), flush=True)
            broker["Ball"].subscribe("demo", 200, 1.0)
            kr.wait(options.seconds / 2)
        print("images:", broker["Ball"].count())


if __name__ == "__main__":
    main()
