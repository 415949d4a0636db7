"""Extractors and vision extractors in Python, on cameras of this process."""

from __future__ import annotations

import gc
import threading
import time
from typing import Any, Iterator, List

import numpy as np
import pytest

import krvision as kr
from conftest import PATIENCE_S, Diary


@pytest.fixture
def cameras(broker: kr.Broker) -> Iterator[kr.Cameras]:
    with kr.CameraService(broker, ["test:ball", "test"]):
        yield kr.Cameras(broker)


class Watcher(kr.VisionExtractor):
    """Records its hooks."""

    def __init__(self, broker: kr.Broker, name: str, diary: Diary, **settings: Any) -> None:
        super().__init__(broker, name, **settings)
        self.diary = diary

    def start_image_processing(self) -> None:
        self.diary.note("start")

    def process_image(self, image: kr.Image) -> None:
        self.diary.note(image)

    def stop_image_processing(self) -> None:
        self.diary.note("stop")


def test_images_arrive_while_there_are_subscribers(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    with broker.create(Watcher, "Watcher", diary, resolution=kr.Resolution.QVGA, color_space=kr.ColorSpace.LUMA) as watcher:
        broker["Watcher"].subscribe("me", 33, 1.0)
        assert watcher.processing
        entries = diary.wait_for(4)
        broker["Watcher"].unsubscribe("me")
        assert not watcher.processing
    assert entries[0] == "start"
    assert diary.entries[-1] == "stop"
    image = entries[1]
    assert image.pixels.shape == (240, 320)
    assert abs(image.time_stamp - time.time() * 1e6) < 60e6
    assert image.time_stamp < entries[2].time_stamp


def test_an_array_outlives_the_hook_the_module_and_the_broker(diary: Diary) -> None:
    with kr.Broker() as broker:
        kr.CameraService(broker, ["test:ball"])
        watcher = broker.create(Watcher, "Watcher", diary, color_space=kr.ColorSpace.BGR)
        watcher.subscribe("me")
        pixels = diary.wait_for(2)[1].pixels
        copy = pixels.copy()
    del watcher, broker
    diary.entries.clear()
    gc.collect()
    assert pixels.shape == (480, 640, 3)
    assert np.array_equal(pixels, copy)
    pixels[:] = 0


def test_an_exception_in_process_image_is_logged_and_the_next_image_arrives(
    broker: kr.Broker, cameras: kr.Cameras, diary: Diary, capfd: pytest.CaptureFixture[str]
) -> None:
    class Failing(kr.VisionExtractor):
        def process_image(self, image: kr.Image) -> None:
            diary.note(image.time_stamp)
            raise ZeroDivisionError("in the hook")

    with broker.create(Failing, "Failing") as failing:
        failing.subscribe("me")
        diary.wait_for(3)
        assert failing.processing
        assert failing.failure == ""
    assert kr.flush_log()
    log = capfd.readouterr().err
    assert "Failing: process_image raised ZeroDivisionError: in the hook" in log
    assert "in process_image" in log


def test_an_error_raised_by_process_image_is_also_logged(
    broker: kr.Broker, cameras: kr.Cameras, diary: Diary, capfd: pytest.CaptureFixture[str]
) -> None:
    class Failing(kr.VisionExtractor):
        def process_image(self, image: kr.Image) -> None:
            diary.note(1)
            raise kr.Error("Failing", "process", "no light")

    with broker.create(Failing, "Failing") as failing:
        failing.subscribe("me")
        diary.wait_for(2)
    assert kr.flush_log()
    assert "Failing.process: no light" in capfd.readouterr().err


def test_an_exception_in_start_reaches_the_subscriber(broker: kr.Broker, cameras: kr.Cameras) -> None:
    class Failing(kr.VisionExtractor):
        def start_image_processing(self) -> None:
            raise ValueError("no model")

    with broker.create(Failing, "Failing"):
        with pytest.raises(kr.Error, match="ValueError: no model"):
            broker["Failing"].subscribe("me", 100, 1.0)


def test_settings_are_changed_while_images_arrive(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    with broker.create(Watcher, "Watcher", diary, resolution=kr.Resolution.QVGA, fps=15) as watcher:
        assert (watcher.resolution, watcher.color_space, watcher.camera) == (kr.Resolution.QVGA, kr.ColorSpace.BGR, 0)
        assert watcher.frame_rate == -1
        watcher.subscribe("me")
        assert (watcher.period, watcher.frame_rate) == (66, 15)
        assert watcher.set_resolution(kr.Resolution.VGA)
        assert watcher.set_color_space(kr.ColorSpace.YUV422)
        assert watcher.set_camera(1)
        assert watcher.set_frame_rate(30)
        assert not watcher.set_camera(7)
        assert not watcher.set_frame_rate(30, "nobody")
        assert (watcher.resolution, watcher.color_space, watcher.camera) == (kr.Resolution.VGA, kr.ColorSpace.YUV422, 1)
        assert watcher.period == 33
        (subscriber,) = cameras.subscribers()
        assert (subscriber.camera, subscriber.resolution, subscriber.color_space) == (1, 2, 9)
        image = diary.wait_for(len(diary.entries) + 3)[-1]
        assert image.pixels.shape == (480, 640, 2)
        assert image.camera == 1
        watcher.pause()
        assert watcher.paused
        watcher.pause(False)
        broker["Watcher"].setParameterValue("resolution", "160x120")
        assert watcher.resolution == kr.Resolution.R160X120


def test_a_frame_rate_beyond_the_bounds_makes_the_module_exit(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    with broker.create(Watcher, "Watcher", diary, fps=31) as watcher:
        assert watcher.exiting
        assert "31" in watcher.failure


def test_a_module_without_process_image_says_so(
    broker: kr.Broker, cameras: kr.Cameras, capfd: pytest.CaptureFixture[str]
) -> None:
    class Empty(kr.VisionExtractor):
        pass

    with broker.create(Empty, "Empty") as empty:
        empty.subscribe("me")
    assert kr.flush_log()
    assert "Empty needs process_image(self, image)" in capfd.readouterr().err


def test_a_module_closes_itself_in_process_image(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    class Leaving(kr.VisionExtractor):
        def process_image(self, image: kr.Image) -> None:
            if not diary.entries:
                self.close()
                diary.note("closed")

        def __del__(self) -> None:
            diary.note("gone")

    broker.create(Leaving, "Leaving").subscribe("me")
    assert diary.wait_for(2) == ["closed", "gone"]


def test_a_hook_in_python_does_not_block_other_threads(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    class Slow(kr.VisionExtractor):
        def process_image(self, image: kr.Image) -> None:
            entered.set()
            assert leave.wait(PATIENCE_S)

    entered, leave = threading.Event(), threading.Event()
    with broker.create(Slow, "Slow") as slow, broker.create(Watcher, "Watcher", diary) as watcher:
        thread = threading.Thread(target=lambda: slow.subscribe("me"))
        thread.start()
        assert entered.wait(PATIENCE_S)
        watcher.subscribe("me")
        diary.wait_for(5)
        leave.set()
        thread.join()


def test_the_smallest_period_and_largest_precision_apply(broker: kr.Broker, diary: Diary) -> None:
    class Plain(kr.Extractor):
        def start_detection(self, period: int, precision: float) -> None:
            diary.note(("start", period, precision))

        def update_parameters(self, period: int, precision: float) -> None:
            diary.note(("update", period, precision))

        def stop_detection(self) -> None:
            diary.note(("stop",))

    with broker.create(
        Plain, "Plain", default_period=200, default_precision=0.25, minimum_period=10, maximum_period=1000
    ) as plain:
        assert plain.period == -1
        plain.subscribe("a")
        broker["Plain"].subscribe("b", 5, 0.5)
        plain.update_period("b", 5000)
        plain.update_precision("b", 0.75)
        assert plain.subscribers == [("a", 200, 0.25), ("b", 1000, 0.75)]
        assert (plain.period, plain.precision) == (200, 0.75)
        with pytest.raises(kr.Error):
            plain.unsubscribe("c")
        plain.unsubscribe("a")
        plain.unsubscribe("b")
    assert diary.entries[:2] == [("start", 200, 0.25), ("update", 10, 0.5)]
    assert diary.entries[-1] == ("stop",)


def test_declared_outputs_are_listed(broker: kr.Broker) -> None:
    class Plain(kr.Extractor):
        def __init__(self, broker: kr.Broker, name: str) -> None:
            super().__init__(broker, name)
            self.declare_event("Plain/Seen")
            self.declare_memory_key("Plain/Last")

    with broker.create(Plain, "Plain") as plain:
        assert (plain.events, plain.memory_keys) == (["Plain/Seen"], ["Plain/Last"])
        assert broker["Plain"].getOutputNames() == ["Plain/Seen", "Plain/Last"]
        assert kr.Memory(broker)["Plain/Last"] == []


def test_closing_a_module_stops_its_detection_before_its_destruction(
    broker: kr.Broker, cameras: kr.Cameras, diary: Diary
) -> None:
    with broker.create(Watcher, "Watcher", diary) as watcher:
        watcher.subscribe("me")
    assert diary.entries[-1] == "stop"


def test_many_threads_use_a_module_while_it_is_closed(broker: kr.Broker, cameras: kr.Cameras, diary: Diary) -> None:
    ready = threading.Barrier(5)
    unexpected: List[BaseException] = []

    def use(watcher: Watcher) -> None:
        ready.wait()
        try:
            for _ in range(10000):
                watcher.pause(False)
                _ = (watcher.processing, watcher.period, watcher.resolution)
                broker["Watcher"].getCurrentPeriod()
        except kr.Error:
            pass  # the module is closed
        except BaseException as error:
            unexpected.append(error)

    watcher = broker.create(Watcher, "Watcher", diary, resolution=kr.Resolution.R160X120)
    watcher.subscribe("me")
    threads = [threading.Thread(target=use, args=(watcher,)) for _ in range(4)]
    for thread in threads:
        thread.start()
    ready.wait()
    diary.wait_for(4)
    watcher.close()
    for thread in threads:
        thread.join()
    assert not unexpected


def test_a_camera_subscription_yields_images(broker: kr.Broker, cameras: kr.Cameras) -> None:
    first, second = cameras.cameras()
    assert (first.camera, first.source, first.state, second.source) == (0, "test:ball", "closed", "test")
    with cameras.subscribe("me", 0, kr.Resolution.QVGA, kr.ColorSpace.RGB, 30) as subscription:
        images = [image for image, _ in zip(subscription, range(3))]
        assert [image.pixels.shape for image in images] == [(240, 320, 3)] * 3
        assert subscription.frame_rate == 30
        (statistics,) = cameras.statistics()
        assert (statistics.id, statistics.camera) == (subscription.id, 0)
        assert statistics.delivered >= 3
        assert 0 < statistics.interval.median_ms <= statistics.interval.max_ms
        assert statistics.age.median_ms > 0
        assert subscription.set_resolution(kr.Resolution.VGA)
        assert subscription.set_color_space(kr.ColorSpace.LUMA)
        assert subscription.set_frame_rate(15)
        assert subscription.set_camera(1)
        assert not subscription.set_camera(9)
        assert subscription.image().pixels.shape == (480, 640)
        for control in cameras.controls(1):
            assert control.minimum <= control.default <= control.maximum
        assert [each.camera for each in cameras.subscribers()] == [1]
    assert cameras.subscribers() == []
    with pytest.raises(ValueError, match="closed"):
        subscription.image()


def test_a_camera_that_does_not_exist_is_an_error(broker: kr.Broker, cameras: kr.Cameras) -> None:
    with pytest.raises(kr.Error, match="7"):
        cameras.subscribe("me", 7)
    with pytest.raises(kr.Error):
        kr.CameraService(broker)  # there already is one
