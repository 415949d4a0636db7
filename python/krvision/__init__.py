"""KRVision in Python: modules, extractors, images, memory, events and cameras of a robot's perception.

    import krvision as kr

    class Brightness(kr.VisionExtractor):
        def __init__(self, broker, name):
            super().__init__(broker, name, resolution=kr.Resolution.VGA, color_space=kr.ColorSpace.LUMA, fps=30)
            self.memory = kr.Memory(broker)
            self.declare_memory_key("Brightness")

        def process_image(self, image):
            self.memory["Brightness"] = float(image.pixels.mean())

    with kr.Broker("dds:") as broker, broker.create(Brightness, "Brightness"):
        kr.wait()  # until Ctrl-C
"""

from ._annotations import Annotations, Box, Polyline, Text
from ._broker import Broker, Method, Parameter, Proxy, RemoteMethod
from ._cameras import (
    CameraControl,
    CameraInfo,
    Cameras,
    CameraService,
    CameraStatistics,
    CameraSubscriber,
    CameraSubscription,
    Durations,
)
from ._definitions import ColorSpace, Resolution, Value
from ._errors import Error
from ._krvision import Image, Roi
from ._lifetime import wait
from ._log import flush_log, get_log_levels, log, set_log_levels
from ._memory import Event, Memory
from ._modules import Extractor, Module, VisionExtractor
from ._publish import published
from ._video import Recording, Stream, Video

__all__ = [
    "Annotations",
    "Box",
    "Broker",
    "CameraControl",
    "CameraInfo",
    "CameraService",
    "CameraStatistics",
    "CameraSubscriber",
    "CameraSubscription",
    "Cameras",
    "ColorSpace",
    "Durations",
    "Error",
    "Event",
    "Extractor",
    "Image",
    "Memory",
    "Method",
    "Module",
    "Parameter",
    "Polyline",
    "Proxy",
    "Recording",
    "RemoteMethod",
    "Resolution",
    "Roi",
    "Stream",
    "Text",
    "Value",
    "Video",
    "VisionExtractor",
    "flush_log",
    "get_log_levels",
    "log",
    "published",
    "set_log_levels",
    "wait",
]
