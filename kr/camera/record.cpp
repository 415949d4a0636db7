// kr camera record

#include "camera/cameras.hpp"
#include "camera/silence.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/interruption.hpp"
#include "tool/outputfile.hpp"
#include "tool/progress.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace KR::tool::cameraRecord {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest_s = 1e7; // some months

struct Options {
    ServiceOptions service;
    GeometryOptions geometry;
    std::vector<std::string> words; // camera numbers, then the file
    double seconds = 0;

    void declare(Arguments& arguments) {
        arguments
            .add("N... OUT", words,
                 "camera numbers, each a stream of the recording, and a file that ends in .oxv; an "
                 "existing one "
                 "is replaced")
            .required();
        arguments.add("--seconds", seconds, "duration; Ctrl-C ends it earlier")
            .required()
            .realNumber(0.01, kLongest_s);
        geometry.declare(arguments);
        service.declare(arguments);
    }
};

using Subscriptions = std::vector<std::unique_ptr<Subscription>>;

/// Records several cameras, each to a stream of one file.
class Recorder {
public:
    /// Fetches the first image of each camera and writes them.
    Recorder(Subscriptions subscriptions, int colorSpace, const std::string& path)
        : subscriptions_(std::move(subscriptions)) {
        fetch();
        std::vector<streamHeader> streams;
        for (const auto& image : images_) {
            streams.push_back({static_cast<std::uint32_t>(image->width),
                               static_cast<std::uint32_t>(image->height),
                               static_cast<std::uint32_t>(colorSpace), 8});
        }
        writer_.emplace(path, streams, getFinalName(path));
        write();
    }

    bool hasRoom() const noexcept { return writer_->hasRoom(); }

    /// Fetches an image of each camera. \throws KRError one is late, or its camera has failed
    void fetch() {
        images_.clear();
        for (const auto& subscription : subscriptions_) {
            images_.push_back(subscription->fetch());
        }
    }
    /// Writes the fetched images. \throws std::runtime_error they cannot be written
    void write() {
        std::vector<const KRImage*> frame;
        for (const auto& image : images_) {
            frame.push_back(image.get());
        }
        writer_->write(frame);
    }
    /// Ends the recording after the last complete frame.
    void close() {
        writer_->removeCutFrame();
        writer_->close();
    }

private:
    const Subscriptions subscriptions_;
    std::vector<std::unique_ptr<KRImage>> images_; // the newest of each camera
    std::optional<KROxvWriter> writer_;
};

/// Records until `end`, or until it is interrupted, the file is full or cannot be written, or a camera delivers nothing
/// for too long. What was recorded until then is kept.
/// \return DataLost if a frame is missing, or the recording ends before its time
ExitCode recordUntil(Clock::time_point end, Recorder& recorder, Interruption& interruption,
                     const std::string& path) {
    Progress progress(0);
    ExitCode code = ExitCode::Done;
    Silence silence;
    while (Clock::now() < end && !interruption.hasCome()) {
        if (!recorder.hasRoom()) {
            printError(path + ": the recording is full (4 GiB)");
            return ExitCode::DataLost;
        }
        silence.beginFetch();
        try {
            recorder.fetch();
        } catch (const KRError& error) {
            code = ExitCode::DataLost;
            if (!silence.goOn(error, interruption)) {
                printError(describe(error) + "; " + path + " ends here");
                return code;
            }
            continue;
        }
        silence.end();
        try {
            recorder.write();
        } catch (const std::runtime_error& error) {
            printError(std::string(error.what()) + "; the recording ends here");
            return ExitCode::DataLost;
        }
        progress.advance();
    }
    return code;
}

std::vector<int> readCameras(const Cameras& cameras, const std::vector<std::string>& arguments) {
    std::vector<int> numbers;
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        const std::string& text = arguments[i];
        if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) {
            throw UsageError(text + " is not a camera number");
        }
        numbers.push_back(std::stoi(text));
        cameras.require(numbers.back());
    }
    return numbers;
}

ExitCode record(const Options& options) {
    Interruption interruption;
    if (options.words.size() < 2) {
        throw UsageError("expected cameras and a file: kr camera record 0 out.oxv --seconds 5");
    }
    const std::string& path = options.words.back();
    if (getExtension(path) != ".oxv") {
        throw UsageError(path + ": the name of a recording ends in .oxv");
    }
    std::error_code error;
    if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error) &&
        !std::filesystem::is_directory(path, error)) {
        throw std::runtime_error(path + ": a recording is written to a regular file only");
    }
    if (options.geometry.getResolution() > kVGA) {
        throw UsageError("--resolution " + options.geometry.resolution +
                         ": a recording holds 160x120, 320x240 or 640x480");
    }
    const int colorSpace = options.geometry.getColorSpace();
    if (colorSpace >= static_cast<int>(oxv::kColorSpaces)) {
        throw UsageError("--color-space " + options.geometry.colorSpace + ": a recording cannot hold that");
    }
    Cameras cameras(options.service);
    const std::vector<int> numbers = readCameras(cameras, options.words);
    OutputFile out(path, "");
    Subscriptions subscriptions;
    for (const int number : numbers) {
        subscriptions.push_back(subscribe(cameras.getService(), number, options.geometry, interruption));
    }
    Recorder recorder(std::move(subscriptions), colorSpace, out.getPath());
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(options.seconds));
    const ExitCode code = recordUntil(end, recorder, interruption, path);
    recorder.close();
    out.commit();
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "record",
    .summary = "Record cameras to a file",
    .example = "  kr camera record 0 corridor.oxv --seconds 10\n"
               "  kr camera record 0 1 both.oxv --seconds 10 --camera 0=test --camera 1=v4l2:/dev/video0\n"
               "Exit code 3 if frames are missing.",
    .run = record,
});

} // namespace
} // namespace KR::tool::cameraRecord
