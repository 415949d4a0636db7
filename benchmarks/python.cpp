// The cost of Python: a hook in the acquisition loop compared with the same one in C++, a call, an array of pixels;
// and the loop of a script without KRVision, over cv2.VideoCapture.

#include "stillcamera.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krpythonhost.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <benchmark/benchmark.h>

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

constexpr int kImages = 2000;

// On the clock of a recording, acquisitions do not sleep.
constexpr const char* kUnpaced = "local:?clock=recording";

/// The hook of hook.py.
class Hook : public KR::KRVisionExtractor {
public:
    Hook(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, KR::kVGA, KR::kYUV422ColorSpace, 30, 0) {}

    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage*) override {
        ++count_;
        if (count_ == begin_) {
            start_ = std::chrono::steady_clock::now();
        } else if (count_ == end_) {
            time_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
            done_ = true;
            done_.notify_all();
        }
    }
    void xStopImageProcessing() override {}

    double watch(int images) {
        done_ = false;
        end_ = count_ + 10 + images;
        begin_ = end_ - images;
        done_.wait(false);
        return time_ / images;
    }

private:
    std::atomic<int> count_ = 0;
    std::atomic<int> begin_ = 0;
    std::atomic<int> end_ = 0;
    std::atomic<bool> done_ = false;
    std::chrono::steady_clock::time_point start_; // the acquisition thread's, like the next, until done_
    double time_ = 0;
};

/// Called from Python.
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

KR::KRModuleHandle<KR::KRModule> makePythonHook(const boost::shared_ptr<KR::KRBroker>& broker) {
    void* const handle = dlopen(KR_PYTHON_HOST, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        throw std::runtime_error(dlerror());
    }
    KR::KRPythonClass loaded;
    reinterpret_cast<KR::KRLoadPythonClass*>(dlsym(handle, KR::kLoadPythonClass))(KR_PYTHON_HOOK, "", loaded);
    return loaded.create(broker, "Hook");
}

void iterateInCpp(benchmark::State& state) {
    const auto broker = KR::KRBroker::create(kUnpaced);
    const auto camera = KR::createModule<StillCamera>(broker, "KRVideoDevice", 640, 480);
    const auto hook = KR::createModule<Hook>(broker, "Hook");
    hook->subscribe("benchmark", 33, 0.0F);
    for ([[maybe_unused]] auto _ : state) {
        state.SetIterationTime(hook->watch(kImages));
    }
    hook->unsubscribe("benchmark");
    state.SetLabel("640x480");
}
BENCHMARK(iterateInCpp)->Name("acquisition hook/C++")->UseManualTime()->Iterations(5);

// Times measured by a method of hook.py, in seconds.
template <class... Arguments>
void measure(benchmark::State& state, const std::string& label, bool acquires, const char* method,
             Arguments... arguments) {
    try {
        const auto broker = KR::KRBroker::create(kUnpaced);
        const auto camera = KR::createModule<StillCamera>(broker, "KRVideoDevice", 640, 480);
        const auto adder = KR::createModule<Adder>(broker, "Adder");
        const auto hook = makePythonHook(broker);
        const auto proxy = broker->getProxy("Hook");
        if (acquires) {
            proxy->call("subscribe", "benchmark", 33, 0.0F);
        }
        for ([[maybe_unused]] auto _ : state) {
            state.SetIterationTime(static_cast<double>(proxy->call<float>(method, arguments...)));
        }
        if (acquires) {
            proxy->call("unsubscribe", "benchmark");
        }
        state.SetLabel(label);
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

void iterateInPython(benchmark::State& state) {
    measure(state, "640x480", true, "watch", kImages);
}
BENCHMARK(iterateInPython)->Name("acquisition hook/Python")->UseManualTime()->Iterations(5);

void capture(benchmark::State& state) {
    measure(state, "640x480", false, "capture", kImages / 10);
}
BENCHMARK(capture)->Name("images of a film/cv2.VideoCapture")->UseManualTime()->Iterations(5);

void acquireFilm(benchmark::State& state) {
    measure(state, "640x480", false, "acquire", kImages / 10);
}
BENCHMARK(acquireFilm)->Name("images of a film/Python hook")->UseManualTime()->Iterations(5);

void callCpp(benchmark::State& state) {
    measure(state, "int to int", false, "call", 20000);
}
BENCHMARK(callCpp)->Name("call from Python/krvision")->UseManualTime()->Iterations(5);

void getPixels(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
    measure(state, std::to_string(width) + "x" + std::to_string(height), false, "pixels", width, height);
}
BENCHMARK(getPixels)
    ->Name("image.pixels/krvision")
    ->Args({160, 120})
    ->Args({2560, 1920})
    ->UseManualTime()
    ->Iterations(5);

} // namespace

BENCHMARK_MAIN();
