// kr camera record

#include "cameras.hpp"
#include "command.hpp"
#include "interruption.hpp"
#include "number.hpp"
#include "outputfile.hpp"
#include "progress.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest = 1e7; // seconds, some months

constexpr std::chrono::seconds kPatience(10);
constexpr std::chrono::milliseconds kPause(50); // before a camera that fails at once is asked again

struct Options {
    ServiceOptions cameras;
    GeometryOptions geometry;
    std::vector<std::string> arguments; ///< the cameras, and the file
    double seconds = 0;
};

using Subscriptions = std::vector<std::unique_ptr<Subscription>>;

Subscriptions subscribe(KRVideoDeviceProxy& service, const std::vector<int>& cameras, int resolution,
                        int colorSpace) {
    Subscriptions subscriptions;
    for (const int camera : cameras) {
        subscriptions.push_back(std::make_unique<Subscription>(service, camera, resolution, colorSpace));
    }
    return subscriptions;
}

/// Writes what several cameras see, each to a stream of one file.
class Recorder {
public:
    /// Takes the first image of each camera, and writes them.
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

    /// Takes an image of each camera. \throws KRError one does not come
    void fetch() {
        images_.clear();
        for (const auto& subscription : subscriptions_) {
            images_.push_back(subscription->fetch());
        }
    }
    /// Writes the images that were taken. \throws std::runtime_error they cannot be written
    void write() {
        std::vector<const KRImage*> frame;
        for (const auto& image : images_) {
            frame.push_back(image.get());
        }
        writer_->write(frame);
    }
    /// Ends the recording after the last frame that is complete.
    void close() {
        writer_->removeCutFrame();
        writer_->close();
    }

private:
    const Subscriptions subscriptions_;
    std::vector<std::unique_ptr<KRImage>> images_; // the newest one of each camera
    std::optional<KROxvWriter> writer_;
};

/// Records until `end`, or until it is interrupted, the file is full or cannot be written, or a camera is silent for
/// too long: what was recorded until then is kept.
/// \return DataLost if a frame was left out, or the recording ends before its time
ExitCode recordUntil(Clock::time_point end, Recorder& recorder, Interruption& interruption,
                     const std::string& path) {
    Progress progress(0);
    ExitCode code = ExitCode::Done;
    Clock::time_point last = Clock::now();
    while (Clock::now() < end && !interruption.hasCome()) {
        if (!recorder.hasRoom()) {
            complain(path + ": a recording holds 4 GiB, it is full");
            return ExitCode::DataLost;
        }
        try {
            recorder.fetch();
        } catch (const KRError& error) {
            if (Clock::now() - last > kPatience) {
                complain(error.getDescription() + "; " + path + " ends here");
                return ExitCode::DataLost;
            }
            if (code == ExitCode::Done) {
                complain(error.getDescription() + "; going on without");
            }
            code = ExitCode::DataLost;
            interruption.waitFor(kPause);
            continue;
        }
        try {
            recorder.write();
        } catch (const std::runtime_error& error) {
            complain(std::string(error.what()) + "; the recording ends here");
            return ExitCode::DataLost;
        }
        last = Clock::now();
        progress.advance();
    }
    return code;
}

std::vector<int> readCameras(const Cameras& cameras, const std::vector<std::string>& arguments) {
    std::vector<int> numbers;
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        const std::string& text = arguments[i];
        if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) {
            throw UsageError(text + " is not the number of a camera");
        }
        numbers.push_back(std::stoi(text));
        cameras.require(numbers.back());
    }
    return numbers;
}

ExitCode record(const Options& options) {
    Interruption interruption;
    if (options.arguments.size() < 2) {
        throw UsageError("expected one camera at least and the file: kr camera record 0 out.oxv --seconds 5");
    }
    const std::string& path = options.arguments.back();
    if (getExtension(path) != ".oxv") {
        throw UsageError(path + ": the name of a recording ends in .oxv");
    }
    std::error_code error;
    if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error) &&
        !std::filesystem::is_directory(path, error)) {
        throw std::runtime_error(path + ": a recording is written to a file, not to a device or a pipe");
    }
    const int resolution = options.geometry.getResolution();
    if (resolution > 2) {
        throw UsageError("--resolution " + options.geometry.resolution +
                         ": a recording holds 160x120, 320x240 or 640x480");
    }
    const int colorSpace = options.geometry.getColorSpace();
    if (colorSpace > 16) {
        throw UsageError("--color-space " + options.geometry.colorSpace + ": no recording holds that");
    }
    Cameras cameras(options.cameras);
    const std::vector<int> numbers = readCameras(cameras, options.arguments);
    OutputFile out(path, "");
    auto subscriptions = doInterruptibly(
        interruption, [&] { return subscribe(cameras.getService(), numbers, resolution, colorSpace); });
    Recorder recorder(std::move(subscriptions), colorSpace, out.getPath());
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(options.seconds));
    const ExitCode code = recordUntil(end, recorder, interruption, path);
    recorder.close();
    out.commit();
    return code;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("N... OUT", options->arguments,
                   "the cameras, each a stream of the recording, and a name that ends in .oxv; replaced if "
                   "it is there")
        ->required();
    app.add_option("--seconds", options->seconds, "how long; Ctrl-C ends it before")
        ->required()
        ->check(realNumber(0.01, kLongest));
    options->geometry.declare(app);
    options->cameras.declare(app);
    return [options] { return record(*options); };
}

const CommandRegistration command({"camera", "record", "Records what cameras see",
                                   "  kr camera record 0 1 both.oxv --seconds 10 --camera 0=test --camera "
                                   "1=v4l2:/dev/video0",
                                   declare});

} // namespace

} // namespace KR::tool
