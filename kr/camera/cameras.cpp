#include "cameras.hpp"

#include "colorspace.hpp"
#include "command.hpp"
#ifdef KR_WITH_DDS
#include "domain.hpp"
#endif

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <CLI/CLI.hpp>

#include <charconv>
#include <map>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr const char* kService = "KRVideoDevice";

// The whole text as a number that is not negative; -1 if it is none.
int readNumber(const std::string& text) {
    int number = -1;
    const char* end = text.data() + text.size();
    const auto [read, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && read == end && number >= 0 ? number : -1;
}

boost::shared_ptr<KRBroker> connect([[maybe_unused]] const std::string& url) {
    setLogLevel(KRLogLevel::Warning);
#ifdef KR_WITH_DDS
    if (!url.empty()) {
        const auto broker = connectTo(url);
        waitForModule(*broker, kService);
        return broker;
    }
#endif
    return KRBroker::create("local:");
}

KRModuleHandle<KRVideoDevice> makeService(const boost::shared_ptr<KRBroker>& broker,
                                          const ServiceOptions& options) {
    if (!options.broker.empty()) {
        return {};
    }
    return createModule<KRVideoDevice>(broker, kService, options.own.readSources());
}

} // namespace

void CameraOptions::declare(CLI::App& app) {
    app.add_option(
           "--camera", cameras,
           "N=SOURCE: what camera N is, such as 0=test:smpte, 1=file:a.mp4 or 0=v4l2:/dev/video0. May be "
           "given several times; without it camera 0 is test")
        ->take_all()
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

std::vector<std::string> CameraOptions::readSources() const {
    std::map<int, std::string> sources;
    for (const std::string& option : cameras) {
        const std::size_t equals = option.find('=');
        const int camera = readNumber(option.substr(0, equals));
        if (equals == std::string::npos || camera < 0) {
            throw UsageError("--camera " + option + ": expected N=SOURCE, such as 0=v4l2:/dev/video0");
        }
        if (!sources.emplace(camera, option.substr(equals + 1)).second) {
            throw UsageError("--camera " + option + ": there is a camera " + std::to_string(camera) +
                             " already");
        }
    }
    if (sources.empty()) {
        return {"test"};
    }
    std::vector<std::string> list;
    for (auto& [camera, source] : sources) {
        if (camera != static_cast<int>(list.size())) {
            throw UsageError("--camera: camera " + std::to_string(list.size()) +
                             " is missing; they are numbered from 0");
        }
        list.push_back(std::move(source));
    }
    return list;
}

void ServiceOptions::declare(CLI::App& app) {
    own.declare(app);
#ifdef KR_WITH_DDS
    app.add_option(
           "--broker", broker,
           "Address of brokers that have a camera service, such as dds:; its cameras instead of --camera")
        ->type_name("URL")
        ->excludes("--camera");
#endif
}

Cameras::Cameras(const ServiceOptions& options)
    : broker_(connect(options.broker)), module_(makeService(broker_, options)), service_(broker_),
      count_(static_cast<int>(service_.getCameraList().size())) {}

void Cameras::require(int camera) const {
    if (camera < 0 || camera >= count_) {
        throw UsageError(
            "there is no camera " + std::to_string(camera) + "; there " +
            (count_ == 1 ? "is only camera 0" : "are cameras 0 to " + std::to_string(count_ - 1)));
    }
}

void GeometryOptions::declare(CLI::App& app) {
    app.add_option("--resolution", resolution,
                   "WIDTHxHEIGHT, the size of one of the resolution codes; 640x480 if it "
                   "is not told");
    app.add_option("--color-space", colorSpace, listColorSpaces() + "; yuv422 if it is not told");
}

int GeometryOptions::getResolution() const {
    const std::size_t x = resolution.find('x');
    const int width = readNumber(resolution.substr(0, x));
    const int height = x == std::string::npos ? -1 : readNumber(resolution.substr(x + 1));
    const int code = getResolutionFromSize(width, height);
    if (code < 0) {
        std::string sizes;
        for (int known = 0; known <= 17; ++known) {
            int knownWidth = 0;
            int knownHeight = 0;
            setSizeFromResolution(known, knownWidth, knownHeight);
            sizes +=
                (known == 0 ? "" : ", ") + std::to_string(knownWidth) + "x" + std::to_string(knownHeight);
        }
        throw UsageError("--resolution " + resolution + ": there are " + sizes);
    }
    return code;
}

int GeometryOptions::getColorSpace() const {
    const auto found = findColorSpace(colorSpace);
    if (!found) {
        throw UsageError("there is no colour space " + colorSpace + "; known are " + listColorSpaces());
    }
    return *found;
}

Subscription::Subscription(KRVideoDeviceProxy& service, int camera, int resolution, int colorSpace)
    : service_(service), id_(service.subscribeCamera("kr", camera, resolution, colorSpace, 30)) {}

Subscription::~Subscription() {
    try {
        service_.unsubscribe(id_);
    } catch (const KRError&) {
        // The service has gone, and the subscription with it.
    }
}

std::unique_ptr<KRImage> Subscription::fetch() {
    std::unique_ptr<KRImage> image(KRImage::fromKRValue(service_.getImageRemote(id_)));
    service_.releaseImage(id_);
    if (!image) {
        throw std::runtime_error("the camera service has sent something that is no image");
    }
    return image;
}

KRSubscriptionStatistics Subscription::getStatistics() const {
    for (KRSubscriptionStatistics& statistics : service_.getStatistics()) {
        if (statistics.id == id_) {
            return std::move(statistics);
        }
    }
    throw std::runtime_error("the camera service is another one and knows nothing of the images so far");
}

} // namespace KR::tool
