"""The memory module: data by key, and events."""

from __future__ import annotations

import itertools
import os
import socket
from typing import Any, Callable, Iterator, Mapping, MutableMapping

from . import _krvision
from ._broker import Broker
from ._definitions import Value
from ._errors import Error
from ._modules import Module, published

_numbers = itertools.count(1)


class Event(Module):
    """A subscription to an event, active until closed. Created by Memory.on()."""

    def __init__(self, broker: Broker, name: str, memory: _krvision.Memory, callback: Callable[[str, Any], object]) -> None:
        super().__init__(broker, name)
        self._memory = memory
        self._callback = callback
        self._event = ""

    @published(name="onEvent")
    def _on_event(self, event: str, value: Value) -> None:
        """Passes an event on.

        Args:
            event: Name of the event.
            value: What it was raised with.
        """
        self._callback(event, value)

    def _subscribe(self, event: str) -> None:
        self._memory.subscribe(event, self.name, "onEvent")
        self._event = event

    def close(self) -> None:
        """Ends the subscription. Waits for a running callback, unless called from within it."""
        if self._event:
            event, self._event = self._event, ""
            try:
                self._memory.unsubscribe(event, self.name)
            except Error:
                pass  # the memory is away, or the broker is closed: the subscription ends with the module
        super().close()


class Memory(MutableMapping[str, Any]):
    """The memory of a domain: values by key, written and read by all modules, and events.

    A mapping: ``memory["Brightness"] = 0.5``. Iterating and ``len()`` ask the memory module each time. Without a memory
    module operations raise Error, except for writes once there has been one: those are kept and delivered later.

    Thread-safe.

    Raises:
        TypeError, OverflowError: a value that is not a Value, or a number that does not fit 32 bits.
    """

    def __init__(self, broker: Broker) -> None:
        self._broker = broker
        self._memory = _krvision.Memory(broker._broker)

    def __getitem__(self, key: str) -> Any:
        try:
            return self._memory.get(key)
        except Error:
            if key in self:
                raise
            raise KeyError(key) from None

    def __setitem__(self, key: str, value: Value) -> None:
        self._memory.insert(key, value)

    def __delitem__(self, key: str) -> None:
        try:
            self._memory.remove(key)
        except Error:
            if key in self:
                raise
            raise KeyError(key) from None

    def __contains__(self, key: object) -> bool:
        return isinstance(key, str) and key in self._memory.keys(key)

    def __iter__(self) -> Iterator[str]:
        return iter(self._memory.keys(""))

    def __len__(self) -> int:
        return len(self._memory.keys(""))

    def find(self, prefix: str = "") -> dict[str, Any]:
        """Keys that begin with the prefix, and their values, in one call."""
        return dict(self._memory.items(prefix))

    def insert_all(self, data: Mapping[str, Value]) -> None:
        """Writes values under several keys in one call, all or none."""
        self._memory.insert_all(dict(data))

    def timestamp(self, key: str) -> int:
        """When the key was last written, microseconds since the Unix epoch.

        Raises:
            KeyError: there is no such key.
        """
        try:
            return self._memory.timestamp(key)
        except Error:
            if key in self:
                raise
            raise KeyError(key) from None

    def declare_event(self, event: str) -> None:
        """Declares an event that no extractor raises."""
        self._memory.declare_event(event)

    def raise_event(self, event: str, value: Value = None) -> None:
        """Stores the value under the event's name and calls all its subscribers, without waiting for them."""
        self._memory.raise_event(event, value)

    def events(self) -> list[str]:
        """Names of the events that were declared, raised or subscribed to, in order."""
        return self._memory.events()

    def on(self, event: str, callback: Callable[[str, Any], object]) -> Event:
        """Calls ``callback(event, value)`` whenever the event is raised, one call at a time, on a call thread.

        While subscribed, the extractor that declared the event runs; it may start later. Exceptions of the callback are
        logged.

        Returns:
            The subscription. Close it to end it; otherwise it ends with the broker.

        Raises:
            Error: there is no memory; the extractor refuses the subscription.
        """
        if not callable(callback):
            raise TypeError(f"{callback!r} cannot be called")
        name = f"python-{socket.gethostname()}-{os.getpid()}-{next(_numbers)}"
        subscription = self._broker.create(Event, name, self._memory, callback)
        try:
            subscription._subscribe(event)
        except BaseException:
            subscription.close()
            raise
        return subscription

    def __repr__(self) -> str:
        return f"<krvision.Memory of {self._broker!r}>"
