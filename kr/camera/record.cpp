// kr camera record

#include "cameras.hpp"
#include "command.hpp"
#include "interruption.hpp"
#include "number.hpp"
#include "outputfile.hpp"
#include "progress.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krvideo.hpp>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest = 1e7;                               // seconds, some months
constexpr std::uint64_t kLargestFile = std::uint64_t{1} << 32; // readers find no frames beyond
constexpr std::chrono::seconds kPatience(10);

struct Options {
    ServiceOptions cameras;
    GeometryOptions geometry;
    std::vector<std::string> arguments; ///< the cameras, and the file
    double seconds = 0;
};

/// Writes what several cameras see, each to a stream of one file.
class Recorder {
public:
    /// \param path  ends in ".oxv"
    Recorder(KRVideoDeviceProxy& service, const std::vector<int>& cameras, int resolution, int colorSpace,
             std::string path)
        : path_(std::move(path)) {
        std::vector<streamHeader> streams;
        for (const int camera : cameras) {
            subscriptions_.push_back(std::make_unique<Subscription>(service, camera, resolution, colorSpace));
            const std::unique_ptr<KRImage> image = subscriptions_.back()->fetch();
            streams.push_back({static_cast<std::uint32_t>(image->width),
                               static_cast<std::uint32_t>(image->height),
                               static_cast<std::uint32_t>(colorSpace), 8});
            frameSize_ += getSize(*image);
        }
        expectedSize_ = 16 + 16 * streams.size();
        video_.recordVideo(path_.substr(0, path_.size() - 4), 0, streams); // which adds the extension
    }

    bool hasRoom() const noexcept { return expectedSize_ + frameSize_ <= kLargestFile; }

    /// Takes an image of each camera. \throws KRError one does not come, and nothing is written
    void recordFrame() {
        std::vector<std::unique_ptr<KRImage>> images;
        for (const auto& subscription : subscriptions_) {
            images.push_back(subscription->fetch());
        }
        for (const auto& image : images) {
            video_.write(reinterpret_cast<char*>(image->data.get()), static_cast<int>(getSize(*image)),
                         image->timeStamp, image->cameraId, image->leftAngle, image->topAngle,
                         image->rightAngle, image->bottomAngle);
        }
        expectedSize_ += frameSize_;
    }

    /// \throws std::runtime_error not everything could be written
    void close() {
        video_.closeVideo();
        if (std::filesystem::file_size(path_) != expectedSize_) {
            throw std::runtime_error(path_ + ": not everything could be written; is the disk full?");
        }
    }

private:
    static std::uint64_t getSize(const KRImage& image) {
        return static_cast<std::uint64_t>(image.width) * static_cast<std::uint64_t>(image.height) *
               static_cast<std::uint64_t>(image.nbLayers);
    }

    const std::string path_;
    std::vector<std::unique_ptr<Subscription>> subscriptions_;
    KRVideo video_;
    std::uint64_t frameSize_ = 0;
    std::uint64_t expectedSize_ = 0;
};

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
    Recorder recorder(cameras.getService(), readCameras(cameras, options.arguments), resolution, colorSpace,
                      path);
    Progress progress(0);
    ExitCode code = ExitCode::Done;
    Clock::time_point last = Clock::now();
    const Clock::time_point end =
        last + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
    while (Clock::now() < end && !interruption.hasCome()) {
        if (!recorder.hasRoom()) {
            complain(path + ": a recording holds 4 GiB, it is full");
            code = ExitCode::DataLost;
            break;
        }
        try {
            recorder.recordFrame();
            last = Clock::now();
            progress.advance();
        } catch (const KRError& error) {
            if (Clock::now() - last > kPatience) {
                recorder.close();
                throw;
            }
            if (code == ExitCode::Done) {
                complain(error.getDescription() + "; going on without");
            }
            code = ExitCode::DataLost;
        }
    }
    recorder.close();
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
