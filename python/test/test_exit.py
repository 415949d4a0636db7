"""Exit of programs and lifetimes of objects: each test runs a separate interpreter."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any, Callable

import pytest

HEAD = """
import os, sys, threading, time
import krvision as kr

class Watcher(kr.VisionExtractor):
    def __init__(self, broker, name):
        super().__init__(broker, name, resolution=kr.Resolution.QVGA)
        self.count = 0
        self.seen = threading.Event()
    def process_image(self, image):
        self.count += 1
        self.seen.set()
    def stop_image_processing(self):
        print("stopped", self.name, flush=True)

broker = kr.Broker()
service = kr.CameraService(broker, ["test:ball"])
watcher = broker.create(Watcher, "Watcher")
broker["Watcher"].subscribe("me", 33, 1.0)
assert watcher.seen.wait(20)
"""

# AddressSanitizer keeps freed memory for a while.
growth = pytest.mark.skipif("KR_SANITIZED" in os.environ, reason="memory grows under a sanitizer")

Run = Callable[..., "subprocess.CompletedProcess[str]"]


def expect(done: "subprocess.CompletedProcess[str]", code: int, out: str) -> None:
    assert (done.returncode, done.stdout) == (code, out), done.stderr


def test_a_broker_that_is_never_closed_is_shut_down_at_exit(run: Run) -> None:
    expect(run(HEAD + 'print("end", flush=True)'), 0, "end\nstopped Watcher\n")


def test_exit_shuts_down_modules_the_last_one_first(run: Run) -> None:
    done = run(HEAD + 'broker.create(Watcher, "Second").subscribe("me"); broker.create(Watcher, "Third").subscribe("me")')
    expect(done, 0, "stopped Third\nstopped Second\nstopped Watcher\n")


def test_an_uncaught_exception_shuts_down_modules(run: Run) -> None:
    done = run(HEAD + 'raise ValueError("it flies")')
    expect(done, 1, "stopped Watcher\n")
    assert "ValueError: it flies" in done.stderr


def test_sys_exit_shuts_down_modules(run: Run) -> None:
    expect(run(HEAD + "sys.exit(3)"), 3, "stopped Watcher\n")


DAEMONS = """
def call():
    while True:
        broker["Watcher"].getCurrentPeriod()
def sleep():
    broker.sleep(1000)
def wait():
    broker.wait_for("Nobody")
def remember():
    memory = kr.Memory(broker)
    while True:
        memory["a"] = bytes(1000)
        memory["a"]
def spin():
    while True:
        pass
def fetch():
    with kr.Cameras(broker).subscribe("daemon") as subscription:
        for image in subscription:
            image.pixels.mean()
for function in (call, call, sleep, wait, remember, spin, fetch):
    threading.Thread(target=function, daemon=True).start()
time.sleep(0.2)
"""


@pytest.mark.parametrize("round", range(3))
def test_daemon_threads_do_not_disturb_the_exit(run: Run, round: int) -> None:
    expect(run(HEAD + DAEMONS + 'print("end", flush=True)'), 0, "end\nstopped Watcher\n")


@pytest.mark.parametrize("round", range(3))
def test_daemon_threads_that_get_errors_do_not_disturb_the_exit(run: Run, round: int) -> None:
    done = run(
        """
import sys, threading, time
import krvision as kr
sys.setswitchinterval(1e-6)
broker = kr.Broker()
def call():
    while True:
        try:
            broker["Nobody"].work()
        except kr.Error:
            pass
for _ in range(4):
    threading.Thread(target=call, daemon=True).start()
time.sleep(0.1)
print("end", flush=True)
"""
    )
    expect(done, 0, "end\n")


def test_a_daemon_thread_that_imports_numpy_does_not_disturb_the_exit(run: Run) -> None:
    done = run(
        """
import sys, threading, time
import krvision as kr
sys.setswitchinterval(1e-6)
def look():
    kr.Image.blank(4, 4, kr.ColorSpace.LUMA).pixels
    time.sleep(3600)
class Slow: # so that the interpreter ends the thread before the process exits
    def __del__(self):
        end = time.monotonic() + 0.2
        while time.monotonic() < end:
            pass
slow = Slow()
threading.Thread(target=look, daemon=True).start()
while "numpy" not in sys.modules:
    time.sleep(0.001)
"""
    )
    expect(done, 0, "")


def test_an_uncaught_exception_with_daemon_threads(run: Run) -> None:
    done = run(HEAD + DAEMONS + 'raise ValueError("it flies")')
    expect(done, 1, "stopped Watcher\n")
    assert done.stderr.count("Traceback") >= 1


def test_a_thread_that_calls_during_the_exit_is_stopped(run: Run) -> None:
    # The handler runs after the one of krvision, which has closed everything.
    expect(
        run(
            """
import atexit
atexit.register(lambda: (time.sleep(0.2), print("last", flush=True)))
"""
            + HEAD
            + DAEMONS
        ),
        0,
        "stopped Watcher\nlast\n",
    )


def test_exit_waits_for_other_threads(run: Run) -> None:
    done = run(HEAD + 'threading.Thread(target=lambda: (time.sleep(0.3), print(broker["Watcher"].isProcessing(), flush=True))).start()')
    expect(done, 0, "1\nstopped Watcher\n")


def test_a_hook_that_hangs_cannot_prevent_the_exit(run: Run) -> None:
    done = run(
        """
import krvision._lifetime
krvision._lifetime._EXIT_S = 0.5
"""
        + HEAD
        + """
hanging = threading.Event()
class Hanging(kr.Module):
    @kr.published
    def hang(self) -> None:
        hanging.set()
        threading.Event().wait()
broker.create(Hanging, "Hanging")
broker["Hanging"].post("hang")
hanging.wait()
"""
    )
    assert done.returncode == 1
    assert "did not shut down in time" in done.stderr
    assert "Hanging" in done.stderr


def test_a_reference_cycle_through_everything_is_shut_down(run: Run) -> None:
    expect(
        run(
            HEAD
            + """
watcher.everything = [watcher, broker, broker["Watcher"], kr.Memory(broker), service, watcher.process_image]
watcher.memory = kr.Memory(broker)
watcher.event = watcher.memory.on("x", lambda event, value: watcher)
del watcher, broker, service
import gc
gc.collect()
"""
        ),
        0,
        "stopped Watcher\n",
    )


def test_exit_waits_for_a_running_event_callback(run: Run) -> None:
    done = run(
        HEAD
        + """
began = threading.Event()
def callback(event, value):
    began.set()
    time.sleep(0.3)
    print("called back", flush=True)
memory = kr.Memory(broker)
memory.on("x", callback)
memory.raise_event("x")
began.wait()
"""
    )
    expect(done, 0, "called back\nstopped Watcher\n")


def test_a_subinterpreter_is_refused(run: Run) -> None:
    done = run(
        """
import _xxsubinterpreters as interpreters
one = interpreters.create()
try:
    interpreters.run_string(one, "import krvision")
except interpreters.RunFailedError as error:
    print("refused:", "subinterpreter" in str(error))
import krvision
print(krvision.Broker().modules())
"""
    )
    expect(done, 0, "refused: True\n['KRMemory']\n")


@growth
def test_a_hundred_thousand_images_leak_no_memory(run: Run) -> None:
    done = run(
        """
import gc
import numpy as np
import krvision as kr

def resident():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * 4096

array = np.zeros((48, 64, 3), np.uint8)
def work(count):
    for _ in range(count):
        image = kr.Image.blank(64, 48, kr.ColorSpace.LUMA)
        pixels = image.pixels
        region = image.region(1, 1, 10, 10)
        other = kr.Image(array).pixels
    del image, pixels, region, other
work(5000)
gc.collect()
before = resident()
work(100000)
gc.collect()
print(resident() - before < 8 << 20, resident() - before)
""",
        timeout=100,
    )
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith("True"), done.stdout


@growth
def test_images_of_a_camera_leak_no_memory(run: Run) -> None:
    done = run(
        HEAD
        + """
import gc
def resident():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * 4096
def wait_for(count):
    while watcher.count < count:
        watcher.seen.clear()
        assert watcher.seen.wait(20)
wait_for(20)
before = resident()
objects = len(gc.get_objects())
wait_for(60)
gc.collect()
print(resident() - before < 8 << 20, len(gc.get_objects()) - objects < 100)
"""
    )
    expect(done, 0, "True True\nstopped Watcher\n")


# Prints a line once the main thread is in a function, called by those before it.
TELL = """
import traceback
def tell(*functions):
    expected = [function.__name__ for function in functions]
    while expected != [frame.name for frame in traceback.extract_stack(sys._current_frames()[main])][-len(expected):]:
        time.sleep(0.01)
    print("waiting", flush=True)
main = threading.get_ident()
"""
WAITING = HEAD + TELL + """
threading.Thread(target=tell, args=[kr.wait, threading.Event.wait, threading.Condition.wait]).start()
print("interrupted:", kr.wait(), flush=True)
broker.close()
print("closed", flush=True)
"""


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_wait(tmp_path: Path, number: signal.Signals) -> None:
    file = tmp_path / "program.py"
    file.write_text(WAITING)
    with subprocess.Popen([sys.executable, str(file)], stdout=subprocess.PIPE, text=True, env=os.environ) as process:
        assert process.stdout is not None
        assert process.stdout.readline() == "waiting\n"
        process.send_signal(number)
        rest = process.stdout.read()
    assert (process.returncode, rest) == (0, "interrupted: True\nstopped Watcher\nclosed\n")


def test_ctrl_c_ends_a_sleep(tmp_path: Path) -> None:
    file = tmp_path / "program.py"
    file.write_text(HEAD + TELL + "threading.Thread(target=tell, args=[kr.Broker.sleep]).start()\nbroker.sleep(3600)\n")
    with subprocess.Popen([sys.executable, str(file)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        assert process.stdout is not None
        assert process.stdout.readline() == "waiting\n"
        process.send_signal(signal.SIGINT)
        try:
            rest, err = process.communicate(timeout=60)
        finally:
            process.kill()
    assert (process.returncode, rest) == (-signal.SIGINT, "stopped Watcher\n")
    assert "KeyboardInterrupt" in err


def test_wait_times_out_and_works_on_the_main_thread_only(run: Run) -> None:
    done = run(
        """
import threading
import krvision as kr
print(kr.wait(0.1))
def wait():
    try:
        kr.wait(0.1)
    except RuntimeError as error:
        print(error)
thread = threading.Thread(target=wait)
thread.start()
thread.join()
"""
    )
    expect(done, 0, "False\nkrvision.wait() waits for signals, which only the main thread gets\n")


def test_ctrl_c_in_a_method_called_by_the_main_thread_is_raised(run: Run) -> None:
    done = run(
        HEAD
        + """
import signal
class Calling(kr.Module):
    @kr.published
    def work(self) -> None:
        signal.raise_signal(signal.SIGINT)
        time.sleep(10)
broker.create(Calling, "Calling")
try:
    broker["Calling"].work()
except KeyboardInterrupt:
    print("interrupted", flush=True)
"""
    )
    expect(done, 0, "interrupted\nstopped Watcher\n")


def test_ctrl_c_ends_a_constructor_that_waits_for_the_memory(run: Run) -> None:
    done = run(
        """
import _thread, threading
import krvision as kr
broker = kr.Broker("local:?memory=none")
threading.Timer(0.2, _thread.interrupt_main).start()
try:
    broker.create(kr.Extractor, "Waiting")
except KeyboardInterrupt:
    print("interrupted", broker.modules())
"""
    )
    expect(done, 0, "interrupted []\n")
