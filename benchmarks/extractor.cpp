// The cost of the platform and the extractors: an iteration of the acquisition loop compared with a copy of its
// pixels, a call, a subscription, and how evenly images are paced compared with a bare loop around the kernel's
// sleep.

#include "stillcamera.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krthread.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// Counts its images; at a period of 0 the loop does not sleep.
class Counter : public KR::KRVisionExtractor {
public:
    Counter(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, bool sleepless)
        : KRVisionExtractor(broker, name, KR::kVGA, KR::kYUV422ColorSpace, 30, 0), sleepless_(sleepless) {}

    int getCurrentPeriod() override { return sleepless_ ? 0 : KRVisionExtractor::getCurrentPeriod(); }
    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage*) override {
        if (wanted_ == 0) {
            return;
        }
        times_.push_back(Clock::now());
        if (times_.size() == wanted_) {
            wanted_ = 0;
            wanted_.notify_all();
        }
    }
    void xStopImageProcessing() override {}

    /// The times of the next images, taken on the acquisition thread.
    std::vector<Clock::time_point> watch(std::size_t images) {
        times_.clear();
        times_.reserve(images);
        wanted_ = images;
        wanted_.wait(images);
        return times_;
    }

private:
    const bool sleepless_;
    std::atomic<std::size_t> wanted_ = 0;
    std::vector<Clock::time_point> times_; // used by the acquisition thread while wanted_ is not 0
};

class Adder : public KR::KRModule {
public:
    Adder(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name) {
        functionName("addOne", "Adder", "");
        addParam("number", "");
        setReturn("sum", "");
        advertiseMethod(getCurrentMethodDescription(), this, &Adder::addOne);
    }
    int addOne(int number) { return number + 1; }
};

class IdleExtractor : public KR::KRExtractor {
public:
    using KRExtractor::KRExtractor;
    void xStartDetection(int, float) override {}
    void xStopDetection() override {}
};

std::string nameSize(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

void iterate(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const auto broker = KR::KRBroker::create("local:");
    const auto camera = KR::createModule<StillCamera>(broker, "KRVideoDevice", width, height);
    const auto counter = KR::createModule<Counter>(broker, "Counter", true);
    counter->subscribe("benchmark", 33, 0.0F);
    constexpr int kImages = 500;
    for ([[maybe_unused]] auto _ : state) {
        const auto times = counter->watch(kImages + 1);
        state.SetIterationTime(std::chrono::duration<double>(times.back() - times.front()).count() / kImages);
    }
    counter->unsubscribe("benchmark");
    state.SetLabel(nameSize(width, height));
}

void copyPixels(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(2 * state.range(0) * state.range(1));
    const std::vector<unsigned char> source(bytes, 100);
    std::vector<unsigned char> destination(bytes);
    constexpr int kImages = 500;
    for ([[maybe_unused]] auto _ : state) {
        const auto start = Clock::now();
        for (int i = 0; i < kImages; ++i) {
            std::memcpy(destination.data(), source.data(), bytes);
            benchmark::ClobberMemory();
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count() / kImages);
    }
    state.SetLabel(nameSize(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))));
}

BENCHMARK(iterate)
    ->Name("acquisition/krvision")
    ->Args({640, 480})
    ->Args({1280, 960})
    ->UseManualTime()
    ->Iterations(10);
BENCHMARK(copyPixels)
    ->Name("acquisition/memcpy")
    ->Args({640, 480})
    ->Args({1280, 960})
    ->UseManualTime()
    ->Iterations(10);

void callLocally(benchmark::State& state) {
    const auto broker = KR::KRBroker::create("local:");
    const auto adder = KR::createModule<Adder>(broker, "Adder");
    const auto proxy = broker->getProxy("Adder");
    int number = 0;
    for ([[maybe_unused]] auto _ : state) {
        number = proxy->call<int>("addOne", number & 0xffff);
    }
    benchmark::DoNotOptimize(number);
    state.SetLabel("int to int");
}
BENCHMARK(callLocally)->Name("call/krvision");

void subscribeAndUnsubscribe(benchmark::State& state) {
    const auto broker = KR::KRBroker::create("local:");
    const auto extractor = KR::createModule<IdleExtractor>(broker, "Idle");
    for (int i = 0; i < state.range(0); ++i) {
        extractor->subscribe("client" + std::to_string(i), 100, 0.0F);
    }
    for ([[maybe_unused]] auto _ : state) {
        extractor->subscribe("benchmark", 50, 0.5F);
        extractor->unsubscribe("benchmark");
    }
    state.SetLabel(std::to_string(state.range(0)) + " present");
}
BENCHMARK(subscribeAndUnsubscribe)->Name("subscribe and unsubscribe/krvision")->Arg(1)->Arg(100)->Arg(10000);

void getCurrentPeriod(benchmark::State& state) {
    static boost::shared_ptr<KR::KRBroker> broker;
    static KR::KRModuleHandle<IdleExtractor> extractor;
    if (state.thread_index() == 0) {
        broker = KR::KRBroker::create("local:");
        extractor = KR::createModule<IdleExtractor>(broker, "Idle");
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(extractor->getCurrentPeriod());
    }
    if (state.thread_index() == 0) {
        extractor.reset();
        broker.reset();
        state.SetLabel(std::to_string(state.threads()) + (state.threads() == 1 ? " thread" : " threads"));
    }
}
BENCHMARK(getCurrentPeriod)->Name("getCurrentPeriod/krvision")->Threads(1)->Threads(2)->UseRealTime();

constexpr int kPacedImages = 300;
constexpr int kPeriodMs = 33;

/// Reports the deviation of intervals from the period: the 99th percentile as the measured time, others as counters.
void reportPacing(benchmark::State& state, const std::vector<Clock::time_point>& times) {
    std::vector<double> deviations; // seconds
    for (std::size_t i = 1; i < times.size(); ++i) {
        const std::chrono::duration<double> interval = times[i] - times[i - 1];
        deviations.push_back(std::abs(interval.count() - 1e-3 * kPeriodMs));
    }
    std::sort(deviations.begin(), deviations.end());
    state.SetIterationTime(deviations[deviations.size() * 99 / 100]);
    state.counters["median_us"] = 1e6 * deviations[deviations.size() / 2];
    state.counters["max_us"] = 1e6 * deviations.back();
    state.SetLabel("p99 at 33 ms");
}

void paceImages(benchmark::State& state) {
    const auto broker = KR::KRBroker::create("local:");
    const auto camera = KR::createModule<StillCamera>(broker, "KRVideoDevice", 640, 480);
    const auto counter = KR::createModule<Counter>(broker, "Counter", false);
    counter->subscribe("benchmark", kPeriodMs, 0.0F);
    for ([[maybe_unused]] auto _ : state) {
        reportPacing(state, counter->watch(kPacedImages + 1));
    }
    counter->unsubscribe("benchmark");
}

void paceBareLoop(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::vector<Clock::time_point> times;
        for (int i = 0; i <= kPacedImages; ++i) {
            const auto start = Clock::now();
            times.push_back(start);
            const auto deadline = (start + std::chrono::milliseconds(kPeriodMs)).time_since_epoch();
            const auto seconds = std::chrono::floor<std::chrono::seconds>(deadline);
            const timespec until{seconds.count(), std::chrono::nanoseconds(deadline - seconds).count()};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        }
        reportPacing(state, times);
    }
}
// Ten seconds each, so only a few.
BENCHMARK(paceImages)->Name("pacing/krvision")->UseManualTime()->Iterations(1)->Repetitions(3);
BENCHMARK(paceBareLoop)->Name("pacing/clock_nanosleep")->UseManualTime()->Iterations(1)->Repetitions(3);

} // namespace

BENCHMARK_MAIN();
