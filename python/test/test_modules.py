"""Modules in Python: published methods, errors and lifetimes."""

from __future__ import annotations

import gc
import threading
import time
import weakref
from typing import Any, Callable, List

import pytest

import krvision as kr
from conftest import PATIENCE_S, Diary


class Adder(kr.Module):
    """Adds."""

    @kr.published
    def add(self, a: int, b: int) -> int:
        """Adds two numbers.

        More about it.

        Args:
            a: One of them.
            b: The other one,
                on two lines.

        Returns:
            sum: a + b
        """
        return a + b

    @kr.published(name="add")
    def add_texts(self, a: str, b: str) -> str:
        """Joins two texts.

        :param a: The first one.
        :param b: The second one.
        :return: Both.
        """
        return a + b

    @kr.published
    def describe(self, flag: bool, number: float, value: kr.Value, many: List[int], raw: bytes) -> list:
        return [type(each).__name__ for each in (flag, number, value, many, raw)]

    @kr.published
    def fail(self) -> None:
        raise kr.Error("Other", "method", "it does not like that")

    @kr.published
    def crash(self) -> None:
        raise ValueError("too large: 7")

    @kr.published
    def lie(self) -> int:
        return "text"  # type: ignore[return-value]

    @kr.published
    def halve(self, number: int) -> float:
        return number // 2


@pytest.fixture
def adder(broker: kr.Broker) -> Adder:
    return broker.create(Adder, "Adder")


def test_a_published_method_is_called_by_name(broker: kr.Broker, adder: Adder) -> None:
    assert broker["Adder"].add(2, 3) == 5
    assert broker["Adder"].call("add", 2, 3) == 5
    assert adder.add(2, 3) == 5


def test_overloads_are_chosen_by_type(broker: kr.Broker, adder: Adder) -> None:
    assert broker["Adder"].add("a", "b") == "ab"


def test_a_call_that_fits_no_overload_lists_them(broker: kr.Broker, adder: Adder) -> None:
    with pytest.raises(kr.Error, match=r"add\(int a, int b\): int sum, add\(string a, string b\): string result"):
        broker["Adder"].add(1)


def test_arguments_have_the_types_of_the_signature(broker: kr.Broker, adder: Adder) -> None:
    assert broker["Adder"].describe(1, 2, 3, [4], b"5") == ["bool", "float", "int", "list", "bytes"]


def test_an_int_result_becomes_the_published_float(broker: kr.Broker, adder: Adder) -> None:
    result = broker["Adder"].halve(5)
    assert (result, type(result)) == (2.0, float)


def test_descriptions_come_from_the_docstring(broker: kr.Broker, adder: Adder) -> None:
    numbers, texts = [method for method in broker["Adder"].methods() if method.name == "add"]
    assert numbers.description == "Adds two numbers."
    assert numbers.parameters == [("a", "int", "One of them."), ("b", "int", "The other one, on two lines.")]
    assert numbers.result == ("sum", "int", "a + b")
    assert texts.parameters == [("a", "string", "The first one."), ("b", "string", "The second one.")]
    assert texts.result == ("result", "string", "Both.")


def test_help_shows_what_a_module_publishes(broker: kr.Broker, adder: Adder, capsys: pytest.CaptureFixture[str]) -> None:
    help(broker["Adder"])
    shown = capsys.readouterr().out
    assert "add(int a, int b): int sum" in shown
    assert "One of them." in shown
    help(kr.Proxy)
    assert "Calls the methods of a module by name" in capsys.readouterr().out
    assert "add" in dir(broker["Adder"])


def test_help_on_a_missing_module_says_so(broker: kr.Broker, capsys: pytest.CaptureFixture[str]) -> None:
    help(broker["Nobody"])
    assert "Nobody cannot be queried" in capsys.readouterr().out


def test_an_error_keeps_its_three_texts(broker: kr.Broker, adder: Adder) -> None:
    with pytest.raises(kr.Error) as caught:
        broker["Adder"].fail()
    assert (caught.value.module, caught.value.method, caught.value.description) == ("Other", "method", "it does not like that")
    assert str(caught.value) == "Other.method: it does not like that"


def test_another_exception_arrives_as_an_error_and_is_logged(
    broker: kr.Broker, adder: Adder, capfd: pytest.CaptureFixture[str]
) -> None:
    with pytest.raises(kr.Error) as caught:
        broker["Adder"].crash()
    assert (caught.value.module, caught.value.method, caught.value.description) == ("Adder", "crash", "ValueError: too large: 7")
    assert kr.flush_log()
    log = capfd.readouterr().err
    assert "Adder: crash raised ValueError: too large: 7" in log
    assert "in crash" in log


def test_a_result_of_another_type_is_an_error(broker: kr.Broker, adder: Adder) -> None:
    with pytest.raises(kr.Error, match="returned a str, but it is published with int"):
        broker["Adder"].lie()


def test_a_missing_module_or_method_is_an_error(broker: kr.Broker, adder: Adder) -> None:
    with pytest.raises(kr.Error, match="Nobody"):
        broker["Nobody"].add(1, 2)
    with pytest.raises(kr.Error, match="no such method"):
        broker["Adder"].subtract(1, 2)


def test_a_posted_call_runs_on_a_call_thread(broker: kr.Broker, diary: Diary) -> None:
    class Noting(kr.Module):
        @kr.published
        def note(self, number: int) -> None:
            diary.note((number, threading.get_ident()))

    with broker.create(Noting, "Noting"):
        broker["Noting"].post("note", 7)
        ((number, thread),) = diary.wait_for(1)
    assert number == 7
    assert thread != threading.get_ident()


@pytest.mark.parametrize(
    "make, reason",
    [
        (lambda: no_annotation, "has no annotation"),
        (lambda: with_default, "has a default"),
        (lambda: with_star, "is not positional"),
        (lambda: with_dict, "is not a type of values"),
    ],
)
def test_a_method_that_cannot_be_published_is_refused(broker: kr.Broker, make: Callable[[], Any], reason: str) -> None:
    cls = type("Odd", (kr.Module,), {"odd": kr.published(make())})
    with pytest.raises(TypeError, match=reason):
        broker.create(cls, "Odd")
    with broker.create(Adder, "Odd"):  # the name is free
        pass


def no_annotation(self: Any, a) -> None: ...  # type: ignore[no-untyped-def]
def with_default(self: Any, a: int = 1) -> None: ...
def with_star(self: Any, *a: int) -> None: ...
def with_dict(self: Any, a: dict) -> None: ...  # type: ignore[type-arg]


def test_a_name_is_free_after_close_and_taken_before(broker: kr.Broker) -> None:
    first = broker.create(Adder, "Adder")
    with pytest.raises(kr.Error, match="Adder"):
        broker.create(Adder, "Adder")
    first.close()
    first.close()
    with broker.create(Adder, "Adder") as second:
        assert broker["Adder"].add(1, 1) == 2
        assert second.name == "Adder"
    assert "Adder" not in broker.modules()


def test_a_kept_method_reaches_the_next_module_of_the_name(broker: kr.Broker) -> None:
    add = broker["Adder"].add
    for _ in range(2):
        with pytest.raises(kr.Error, match="no module named Adder"):
            add(1, 2)
        with broker.create(Adder, "Adder"):
            assert add(1, 2) == broker["Adder"].add(1, 2) == 3


def test_dir_lists_published_methods_but_not_failed_attempts(broker: kr.Broker, adder: Adder) -> None:
    with pytest.raises(kr.Error):
        broker["Adder"].subtract(2, 1)
    assert {"add", "crash", "call", "methods"} <= set(dir(broker["Adder"]))
    assert "subtract" not in dir(broker["Adder"])


def test_proxies_of_many_modules_are_not_kept_forever(broker: kr.Broker) -> None:
    first = weakref.ref(broker["Module0"])
    for number in range(1000):
        broker[f"Module{number}"]
    assert first() is None


def test_a_constructor_that_raises_leaves_the_name_free(broker: kr.Broker) -> None:
    class Failing(kr.Module):
        def __init__(self, broker: kr.Broker, name: str, fail: bool) -> None:
            super().__init__(broker, name)
            if fail:
                raise ValueError("no")

    try:
        broker.create(Failing, "Failing", True)
    except ValueError:
        broker.create(Failing, "Failing", fail=False)  # although the traceback still holds the first one
    assert broker.modules().count("Failing") == 1


def test_an_operation_of_a_closed_module_is_an_error(broker: kr.Broker) -> None:
    module = broker.create(Adder, "Adder")
    module.close()
    with pytest.raises(kr.Error, match="the module is closed"):
        module.report_failure("x")
    assert module.exiting
    assert "closed" in repr(module)


def test_a_module_that_exits_refuses_calls_until_it_is_closed(broker: kr.Broker, adder: Adder) -> None:
    adder.exit()
    assert adder.exiting
    with pytest.raises(kr.Error):
        broker["Adder"].add(1, 2)


def test_a_failure_is_seen_by_others(broker: kr.Broker, adder: Adder) -> None:
    adder.report_failure("no light")
    assert broker["Adder"].failure() == "no light"
    adder.report_failure("")
    assert broker["Adder"].failure() == ""


def test_a_closed_module_is_collected_although_it_refers_to_itself(broker: kr.Broker) -> None:
    class Circular(kr.Module):
        def __init__(self, broker: kr.Broker, name: str) -> None:
            super().__init__(broker, name)
            self.itself = self
            self.proxy = broker[name]
            self.memory = kr.Memory(broker)

    with broker.create(Circular, "Circular") as module:
        gone = weakref.ref(module)
    del module
    gc.collect()
    assert gone() is None


def test_an_unreferenced_module_lives_until_its_broker_is_closed(broker: kr.Broker) -> None:
    broker.create(Adder, "Adder")
    gc.collect()
    assert broker["Adder"].add(1, 2) == 3


def test_a_module_may_be_closed_by_a_call_before_create_has_returned(broker: kr.Broker) -> None:
    class Leaving(kr.Module):
        @kr.published
        def leave(self) -> None:
            self.close()

    def leave(name: str) -> None:
        while True:
            try:
                broker[name].leave()
                return
            except kr.Error:  # not reachable yet
                pass

    for number in range(100):
        name = f"Leaving{number}"
        caller = threading.Thread(target=leave, args=[name])
        caller.start()
        broker.create(Leaving, name)
        caller.join(PATIENCE_S)
        assert not caller.is_alive()


def test_a_module_closes_itself_in_its_own_method(broker: kr.Broker, diary: Diary) -> None:
    class Leaving(kr.Module):
        @kr.published
        def leave(self) -> int:
            self.close()
            diary.note("closed")
            return 7

        def __del__(self) -> None:
            diary.note("gone")

    broker.create(Leaving, "Leaving")
    assert broker["Leaving"].leave() == 7
    assert diary.wait_for(2) == ["closed", "gone"]
    deadline = time.monotonic() + PATIENCE_S
    while True:  # the C++ side is destroyed a little later
        try:
            broker.create(Adder, "Leaving").close()
            break
        except kr.Error:
            assert time.monotonic() < deadline
            time.sleep(0.01)


def test_close_waits_for_a_running_call(broker: kr.Broker, diary: Diary) -> None:
    entered, leave = threading.Event(), threading.Event()

    class Slow(kr.Module):
        @kr.published
        def work(self) -> None:
            entered.set()
            assert leave.wait(PATIENCE_S)
            diary.note("worked")

    slow = broker.create(Slow, "Slow")
    broker["Slow"].post("work")
    assert entered.wait(PATIENCE_S)
    threading.Timer(0.1, leave.set).start()
    slow.close()
    assert diary.entries == ["worked"]


def test_a_broker_closes_its_modules_the_last_one_first(diary: Diary) -> None:
    class Noting(kr.Module):
        def close(self) -> None:
            diary.note(self.name)
            super().close()

    with kr.Broker() as broker:
        for name in ("A", "B", "C"):
            broker.create(Noting, name)
    assert diary.entries == ["C", "B", "A"]


def test_objects_of_a_closed_broker_raise() -> None:
    broker = kr.Broker()
    proxy, memory = broker["KRMemory"], kr.Memory(broker)
    broker.close()
    broker.close()
    assert broker.closed
    for use in (lambda: proxy.getEventList(), lambda: memory["x"], lambda: broker.modules(), lambda: broker["A"], lambda: broker.create(Adder, "A")):
        with pytest.raises(kr.Error, match="the broker is closed"):
            use()


def test_an_invalid_address_is_an_error() -> None:
    with pytest.raises(kr.Error, match="nothing"):
        kr.Broker("nothing:")


def test_parameters_are_set_remotely(broker: kr.Broker, diary: Diary) -> None:
    class Tuned(kr.Module):
        def __init__(self, broker: kr.Broker, name: str) -> None:
            super().__init__(broker, name)
            self.declare_parameter("threshold", "What counts.", 0.5, diary.note, minimum=0, maximum=1, unit="of all")
            self.declare_parameter("history", "How many.", 1, self.set_history, minimum=1, maximum=16)
            self.declare_parameter("mode", "How.", "fast", diary.note, choices=["fast", "exact"])
            self.declare_parameter("on", "Whether.", True, diary.note)

        def set_history(self, history: int) -> None:
            raise ValueError(f"not {history}")

    with broker.create(Tuned, "Tuned"):
        tuned = broker["Tuned"]
        tuned.setParameterValue("threshold", 0.25)
        tuned.setParameterValue("mode", "EXACT")
        tuned.setParameterValue("on", 0)
        assert diary.entries == [0.25, "exact", 0]
        with pytest.raises(kr.Error, match="not 3"):
            tuned.setParameterValue("history", 3)
        with pytest.raises(kr.Error, match="2"):
            tuned.setParameterValue("threshold", 2.0)
        assert tuned.getParameterValue("history") == 1


def test_a_parameter_needs_a_range_if_it_is_a_number(broker: kr.Broker) -> None:
    module = kr.Module(broker, "Odd")
    with pytest.raises(TypeError, match="minimum and maximum"):
        module.declare_parameter("a", "", 1, print)
    with pytest.raises(TypeError, match="minimum and maximum"):
        module.declare_parameter("a", "", "x", print, minimum=1, maximum=2)
    with pytest.raises(TypeError, match="bool, int, float or str"):
        module.declare_parameter("a", "", [], print)  # type: ignore[arg-type]
    module.close()
