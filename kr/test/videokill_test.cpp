// A killed recording process loses nothing that it has passed to the operating system.

#include "patience.hpp"
#include "recordings.hpp"

#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <nlohmann/json.hpp>

#include <csignal>
#include <random>
#include <system_error>
#include <thread>

namespace {

using namespace KR::test;

struct Kind {
    int resolution;
    unsigned streams;
};

class KrVideoKill : public Recordings, public testing::WithParamInterface<Kind> {
protected:
    std::size_t getChunkSize() const {
        int width = 0, height = 0;
        KR::setSizeFromResolution(GetParam().resolution, width, height);
        return static_cast<std::size_t>(2) * width * height;
    }
    std::uint64_t getFileSize() const {
        std::error_code error;
        const std::uint64_t size = std::filesystem::file_size(path("in.oxv"), error);
        return error ? 0 : size;
    }

    /// Records for a while, then is killed. \return how many chunks the recorder had finished
    std::uint32_t recordAndKill(std::chrono::microseconds delay) const {
        std::filesystem::remove(path("in.oxv"));
        const detail::File counter = detail::makeTemporaryFile();
        EXPECT_EQ(::ftruncate(::fileno(counter.get()), sizeof(std::uint32_t)), 0);
        const pid_t recorder = start({KR_RECORDER, std::to_string(GetParam().resolution),
                                      std::to_string(GetParam().streams), path("in")},
                                     ::fileno(counter.get()), STDERR_FILENO);
        EXPECT_TRUE(eventually([&] { return getFileSize() > 0; }));
        std::this_thread::sleep_for(delay); // not a wait for anything: any moment will do
        ::kill(recorder, SIGKILL);
        int status = 0;
        EXPECT_EQ(::waitpid(recorder, &status, 0), recorder);
        EXPECT_TRUE(WIFSIGNALED(status));
        std::uint32_t done = 0;
        EXPECT_EQ(::pread(::fileno(counter.get()), &done, sizeof done, 0), static_cast<ssize_t>(sizeof done));
        return done;
    }

    void expectFrames(std::uint64_t frames) const {
        KR::KRVideo video;
        video.readVideo(path("out.oxv"));
        ASSERT_EQ(video.getFrameCount(), frames);
        KR::KRImage image = makeEmptyImage();
        Bytes expected;
        for (unsigned frame = 0; frame < frames; ++frame) {
            for (unsigned stream = 0; stream < GetParam().streams; ++stream) {
                expected.clear();
                append(expected, timeStampOf(frame, stream));
                ASSERT_TRUE(video.getFrame(image, frame, stream, true));
                ASSERT_EQ(image.timeStamp, timeStampOf(frame, stream));
                ASSERT_EQ(image.bottomAngle, -0.25f);
                ASSERT_EQ(std::memcmp(image.data.get() + 25,
                                      contents_[frame % 8 * GetParam().streams + stream].data(),
                                      getChunkSize() - 25),
                          0)
                    << frame;
            }
        }
    }

    void SetUp() override {
        for (unsigned i = 0; i < 8 * GetParam().streams; ++i) {
            Bytes chunk;
            appendChunk(chunk, i / GetParam().streams, i % GetParam().streams, getChunkSize());
            contents_.emplace_back(chunk.begin() + 25, chunk.end());
        }
    }

private:
    std::vector<Bytes> contents_; // the chunks without their headers
};

TEST_P(KrVideoKill, LosesNothingPassedToTheSystem) {
    constexpr int kKills = 10;
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int kill = 0; kill < kKills; ++kill) {
        const std::uint32_t chunks =
            recordAndKill(std::chrono::microseconds(std::uniform_int_distribution(0, 3000)(random)));
        const std::uint64_t headers = 16 + 16 * GetParam().streams;
        const std::uint64_t size = getFileSize();
        ASSERT_GE(size, headers);
        const std::uint64_t frameSize = GetParam().streams * getChunkSize();
        const std::uint64_t frames = (size - headers) / frameSize;
        const bool isCut = (size - headers) % frameSize != 0;
        EXPECT_GE((size - headers) / getChunkSize(), chunks)
            << "data of a completed write() belongs to the system";

        const Outcome outcome = kr({"video", "recover", "--json", path("in.oxv"), path("out.oxv")});
        ASSERT_EQ(outcome.exitCode, isCut ? 3 : 0) << outcome.err;
        const auto json = nlohmann::json::parse(outcome.out);
        EXPECT_EQ(json["kept_frames"], frames);
        EXPECT_EQ(json["lost_frames"], isCut ? 1 : 0);
        expectFrames(frames);
        ASSERT_FALSE(HasFailure()) << "kill " << kill;
    }
}

// Three times ten kills; small chunks are written at once, large ones are sometimes truncated.
INSTANTIATE_TEST_SUITE_P(EveryKind, KrVideoKill, testing::Values(Kind{0, 1}, Kind{0, 2}, Kind{2, 1}),
                         [](const auto& kind) {
                             return "Resolution" + std::to_string(kind.param.resolution) + "Streams" +
                                    std::to_string(kind.param.streams);
                         });

} // namespace
