"""Brokers, and calls of modules by name."""

from __future__ import annotations

import sys
import time
from typing import TYPE_CHECKING, Any, NamedTuple, Optional, Type, TypeVar

from . import _krvision, _lifetime
from ._definitions import Value
from ._errors import Error

if TYPE_CHECKING:
    from ._modules import Module

M = TypeVar("M", bound="Module")

_STEP_S = 0.1  # of waiting, between checks for signals
_MAX_PROXIES = 256  # cached by a broker


class Parameter(NamedTuple):
    """A parameter of a published method, or its result."""

    name: str
    #: "bool", "int", "float", "string", "binary", "array" or "value"; "void" for no result
    type: str
    description: str


class Method(NamedTuple):
    """A method that a module publishes."""

    name: str
    #: "subscribe(string name, int period, float precision)"
    signature: str
    description: str
    parameters: list[Parameter]
    result: Parameter


class RemoteMethod:
    """A callable method of a module, as returned by ``broker["Motion"].subscribe``."""

    __slots__ = ("_proxy", "_name")

    def __init__(self, proxy: _krvision.Proxy, name: str) -> None:
        self._proxy = proxy
        self._name = name

    def __call__(self, *arguments: Value) -> Any:
        return self._proxy.call(self._name, *arguments)

    def __repr__(self) -> str:
        return f"<method {self._name} of the module {self._proxy.module}>"


class _ProxyDoc:
    """The docstring of the class Proxy; for a proxy, the methods of its module. Shown by help()."""

    TEXT = """Calls the methods of a module by name, in any process and language.

    A proxy names a module: it finds it at each call. ``proxy.subscribe("me", 100, 1.0)`` calls the published method
    ``subscribe``; a method whose name clashes with this class, or begins with an underscore, is called with
    ``proxy.call("name", ...)``. A call returns the method's result, or raises its Error. A call to another process waits
    as long as that process lives.

    Thread-safe.
    """

    def __get__(self, proxy: Optional[Proxy], owner: Optional[Type[Proxy]] = None) -> str:
        return self.TEXT if proxy is None else proxy._describe()


class Proxy:
    __doc__ = _ProxyDoc()  # type: ignore[assignment]

    def __init__(self, broker: Broker, module: str) -> None:
        self._proxy = _krvision.Proxy(broker._broker, module)

    def __getattr__(self, name: str) -> RemoteMethod:
        if name.startswith("_"):
            raise AttributeError(f"{name}: call methods that begin with an underscore with call({name!r}, ...)")
        method = RemoteMethod(self._proxy, name)
        self.__dict__[name] = method  # for the next call
        return method

    @property
    def module(self) -> str:
        """Name of the module."""
        return self._proxy.module

    def call(self, method: str, *arguments: Value) -> Any:
        """Calls a published method and returns its result."""
        return self._proxy.call(method, *arguments)

    def post(self, method: str, *arguments: Value) -> None:
        """Calls a published method on a call thread and returns at once. A failure is logged."""
        self._proxy.post(method, *arguments)

    def methods(self) -> list[Method]:
        """The published methods, in the order of publication."""
        return [
            Method(name, signature, description, [Parameter(*each) for each in parameters], Parameter(*result))
            for name, signature, description, parameters, result in self._proxy.methods()
        ]

    def method_help(self, method: str) -> str:
        """Help text for the methods of this name, with parameters and result."""
        return self._proxy.method_help(method)

    def failure(self) -> str:
        """The reason for the last reported failure; "" while the module works."""
        return self._proxy.failure()

    def _describe(self) -> str:
        try:
            names = list(dict.fromkeys(method.name for method in self.methods() if method.name[:1] != "_"))
            texts = [self.method_help(name).rstrip() for name in names]
        except Error as error:
            return f"The module {self.module} cannot be queried: {error}"
        return f"The module {self.module} publishes:\n\n" + "\n\n".join(texts)

    def __dir__(self) -> list[str]:
        try:
            published = {method.name for method in self.methods()}
        except Error:
            published = set()
        return sorted(published.union(dir(type(self))))

    def __repr__(self) -> str:
        return f"<krvision.Proxy of the module {self.module}>"


class Broker(_lifetime.Closable):
    """Holds modules by name, and reaches those of other processes.

    Close it, preferably with ``with``: that closes its modules, the last one first, and leaves the domain. A broker that is never
    closed is closed when the interpreter exits. Proxies, memories and cameras of a closed broker raise Error.

    Thread-safe.

    Args:
        url: ``"local:"`` for the modules of this process, with a memory; ``"dds:"`` for those of all processes of a DDS
            domain, ``"dds:?domain=3&memory=here"`` for instance.

    Raises:
        Error: an invalid address; a domain that cannot be joined as requested.
    """

    def __init__(self, url: str = "local:") -> None:
        self._open(_krvision.Broker(url), url)

    @classmethod
    def _adopt(cls, capsule: object) -> Broker:
        broker = cls.__new__(cls)
        broker._open(_krvision.Broker.adopt(capsule), "")
        return broker

    def _open(self, broker: _krvision.Broker, url: str) -> None:
        self._broker = broker
        self._url = url
        self._clients: dict[_lifetime.Closable, None] = {}  # in order of creation
        self._proxies: dict[str, Proxy] = {}
        _lifetime.add(self)

    def create(self, cls: Type[M], name: str, *arguments: Any, **keywords: Any) -> M:
        """Creates a module of a class under a name, callable by others from then on.

        The module lives until it is closed: by its ``with`` or ``close()``, by the broker's, or when the interpreter
        exits.

        Args:
            cls: the class; it is called with the broker, the name and the rest of the arguments.
            name: of the module.

        Raises:
            Error: the name is empty or taken.
        """
        module = cls.__new__(cls, self, name, *arguments, **keywords)  # type: ignore[call-arg]
        try:
            module.__init__(self, name, *arguments, **keywords)  # type: ignore[misc]
            module.make_reachable()
        except BaseException:
            module.close()  # now, although the traceback holds it: its name is free
            raise
        return module

    def __getitem__(self, module: str) -> Proxy:
        """A proxy of the module of this name, which need not exist yet."""
        try:
            return self._proxies[module]
        except KeyError:
            proxy = Proxy(self, module)
        if len(self._proxies) >= _MAX_PROXIES:
            self._proxies.clear()
        self._proxies[module] = proxy
        return proxy

    def modules(self) -> list[str]:
        """Names of the callable modules, including those of other processes, in order."""
        return self._broker.modules()

    def wait_for(self, module: str, timeout: Optional[float] = None) -> bool:
        """Waits until a module of this name can be called.

        Args:
            timeout: seconds; None: no limit.

        Returns:
            Whether it can.
        """
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            left = _STEP_S if deadline is None else min(_STEP_S, deadline - time.monotonic())
            if self._broker.wait_for(module, max(0.0, left)):
                return True
            if deadline is not None and time.monotonic() >= deadline:
                return False

    def time_usec(self) -> int:
        """The time of this broker's clock, microseconds since the Unix epoch; on a recording, that of its images."""
        return self._broker.time_usec()

    def sleep(self, seconds: float) -> None:
        """Sleeps by this broker's clock."""
        left_ms, step_ms = round(seconds * 1000), round(_STEP_S * 1000)
        while left_ms > 0:
            self._broker.sleep_ms(min(left_ms, step_ms))
            left_ms -= step_ms

    @property
    def url(self) -> str:
        """The address."""
        return self._url

    @property
    def closed(self) -> bool:
        """Whether close() has been called."""
        return self._broker.closed

    def close(self) -> None:
        """Closes the broker's modules, the last one first, and the broker. May be called again."""
        while self._clients:
            client, _ = self._clients.popitem()
            client.close()
        self._proxies.clear()
        self._broker.close()
        _lifetime.remove(self)

    def __repr__(self) -> str:
        return f"<krvision.Broker {self._url or 'of the program'}{' (closed)' if self.closed else ''}>"


assert sys.version_info >= (3, 9)
