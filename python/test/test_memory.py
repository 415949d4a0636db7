"""The memory and its events."""

from __future__ import annotations

import gc
import threading
from typing import Any

import pytest

import krvision as kr
from conftest import PATIENCE_S, Diary


def test_the_memory_is_a_mapping(broker: kr.Broker) -> None:
    memory = kr.Memory(broker)
    memory["A/x"] = 1
    memory["A/y"] = "two"
    memory["B"] = 3
    assert (memory["A/x"], memory.get("A/y"), memory.get("C", 7)) == (1, "two", 7)
    assert list(memory) == ["A/x", "A/y", "B"]
    assert len(memory) == 3
    assert memory.find("A/") == {"A/x": 1, "A/y": "two"}
    del memory["B"]
    assert "B" not in memory
    assert memory.pop("A/x") == 1
    assert "A" not in memory


def test_a_missing_key_is_a_key_error(broker: kr.Broker) -> None:
    memory = kr.Memory(broker)
    for use in (lambda: memory["no"], lambda: memory.pop("no"), lambda: memory.timestamp("no")):
        with pytest.raises(KeyError, match="no"):
            use()
    with pytest.raises(KeyError):
        del memory["no"]


def test_several_values_are_written_at_once(broker: kr.Broker) -> None:
    memory = kr.Memory(broker)
    memory.insert_all({"a": 1, "b": [2]})
    assert dict(memory) == {"a": 1, "b": [2]}
    with pytest.raises(TypeError):
        memory.insert_all({"a": 5, "c": {}})  # type: ignore[dict-item]
    assert memory["a"] == 1


def test_the_time_of_a_write_is_known(broker: kr.Broker) -> None:
    memory = kr.Memory(broker)
    before = broker.time_usec()
    memory["a"] = 1
    assert before <= memory.timestamp("a") <= broker.time_usec()


def test_without_a_memory_module_a_read_is_an_error() -> None:
    with kr.Broker("local:?memory=none") as broker:
        with pytest.raises(kr.Error, match="KRMemory"):
            kr.Memory(broker)["a"]


def test_an_event_calls_back_in_order(broker: kr.Broker, diary: Diary) -> None:
    memory = kr.Memory(broker)
    memory.on("Seen", lambda event, value: diary.note((event, value)))
    gc.collect()  # the subscription need not be kept
    for number in range(100):
        memory.raise_event("Seen", number)
    assert diary.wait_for(100) == [("Seen", number) for number in range(100)]


def test_two_callbacks_of_one_event_are_both_called(broker: kr.Broker, diary: Diary) -> None:
    memory = kr.Memory(broker)
    memory.on("Seen", lambda event, value: diary.note("first"))
    memory.on("Seen", lambda event, value: diary.note("second"))
    memory.raise_event("Seen", 1)
    assert sorted(diary.wait_for(2)) == ["first", "second"]


def test_a_closed_subscription_is_not_called(broker: kr.Broker, diary: Diary) -> None:
    memory = kr.Memory(broker)
    with memory.on("Seen", lambda event, value: diary.note("closed")):
        pass
    memory.on("Seen", lambda event, value: diary.note("open"))
    memory.raise_event("Seen")
    assert diary.wait_for(1) == ["open"]


def test_a_subscription_ends_in_its_own_callback(broker: kr.Broker, diary: Diary) -> None:
    memory = kr.Memory(broker)

    def once(event: str, value: Any) -> None:
        subscription.close()
        diary.note(value)

    subscription = memory.on("Seen", once)
    memory.raise_event("Seen", 1)
    assert diary.wait_for(1) == [1]
    memory.raise_event("Seen", 2)
    memory.on("Seen", lambda event, value: diary.note(value))
    memory.raise_event("Seen", 3)
    assert diary.wait_for(2) == [1, 3]


def test_an_exception_in_a_callback_is_logged_and_the_next_event_arrives(
    broker: kr.Broker, diary: Diary, capfd: pytest.CaptureFixture[str]
) -> None:
    memory = kr.Memory(broker)

    def callback(event: str, value: Any) -> None:
        diary.note(value)
        raise LookupError("lost it")

    memory.on("Seen", callback)
    memory.raise_event("Seen", 1)
    memory.raise_event("Seen", 2)
    assert diary.wait_for(2) == [1, 2]
    broker.close()
    assert kr.flush_log()
    assert "onEvent raised LookupError: lost it" in capfd.readouterr().err


def test_a_subscription_to_an_event_starts_its_extractor(broker: kr.Broker, diary: Diary) -> None:
    class Source(kr.Extractor):
        def __init__(self, broker: kr.Broker, name: str) -> None:
            super().__init__(broker, name)
            self.declare_event("Source/Seen")

        def start_detection(self, period: int, precision: float) -> None:
            diary.note("start")

        def stop_detection(self) -> None:
            diary.note("stop")

    with broker.create(Source, "Source"):
        memory = kr.Memory(broker)
        with memory.on("Source/Seen", lambda event, value: None):
            assert diary.wait_for(1) == ["start"]
        assert diary.wait_for(2) == ["start", "stop"]


def test_a_callback_may_use_the_memory(broker: kr.Broker) -> None:
    memory, done = kr.Memory(broker), threading.Event()

    def callback(event: str, value: Any) -> None:
        memory["answer"] = memory[event]
        done.set()

    memory.on("Seen", callback)
    memory.raise_event("Seen", 5)
    assert done.wait(PATIENCE_S)
    assert memory["answer"] == 5


def test_a_callback_that_cannot_be_called_is_refused(broker: kr.Broker) -> None:
    with pytest.raises(TypeError, match="cannot be called"):
        kr.Memory(broker).on("Seen", 7)  # type: ignore[arg-type]
