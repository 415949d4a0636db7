// An idle module on a recording, given the images as by kr evaluate, compared with a bare loop over the same file.
// The file is in memory, so that no disk matters; with TMPDIR set, in that folder.

#include "evaluate/evaluation.hpp"
#include "tool/interruption.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

constexpr int kFrames = 300;
constexpr const char* kLabel = "300 images, 640x480 YUV422";

/// A recording of ten seconds, removed with the object.
class Recording {
public:
    Recording()
        : path_((std::getenv("TMPDIR") == nullptr && std::filesystem::is_directory("/dev/shm")
                     ? std::filesystem::path("/dev/shm")
                     : std::filesystem::temp_directory_path()) /
                ("krvision-benchmark-" + std::to_string(::getpid()) + ".oxv")) {
        KR::KRImage image(KR::kVGA, KR::kYUV422ColorSpace, false, 0.4f, 0.3f, -0.4f, -0.3f);
        KR::KROxvWriter writer(path_, {{640, 480, KR::kYUV422ColorSpace, 8}});
        for (int i = 0; i < kFrames; ++i) {
            image.timeStamp = 1'500'000'000'000'000 + i * 33'333LL;
            writer.write({&image});
        }
        writer.close();
    }
    ~Recording() { std::filesystem::remove(path_); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    std::string get() const { return path_.string(); }

private:
    const std::filesystem::path path_;
};

class Idle : public KR::KRVisionExtractor {
public:
    Idle(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, KR::kVGA, KR::kYUV422ColorSpace, 30, 0) {}
    ~Idle() override { shutDown(); }
    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage* image) override { benchmark::DoNotOptimize(image->data.get()); }
    void xStopImageProcessing() override {}
};

void evaluateIdle(benchmark::State& state) {
    const Recording file;
    KR::setLogLevel(KR::KRLogLevel::Warning);
    KR::tool::Interruption interruption;
    for ([[maybe_unused]] auto _ : state) {
        const auto recording = KR::tool::openRecordedImages(file.get());
        KR::tool::Progress progress(0);
        const KR::tool::EvaluationOutcome outcome = KR::tool::evaluate(
            *recording,
            [](const auto& broker) {
                return KR::KRModuleHandle<KR::KRModule>(KR::createModule<Idle>(broker, "Idle"));
            },
            {}, {}, progress, interruption);
        if (outcome.images != kFrames || !outcome.failure.empty()) {
            throw std::runtime_error("cannot evaluate: " + outcome.failure);
        }
    }
    state.SetLabel(kLabel);
    state.SetItemsProcessed(state.iterations() * kFrames);
}

void readPlainly(benchmark::State& state) {
    const Recording file;
    for ([[maybe_unused]] auto _ : state) {
        KR::KRVideo video;
        video.readVideo(file.get());
        KR::KRImage image(KR::kVGA, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
        for (unsigned frame = 0; frame < kFrames; ++frame) {
            if (!video.getFrame(image, frame, 0, true)) {
                throw std::runtime_error("cannot read");
            }
            benchmark::DoNotOptimize(image.data.get());
        }
    }
    state.SetLabel(kLabel);
    state.SetItemsProcessed(state.iterations() * kFrames);
}

BENCHMARK(evaluateIdle)
    ->Name("evaluate an idle module/krvision")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(readPlainly)
    ->Name("evaluate an idle module/bare KRVideo loop")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
