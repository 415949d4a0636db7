"""The description of a published method: from its signature, its annotations and its docstring."""

from __future__ import annotations

import collections.abc
import inspect
import re
import typing
from typing import Any, Callable, NamedTuple, Optional, TypeVar, Union

from ._definitions import Value

F = TypeVar("F", bound=Callable[..., Any])

_MARK = "__krvision_name__"
_TYPES = {bool: "bool", int: "int", float: "float", str: "string", bytes: "binary", memoryview: "binary",
          bytearray: "binary", list: "array", tuple: "array", None: "void", type(None): "void"}  # fmt: skip


class Publication(NamedTuple):
    name: str
    attribute: str
    class_name: str
    description: str
    parameters: list[tuple[str, str, str]]  # name, type, description
    result: tuple[str, str, str]


@typing.overload
def published(function: F) -> F: ...
@typing.overload
def published(*, name: str) -> Callable[[F], F]: ...


def published(function: Optional[F] = None, *, name: Optional[str] = None) -> Union[F, Callable[[F], F]]:
    """Publishes a method of a Module: modules of all processes and languages can call it.

    Names and types come from the signature, which needs annotations: bool, int, float, str, bytes, list (also
    ``list[int]``, whose elements are not checked), or Value for any. Without an annotation there is no result.
    Descriptions come from the docstring: its first paragraph, and lines ``name: text`` under ``Args:`` and ``Returns:``,
    or ``:param name: text`` and ``:return: text``.

    A method gets arguments of these types: an int passed for a bool or a float is converted. Error passes to the caller
    unchanged; for another exception the caller gets an Error, and the traceback is logged.

    Args:
        name: to publish it under (default: the method's). Methods of different parameters may share one: overloads, of
            which a call chooses by the number and types of its arguments.

    Raises:
        TypeError: (when a module is created) a parameter without an annotation, with one that is not a type of values, or with
            a default; ``*args``, ``**kwargs``.
    """

    def mark(method: F) -> F:
        setattr(method, _MARK, name or method.__name__)
        return method

    return mark if function is None else mark(function)


def find_published(cls: type) -> list[Publication]:
    """The published methods of a class and its bases, in the order of their definition."""
    found: dict[str, Publication] = {}
    for base in reversed(cls.__mro__):
        for attribute, function in vars(base).items():
            if callable(function) and hasattr(function, _MARK):
                found[attribute] = describe(base, attribute, function)
            else:
                found.pop(attribute, None)  # a derived class hides it
    return list(found.values())


def describe(owner: type, attribute: str, function: Callable[..., Any]) -> Publication:
    where = f"{owner.__name__}.{attribute}"
    try:
        hints = typing.get_type_hints(function, None, {owner.__name__: owner})
    except NameError as error:
        raise TypeError(f"{where}: its annotations cannot be read: {error}") from error
    summary, texts, result_name, result_text = parse_docstring(inspect.getdoc(function) or "")
    parameters = []
    for parameter in list(inspect.signature(function).parameters.values())[1:]:
        place = f"{where}: the parameter {parameter.name}"
        if parameter.kind not in (parameter.POSITIONAL_ONLY, parameter.POSITIONAL_OR_KEYWORD):
            raise TypeError(f"{place} is not positional; a published method has positional parameters only")
        if parameter.default is not parameter.empty:
            raise TypeError(f"{place} has a default; publish an overload without it instead")
        if parameter.name not in hints:
            raise TypeError(f"{place} has no annotation; one of bool, int, float, str, bytes, list and Value is needed")
        kind = to_type(hints[parameter.name], place)
        parameters.append((parameter.name, kind, texts.get(parameter.name, "")))
    kind = to_type(hints.get("return"), f"{where}: the result")
    result = ("", "void", "") if kind == "void" else (result_name or "result", kind, result_text)
    name: str = getattr(function, _MARK)
    return Publication(name, attribute, owner.__name__, summary, parameters, result)


def to_type(annotation: Any, place: str) -> str:
    origin = typing.get_origin(annotation)
    if origin in (list, tuple, collections.abc.Sequence):
        return "array"
    if annotation is Any or annotation is object or annotation == Value:
        return "value"
    try:
        return _TYPES[annotation]
    except (KeyError, TypeError):
        raise TypeError(
            f"{place} is of {annotation!r}, which is not a type of values; types are bool, int, float, str, bytes, list and Value"
        ) from None


def parse_docstring(text: str) -> tuple[str, dict[str, str], str, str]:
    """First paragraph, descriptions of parameters, and name and description of the result."""
    paragraph = re.split(r"\n\s*\n|\n(?=\s*(?:Args|Arguments|Parameters|Returns|Raises):|:)", text.strip(), maxsplit=1)[0]
    texts: dict[str, str] = {}
    result_name, result_text = "", ""
    section, last, indent = "", "", 0
    for line in text.splitlines():
        stripped = line.strip()
        heading = re.fullmatch(r"(\w+):", stripped)
        field = re.match(r":(?:param(?:\s+\w+)?\s+(\w+)|(returns?)):\s*(.*)", stripped)
        entry = re.match(r"\*{0,2}(\w+)(?:\s*\([^)]*\))?:\s+(.*)", stripped)
        depth = len(line) - len(line.lstrip())
        if field:
            section = ""
            if field[2]:
                result_text = field[3]
            else:
                texts[field[1]] = field[3]
        elif heading and depth == 0:
            section, last, indent = heading[1], "", 0
        elif section in ("Args", "Arguments", "Parameters") and stripped:
            if entry and (last == "" or depth <= indent):
                last, indent = entry[1], depth
                texts[last] = entry[2]
            elif last:
                texts[last] += " " + stripped
        elif section in ("Returns", "Return") and stripped:
            if entry and not result_text:
                result_name, result_text = entry[1], entry[2]
            else:
                result_text = f"{result_text} {stripped}".strip()
    return " ".join(paragraph.split()), texts, result_name, result_text
