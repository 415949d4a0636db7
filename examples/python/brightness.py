"""A vision extractor in a few lines: writes the mean brightness of the picture to the memory.

    kr serve --camera 0=test --run brightness.py --subscribe Brightness
    kr memory watch Brightness

or as a separate program, with `kr serve` running:

    python3 brightness.py
"""

import krvision as kr


class Brightness(kr.VisionExtractor):
    """Writes the mean of all pixels, 0 to 255, under its own name."""

    def __init__(self, broker: kr.Broker, name: str) -> None:
        super().__init__(broker, name, resolution=kr.Resolution.VGA, color_space=kr.ColorSpace.LUMA, fps=30)
        self.memory = kr.Memory(broker)
        self.declare_memory_key(name)

    def process_image(self, image: kr.Image) -> None:
        self.memory[self.name] = float(image.pixels.mean())


if __name__ == "__main__":
    with kr.Broker("dds:") as broker, broker.create(Brightness, "Brightness"):
        kr.wait()  # until Ctrl-C
