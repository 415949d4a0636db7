"""Modules and extractors: derive from these."""

from __future__ import annotations

from typing import Any, Callable, Optional, Sequence, Union

from . import _krvision
from ._broker import Broker
from ._definitions import ColorSpace, Resolution
from ._lifetime import Closable
from ._publish import find_published, published

__all__ = ["Extractor", "Module", "VisionExtractor", "published"]


class Module(Closable):
    """A participant of the system: a name that others call, and its published methods.

    Derive, mark methods with ``published``, and create the module with ``Broker.create``: it is callable once its
    constructor has finished. It lives until it is closed: by ``with``, ``close()``, its broker's ``close()``, or when the
    interpreter exits. Published methods run on the threads of their callers and on call threads, many at once.

    Args:
        broker: the broker.
        name: of the module.

    Raises:
        Error: the name is empty or taken.
        TypeError: a published method whose signature cannot be published.
    """

    def __init__(self, broker: Broker, name: str) -> None:
        self._start(broker, name)

    def _start(self, broker: Broker, name: str, *settings: Any) -> None:
        publications = find_published(type(self))
        self._broker = broker
        self._setters: dict[str, Callable[[Any], object]] = {}
        self._body = self._make_body(name, *settings)
        broker._clients[self] = None
        for each in publications:
            self._body.publish(*each)

    def _make_body(self, name: str) -> _krvision.ModuleBody:
        return _krvision.make_module(self, self._broker._broker, name)

    @property
    def broker(self) -> Broker:
        """The module's broker."""
        return self._broker

    @property
    def name(self) -> str:
        """The module's name."""
        return self._body.name

    def make_reachable(self) -> None:
        """Lets others call the module; nothing more can be published. ``Broker.create`` calls this.

        Raises:
            Error: a parameter does not take its initial value.
        """
        self._body.make_reachable()

    def exit(self) -> None:
        """Asks the module to exit: new calls are refused. Returns at once, and may be called from anywhere.

        The module stays until it is closed.
        """
        self._body.exit()

    @property
    def exiting(self) -> bool:
        """Whether exit() or close() has been called."""
        return self._body.closed or self._body.exiting

    @property
    def failure(self) -> str:
        """The reason for the last reported failure; "" while the module works."""
        return self._body.failure

    def report_failure(self, reason: str) -> None:
        """Reports why the module has stopped working, for others to see; "" means that it works again."""
        self._body.report_failure(reason)

    def declare_parameter(
        self,
        name: str,
        description: str,
        default: Union[bool, int, float, str],
        setter: Callable[[Any], object],
        *,
        minimum: Union[None, int, float] = None,
        maximum: Union[None, int, float] = None,
        unit: str = "",
        choices: Sequence[str] = (),
    ) -> None:
        """Declares a parameter that can be changed while the module runs. For constructors.

        Args:
            name: letters, digits, "-" and "_".
            description: human-readable.
            default: the initial value, which determines the parameter's type.
            setter: called with each new value, in range and of the parameter's type, on the caller's thread. Raises
                ValueError to refuse the value.
            minimum: of an int or a float, which needs it.
            maximum: the same.
            unit: human-readable.
            choices: the texts that a str may be; any if there are none.

        Raises:
            Error: a malformed name, or one that is taken; an empty range; a default out of range; the module is reachable.
            TypeError: a default of another type; a range for a parameter that is not a number, or none for a number.
        """
        kind = {bool: "bool", int: "int", float: "float", str: "choice" if choices else "text"}.get(type(default))
        if kind is None:
            raise TypeError(f"the parameter {name} is a {type(default).__name__}; parameters are bool, int, float or str")
        if (kind in ("int", "float")) != (minimum is not None and maximum is not None):
            raise TypeError(f"the parameter {name} of type {kind}: ints and floats, and they alone, have minimum and maximum")
        if kind == "float":
            minimum, maximum = float(minimum or 0), float(maximum or 0)
        self._setters[name] = setter
        self._body.declare_parameter(name, kind, description, default, minimum, maximum, unit, list(choices))

    def _set_parameter(self, name: str, value: Any) -> None:
        self._setters[name](value)

    def close(self) -> None:
        """Shuts the module down: new calls are refused, its detection stops, running calls finish, its name becomes free.

        Called from one of the module's own hooks or methods, it returns at once, and the module is destroyed later. A
        module hosted by kr is asked to exit. May be called again. Operations of a closed module raise Error.
        """
        body = self.__dict__.get("_body")
        if body is not None:  # null if its constructor failed
            body.close()
            self._broker._clients.pop(self, None)

    def __repr__(self) -> str:
        body = self.__dict__.get("_body")
        state = " (not made)" if body is None else " (closed)" if body.closed else ""
        return f"<{type(self).__name__} {'' if body is None else body.name}{state}>"


class Extractor(Module):
    """A module that computes something while it has subscribers.

    The first subscriber starts the detection with the hook ``start_detection``, the last one to leave stops it. The
    smallest period and the largest precision of all apply. The constructor waits for a memory module.

    An exception of a hook reaches the client whose call runs the hook as an Error, as with C++; the traceback is logged.
    Hooks run on the threads of subscribing clients, and must not subscribe to or unsubscribe from their own extractor.

    Args:
        broker: the broker.
        name: of the module.
        default_period: milliseconds, for a first subscriber that gives no period.
        default_precision: the same for the precision.
        minimum_period: milliseconds; smaller periods are clamped.
        maximum_period: milliseconds; larger periods are clamped. None: no limit.
    """

    def __init__(
        self,
        broker: Broker,
        name: str,
        *,
        default_period: int = 30,
        default_precision: float = 0.0,
        minimum_period: int = 1,
        maximum_period: Optional[int] = None,
    ) -> None:
        broker.wait_for("KRMemory")
        maximum = -1 if maximum_period is None else maximum_period
        self._start(broker, name, default_period, default_precision, minimum_period, maximum)

    def _make_body(self, name: str, *settings: Any) -> _krvision.ModuleBody:
        return _krvision.make_extractor(self, self._broker._broker, name, *settings)

    def start_detection(self, period: int, precision: float) -> None:
        """Hook: the first subscriber has subscribed. Period in milliseconds."""

    def update_parameters(self, period: int, precision: float) -> None:
        """Hook: period or precision has changed. May overlap itself and other hooks."""

    def stop_detection(self) -> None:
        """Hook: the last subscriber has left, or the module is being closed."""

    def declare_event(self, event: str) -> None:
        """Declares an event that this extractor raises: its subscribers also subscribe to this extractor. For constructors."""
        self._body.declare_event(event)

    def declare_memory_key(self, key: str) -> None:
        """Declares a key that this extractor writes, and writes an empty list there. For constructors."""
        self._body.declare_memory_key(key)

    @property
    def events(self) -> list[str]:
        """Events declared, in order."""
        return self._body.events()

    @property
    def memory_keys(self) -> list[str]:
        """Memory keys declared, in order."""
        return self._body.memory_keys()

    def subscribe(self, client: str, period: Optional[int] = None, precision: float = 0.0) -> None:
        """Subscribes a client, or replaces its parameters.

        Args:
            client: name of the client.
            period: milliseconds; None: the current values, or the defaults.
            precision: what it means is up to the module; by convention from 0 to 1.

        Raises:
            Error: the module is shutting down; what a hook raises.
        """
        self._body.subscribe(client, period, precision)

    def unsubscribe(self, client: str) -> None:
        """Ends a subscription. The last one stops the detection.

        Raises:
            Error: there is no such subscriber.
        """
        self._body.unsubscribe(client)

    def update_period(self, client: str, period: int) -> None:
        """Changes the period of a subscriber, milliseconds."""
        self._body.update_period(client, period)

    def update_precision(self, client: str, precision: float) -> None:
        """Changes the precision of a subscriber."""
        self._body.update_precision(client, precision)

    @property
    def subscribers(self) -> list[tuple[str, int, float]]:
        """Name, period in milliseconds and precision of every subscriber, in order of the names."""
        return [(name, period, precision) for name, period, precision in self._body.subscribers()]

    @property
    def period(self) -> int:
        """Current period, milliseconds; -1 without subscribers."""
        return self._body.period()

    @property
    def precision(self) -> float:
        """Current precision; -1 without subscribers."""
        return self._body.precision()


class VisionExtractor(Extractor):
    """A module that processes camera images while it has subscribers.

    An acquisition thread fetches one image per period and calls ``process_image`` with it. Its exceptions are
    logged with a traceback, and the next image follows; the other hooks are those of an Extractor.

    The settings may be changed from everywhere but ``update_parameters``; ``process_image`` must not unsubscribe the last
    subscriber.

    Args:
        broker: the broker.
        name: of the module.
        resolution: one of those up to R1920X1080.
        color_space: of the images.
        fps: frame rate in images per second, 1 to 30; its period is the default one. Another value makes the module exit.
        camera: index of the camera at the camera service.
    """

    def __init__(
        self,
        broker: Broker,
        name: str,
        *,
        resolution: Resolution = Resolution.VGA,
        color_space: ColorSpace = ColorSpace.BGR,
        fps: int = 30,
        camera: int = 0,
    ) -> None:
        broker.wait_for("KRMemory")
        self._start(broker, name, int(resolution), int(color_space), fps, camera)

    def _make_body(self, name: str, *settings: Any) -> _krvision.ModuleBody:
        return _krvision.make_vision_extractor(self, self._broker._broker, name, *settings)

    def start_image_processing(self) -> None:
        """Hook: a detection starts, before the first image."""

    def process_image(self, image: _krvision.Image) -> None:
        """Hook: an image has arrived. On the acquisition thread; the image is yours."""
        raise NotImplementedError(f"{type(self).__name__} needs process_image(self, image)")

    def stop_image_processing(self) -> None:
        """Hook: the detection has ended, after the last image."""

    @property
    def resolution(self) -> Resolution:
        """Resolution of the images."""
        return Resolution(self._body.resolution())

    @property
    def color_space(self) -> ColorSpace:
        """Colour space of the images."""
        return ColorSpace(self._body.color_space())

    @property
    def camera(self) -> int:
        """Index of the camera."""
        return self._body.camera()

    @property
    def frame_rate(self) -> int:
        """The rate that the camera service reports, images per second; -1 without a camera subscription."""
        return self._body.frame_rate()

    @property
    def paused(self) -> bool:
        """Whether the acquisition is paused."""
        return self._body.paused()

    @property
    def processing(self) -> bool:
        """Whether an acquisition is running, paused or not."""
        return self._body.processing()

    def pause(self, paused: bool = True) -> None:
        """Pauses the acquisition before the next image, or resumes it. Without one, a warning is logged."""
        self._body.pause(paused)

    def set_resolution(self, resolution: Resolution) -> bool:
        """Changes the resolution, now or for the next subscription.

        Returns:
            False: the camera refuses; or there is no subscription, and it is not one of those up to R1920X1080.
        """
        return self._body.set_resolution(int(resolution))

    def set_color_space(self, color_space: ColorSpace) -> bool:
        """Changes the colour space of the camera subscription.

        Returns:
            False: not subscribed to a camera; the camera refuses.
        """
        return self._body.set_color_space(int(color_space))

    def set_camera(self, camera: int) -> bool:
        """Changes the camera, now or for the next subscription.

        Returns:
            False: the camera service refuses.
        """
        return self._body.set_camera(camera)

    def set_frame_rate(self, fps: int, client: Optional[str] = None) -> bool:
        """Sets the camera's frame rate and every subscriber's period, or that of one subscriber.

        Returns:
            False: not subscribed to a camera; no such subscriber; the camera refuses.
        """
        return self._body.set_frame_rate(fps, client)

    def set_subscription_parameters(self, parameters: Sequence[tuple[int, int]]) -> None:
        """Camera parameters (number of the V4L2 control, value) for now and every later subscription."""
        self._body.set_subscription_parameters(list(parameters))


