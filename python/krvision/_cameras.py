"""The camera service: images, settings and state of its cameras; and the service itself."""

from __future__ import annotations

from typing import Iterator, NamedTuple, Optional, Sequence

from . import _krvision
from ._broker import Broker
from ._definitions import ColorSpace, Resolution
from ._lifetime import Closable


class CameraInfo(NamedTuple):
    """One camera of the service."""

    camera: int
    #: as configured: "v4l2:/dev/video0"
    source: str
    model: int
    #: "closed": no subscribers; "opening": no image yet; "open"; "failed": it is being opened again
    state: str
    #: why it failed; "" otherwise
    failure: str
    #: pixels, of the newest image as the camera delivers it; 0 before the first one
    width: int
    height: int
    subscribers: int


class CameraControl(NamedTuple):
    """A setting of a camera's picture."""

    #: number of the V4L2 control of the same meaning
    id: int
    name: str
    minimum: int
    maximum: int
    step: int
    default: int
    value: int


class CameraSubscriber(NamedTuple):
    """A subscription, of any process."""

    id: str
    camera: int
    resolution: int
    color_space: int
    #: images per second
    frame_rate: int


class Durations(NamedTuple):
    """Distribution of a duration, milliseconds; 0 without a measurement."""

    median_ms: float
    #: 99th percentile
    p99_ms: float
    max_ms: float


class CameraStatistics(NamedTuple):
    """What a subscription has received since it started."""

    id: str
    camera: int
    #: images fetched
    delivered: int
    #: images of the camera that were not fetched
    missed: int
    #: from capture to delivery
    age: Durations
    #: from delivery to delivery
    interval: Durations
    #: from delivery to release
    hold: Durations


class CameraSubscription(Closable):
    """A subscription to a camera. Made by Cameras.subscribe().

    An iterable of images, without an end: ``for image in subscription:``. It survives restarts of the service. Close it,
    preferably with ``with``. Thread-safe.
    """

    def __init__(self, cameras: _krvision.Cameras, id: str) -> None:
        self._cameras = cameras
        self._id: Optional[str] = id

    @property
    def id(self) -> str:
        """The identifier at the service."""
        if self._id is None:
            raise ValueError("the subscription is closed")
        return self._id

    def image(self) -> _krvision.Image:
        """The newest image that has not been fetched yet. Waits a bounded time for it.

        Raises:
            Error: no image in time; the camera has failed.
        """
        return self._cameras.fetch(self.id)

    def __iter__(self) -> Iterator[_krvision.Image]:
        while self._id is not None:
            yield self.image()

    @property
    def frame_rate(self) -> int:
        """Images per second."""
        return self._cameras.frame_rate(self.id)

    def set_frame_rate(self, fps: int) -> bool:
        """Changes the rate, images per second. False: the camera refuses."""
        return self._cameras.set(self.id, "frame_rate", fps)

    def set_resolution(self, resolution: Resolution) -> bool:
        """Changes the resolution. False: the camera refuses."""
        return self._cameras.set(self.id, "resolution", int(resolution))

    def set_color_space(self, color_space: ColorSpace) -> bool:
        """Changes the colour space. False: the camera refuses."""
        return self._cameras.set(self.id, "color_space", int(color_space))

    def set_camera(self, camera: int) -> bool:
        """Moves to another camera. False: it does not exist."""
        return self._cameras.set(self.id, "camera", camera)

    def set_parameter(self, parameter: int, value: int) -> bool:
        """Changes the camera's picture, for all its subscribers: ``parameter`` is the ``id`` of a control.

        Raises:
            Error: the camera does not have it, or cannot be reached.
        """
        return self._cameras.set_parameter(self.id, parameter, value)

    def reset_parameters(self) -> None:
        """Sets all controls of the camera to their defaults."""
        self._cameras.reset_parameters(self.id)

    def close(self) -> None:
        """Ends the subscription. May be called again."""
        id, self._id = self._id, None
        if id is not None:
            self._cameras.unsubscribe(id)


class Cameras:
    """The camera service of a domain, in any process. Thread-safe.

    Operations raise Error if there is no service, or if the service refuses.
    """

    def __init__(self, broker: Broker) -> None:
        self._cameras = _krvision.Cameras(broker._broker)

    def subscribe(
        self,
        name: str,
        camera: int = 0,
        resolution: Resolution = Resolution.VGA,
        color_space: ColorSpace = ColorSpace.BGR,
        fps: int = 30,
    ) -> CameraSubscription:
        """Subscribes to a camera; the first subscriber opens it. Waits up to 10 s for a service.

        Args:
            name: of the client; the service makes an identifier of it.
            camera: index.
            resolution: of the images.
            color_space: of the images.
            fps: images per second, 1 to 30.

        Raises:
            Error: no service in time; it refuses, for example because the camera cannot be opened.
        """
        id = self._cameras.subscribe(name, camera, int(resolution), int(color_space), fps)
        return CameraSubscription(self._cameras, id)

    def cameras(self) -> list[CameraInfo]:
        """All cameras, in the order of their indices."""
        return [CameraInfo(*each) for each in self._cameras.cameras()]

    def controls(self, camera: int) -> list[CameraControl]:
        """The controls of a camera's picture, with their values."""
        return [CameraControl(*each) for each in self._cameras.controls(camera)]

    def subscribers(self) -> list[CameraSubscriber]:
        """All subscriptions, the oldest first."""
        return [CameraSubscriber(*each) for each in self._cameras.subscribers()]

    def statistics(self) -> list[CameraStatistics]:
        """Statistics of all subscriptions, the oldest first."""
        return [
            CameraStatistics(id, camera, delivered, missed, Durations(*rest[:3]), Durations(*rest[3:6]), Durations(*rest[6:9]))
            for id, camera, delivered, missed, *rest in self._cameras.statistics()
        ]


class CameraService(Closable):
    """The camera service, in this process: for a broker without one.

    It lives until it is closed, or its broker is.

    Args:
        broker: the broker.
        sources: one per camera, in the order of their indices: "test", "test:ball", "file:PATH", "image:PATH",
            "v4l2:DEVICE", "oxv:PATH", an http, https or rtsp address, "gst:PIPELINE".

    Raises:
        Error: an invalid source; there is a camera service already; krvision was built without cameras.
    """

    def __init__(self, broker: Broker, sources: Sequence[str] = ("test",)) -> None:
        self._broker = broker
        self._service = _krvision.CameraService(broker._broker, "KRVideoDevice", list(sources))
        broker._clients[self] = None

    @property
    def name(self) -> str:
        """The module's name."""
        return "KRVideoDevice"

    def close(self) -> None:
        """Closes the cameras; images that were delivered stay valid. May be called again."""
        self._service.close()
        self._broker._clients.pop(self, None)
