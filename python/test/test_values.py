"""Values between Python and modules."""

from __future__ import annotations

import math
from typing import Any

import numpy as np
import pytest

import krvision as kr


@pytest.fixture
def memory(broker: kr.Broker) -> kr.Memory:
    return kr.Memory(broker)


@pytest.mark.parametrize(
    "value",
    [None, 0, 2147483647, -2147483648, 0.5, -0.25, "", "text", "größer 🤖", "a\0b", b"", b"\0\xff", [], [1, [2.5, "x", None], b"y"]],
)
def test_a_value_survives_the_round_trip(memory: kr.Memory, value: Any) -> None:
    memory["value"] = value
    assert memory["value"] == value
    assert type(memory["value"]) is type(value)


@pytest.mark.parametrize(
    "given, read",
    [
        (True, 1),
        (False, 0),
        ((1, 2), [1, 2]),
        (bytearray(b"ab"), b"ab"),
        (memoryview(b"abcd")[::2], b"ac"),
        (memoryview(np.array([1, 2], np.uint16)), b"\1\0\2\0"),
        (np.float32(0.5), 0.5),
        (np.float64(0.5), 0.5),
        (np.int64(7), 7),
        (np.uint8(255), 255),
        (np.bool_(True), 1),
        (kr.Resolution.VGA, 2),
        ("\udcff", "\udcff"),
    ],
)
def test_other_forms_are_accepted(memory: kr.Memory, given: Any, read: Any) -> None:
    memory["value"] = given
    assert memory["value"] == read


def test_a_float_is_rounded_to_32_bits(memory: kr.Memory) -> None:
    memory["value"] = 0.1
    assert memory["value"] == float(np.float32(0.1))
    memory["value"] = math.inf
    assert memory["value"] == math.inf
    memory["value"] = math.nan
    assert math.isnan(memory["value"])


@pytest.mark.parametrize("number", [2147483648, -2147483649, 10**30, -(10**30), 3.5e38, -1e300, np.int64(2**40), np.float64(1e200)])
def test_a_number_beyond_32_bits_is_refused(memory: kr.Memory, number: Any) -> None:
    with pytest.raises(OverflowError, match="32 bits"):
        memory["value"] = number
    with pytest.raises(OverflowError, match="32 bits"):
        memory["value"] = [[number]]
    assert "value" not in memory


def test_a_number_with_too_many_digits_to_print_is_refused(memory: kr.Memory) -> None:
    with pytest.raises(OverflowError, match="the number does not fit a value's 32 bits"):
        memory["value"] = 10**5000


@pytest.mark.parametrize("thing", [{}, {"a": 1}, set(), object(), 1j, range(3), iter([]), np.zeros(3), np.complex64(1j), len, int, "\ud800"], ids=repr)
def test_an_object_that_is_not_a_value_is_refused(memory: kr.Memory, thing: Any) -> None:
    with pytest.raises((TypeError, UnicodeEncodeError)):
        memory["value"] = thing
    with pytest.raises((TypeError, UnicodeEncodeError)):
        memory["value"] = [thing]
    assert "value" not in memory


def test_the_refusal_names_the_type(memory: kr.Memory) -> None:
    with pytest.raises(TypeError, match="a dict is not a value; values are None, bool, int"):
        memory["value"] = {}


def test_a_list_that_holds_itself_is_refused(memory: kr.Memory) -> None:
    endless: list[Any] = []
    endless.append(endless)
    with pytest.raises(RecursionError):
        memory["value"] = endless


def test_a_list_that_shrinks_while_it_is_read_is_harmless(memory: kr.Memory) -> None:
    class Shrinking(np.float64):
        def item(self) -> float:  # type: ignore[override]
            values.clear()
            return 1.0

    values: list[Any] = [Shrinking(1), 2, 3]
    memory["value"] = values
    assert memory["value"][0] == 1.0
