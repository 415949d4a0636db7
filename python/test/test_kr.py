"""Python files of modules run by kr."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import time
from pathlib import Path
from typing import Iterator, List

import numpy as np
import pytest

import krvision as kr
from conftest import PATIENCE_S, Diary

PROGRAM = os.environ["KR_PROGRAM"]
EXAMPLES = Path(os.environ["KR_EXAMPLES"])

MODULES = """
import krvision as kr

class Base(kr.VisionExtractor):
    pass

class BrightnessExtractor(Base):
    def __init__(self, broker, name):
        super().__init__(broker, name, resolution=kr.Resolution.R160X120, color_space=kr.ColorSpace.LUMA)
        self.memory = kr.Memory(broker)
        self.declare_memory_key(name + "/Mean")
    def process_image(self, image):
        self.memory[self.name + "/Mean"] = float(image.pixels.mean())
    def stop_image_processing(self):
        print("stopped")

class Adder(kr.Module):
    @kr.published
    def add(self, a: int, b: int) -> int:
        return a + b

class Leaving(kr.Module):
    @kr.published
    def leave(self) -> None:
        self.close()

class Failing(kr.Module):
    def __init__(self, broker, name):
        super().__init__(broker, name)
        raise LookupError("no model")
"""


@pytest.fixture
def modules(tmp_path: Path) -> Path:
    file = tmp_path / "modules.py"
    file.write_text(MODULES)
    return file


def run(*arguments: str) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([PROGRAM, *arguments], text=True, capture_output=True, timeout=60, check=False)


class Served:
    """A kr serve that runs until it is stopped."""

    def __init__(self, *arguments: str) -> None:
        self.process = subprocess.Popen(
            [PROGRAM, *arguments], text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )

    def end(self) -> "tuple[int, str, str]":
        self.process.send_signal(signal.SIGINT)
        out, err = self.process.communicate(timeout=PATIENCE_S)
        return self.process.returncode, out, err


def expect_failure(done: "subprocess.CompletedProcess[str]", *texts: str) -> None:
    assert done.returncode == 1, done
    for text in texts:
        assert text in done.stderr


def test_a_syntax_error_names_the_line(tmp_path: Path) -> None:
    file = tmp_path / "wrong.py"
    file.write_text("import krvision\n\nclass Adder(krvision.Module:\n    pass\n")
    for verb in (["run", str(file)], ["serve", "--run", str(file)]):
        expect_failure(run(*verb), f"{file}:3: SyntaxError:")


def test_an_exception_in_the_file_names_the_line(tmp_path: Path) -> None:
    file = tmp_path / "wrong.py"
    file.write_text("import krvision\n\nnothing()\n")
    expect_failure(run("run", str(file)), f"{file}:3: NameError: name 'nothing' is not defined", "Traceback")
    file.write_text("import sys\nsys.exit(0)\n")
    expect_failure(run("run", str(file)), f"{file}:2: SystemExit: 0")


def test_a_file_without_the_class_is_refused(tmp_path: Path, modules: Path) -> None:
    expect_failure(run("run", f"{modules}:Nobody"), "has no class Nobody", "Base, BrightnessExtractor, Adder, Leaving, Failing")
    expect_failure(run("run", str(modules)), "several classes", f"{modules}:Base")
    file = tmp_path / "empty.py"
    file.write_text("from krvision import *\n")
    expect_failure(run("run", str(file)), "no class derived from krvision.Module")
    expect_failure(run("run", f"{file}:Module"), "no class Module")
    expect_failure(run("run", str(tmp_path / "absent.py")), "there is no such file")


def test_a_constructor_that_raises_is_reported_with_its_line(modules: Path, domain: str) -> None:
    line = MODULES[: MODULES.index("raise LookupError")].count("\n") + 1
    expect_failure(run("run", f"{modules}:Failing", "--broker", domain), f"{modules}:{line}: LookupError: no model")


def test_kr_run_hosts_a_file(modules: Path, domain: str) -> None:
    served = Served("run", f"{modules}:Adder", "--name", "Sum", "--broker", domain)
    try:
        with kr.Broker(domain) as broker:
            assert broker.wait_for("Sum", PATIENCE_S)
            assert broker["Sum"].add(2, 3) == 5
            done = run("call", "Sum", "add", "2", "3", "--broker", domain)
            assert (done.returncode, done.stdout) == (0, "5\n"), done
    finally:
        code, _, err = served.end()
    assert code == 0, err


def test_a_hosted_module_that_closes_itself_has_exited(modules: Path, domain: str) -> None:
    served = Served("run", f"{modules}:Leaving", "--broker", domain)
    with kr.Broker(domain) as broker:
        assert broker.wait_for("Leaving", PATIENCE_S)
        broker["Leaving"].leave()
        _, err = served.process.communicate(timeout=PATIENCE_S)
    assert served.process.returncode == 1
    assert "module Leaving has exited by itself" in err


def test_kr_serve_hosts_files_with_the_cameras(modules: Path, domain: str, diary: Diary) -> None:
    served = Served(
        "serve", "--camera", "0=test:ball", "--run", f"Light={modules}:BrightnessExtractor", "--run",
        f"{modules}:Adder", "--run", str(EXAMPLES / "brightness.py"), "--subscribe", "Light:50:1.0", "--broker", domain,
    )  # fmt: skip
    try:
        with kr.Broker(domain) as broker:
            assert all(broker.wait_for(module, PATIENCE_S) for module in ("Light", "Adder", "Brightness"))
            memory = kr.Memory(broker)
            deadline = time.monotonic() + PATIENCE_S
            while not isinstance(memory.get("Light/Mean"), float):
                assert time.monotonic() < deadline
                time.sleep(0.05)
            assert broker["Light"].isProcessing()
            with kr.Cameras(broker).subscribe("test", fps=10) as subscription:
                assert subscription.image().pixels.shape == (480, 640, 3)
            memory.on("Test/Seen", lambda event, value: diary.note(value))
            memory.raise_event("Test/Seen", 7)
            assert diary.wait_for(1) == [7]
            broker["Brightness"].subscribe("me", 50, 1.0)
            broker["Brightness"].unsubscribe("me")
            assert isinstance(memory["Brightness"], float)
    finally:
        code, out, err = served.end()
    assert code == 0, err
    assert out == "stopped\n"


def make_recording(path: Path) -> List[float]:
    means = []
    with kr.Video.record(path, [(160, 120, kr.ColorSpace.LUMA)]) as recording:
        for number in range(10):
            image = kr.Image(np.full((120, 160), 20 * number, np.uint8))
            image.time_stamp = 1_000_000 + 33_333 * number
            recording.write(image)
            means.append(20.0 * number)
    return means


def test_kr_evaluate_runs_a_file_on_a_recording(tmp_path: Path, modules: Path) -> None:
    recording, results = tmp_path / "film.oxv", tmp_path / "results.jsonl"
    means = make_recording(recording)
    done = run("evaluate", f"{modules}:BrightnessExtractor", str(recording), "--name", "Light", "--out", str(results))
    assert done.returncode == 0, done.stderr
    assert "images        10\n" in done.stdout
    found = results.read_text()
    assert found.count("Light/Mean") >= 10
    assert all(json.loads(line) for line in found.splitlines())
    assert f"{means[3]:g}" in found
    again = run("evaluate", f"{modules}:BrightnessExtractor", str(recording), "--name", "Light", "--against", str(results))
    assert again.returncode == 0, again.stdout + again.stderr
    assert "no difference" in again.stdout


def test_the_demonstration_follows_the_ball(run_module: "subprocess.CompletedProcess[str]") -> None:
    assert run_module.returncode == 0, run_module.stderr
    assert "the ball is at 0." in run_module.stdout
    assert "now at 640x480, every 200 ms: 1" in run_module.stdout
    assert int(run_module.stdout.rsplit("images: ", 1)[1]) > 3


def test_the_demonstration_ends_quietly_when_its_reader_closes() -> None:
    import sys

    command = [sys.executable, "-m", "krvision.demo", "--seconds", "1"]
    with subprocess.Popen(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as demo:
        assert demo.stdout is not None and demo.stderr is not None
        assert demo.stdout.readline().startswith("modules:")
        demo.stdout.close()
        errors = demo.stderr.read()
        assert demo.wait(60) == 1
    assert "Traceback" not in errors and "BrokenPipe" not in errors


@pytest.fixture
def run_module() -> Iterator["subprocess.CompletedProcess[str]"]:
    import sys

    yield subprocess.run(
        [sys.executable, "-m", "krvision.demo", "--seconds", "1.5"], text=True, capture_output=True, timeout=60, check=False
    )
