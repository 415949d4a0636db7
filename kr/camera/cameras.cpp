#include "camera/cameras.hpp"

#include "tool/colorspace.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <charconv>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <system_error>

namespace KR::tool {

namespace {

constexpr const char* kService = "KRVideoDevice";

// Reads the whole text as a number of at least 0; -1 if it is not one.
int readNumber(const std::string& text) {
    int number = -1;
    const char* end = text.data() + text.size();
    const auto [read, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && read == end && number >= 0 ? number : -1;
}

std::vector<std::string> listSizes() {
    std::vector<std::string> sizes;
    for (int code = 0; code <= 17; ++code) {
        int width = 0;
        int height = 0;
        setSizeFromResolution(code, width, height);
        sizes.push_back(std::to_string(width) + "x" + std::to_string(height));
    }
    return sizes;
}

// What --camera 0=SOURCE may be: the cameras of this machine, and the beginnings of the other sources.
std::vector<std::string> listSources(const std::string&) {
    std::vector<std::string> sources;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev", error)) {
        if (entry.path().filename().string().starts_with("video")) {
            sources.push_back("0=v4l2:" + entry.path().string());
        }
    }
    for (const char* kind : {"test", "file:", "image:", "oxv:", "gst:", "http://", "https://", "rtsp://"}) {
        sources.push_back(std::string("0=") + kind);
    }
    return sources;
}

boost::shared_ptr<KRBroker> connect(const ServiceOptions& options) {
#ifdef KR_WITH_DDS
    if (!options.isOwn()) {
        auto broker = options.domain.connect();
        if (!broker->getSession().waitForService(kService, Domain::kPatience)) {
            throw std::runtime_error(
                "there is no camera service on " + options.domain.getUrl() +
                ": kr serve runs one, kr doctor helps; --camera 0=SOURCE runs one for this "
                "command only");
        }
        return broker;
    }
#else
    (void)options;
#endif
    return KRBroker::create("local:");
}

KRModuleHandle<KRVideoDevice> makeService(const boost::shared_ptr<KRBroker>& broker,
                                          const ServiceOptions& options) {
    if (!options.isOwn()) {
        return {};
    }
    return createModule<KRVideoDevice>(broker, kService, options.own.readSources());
}

} // namespace

Argument SourceOptions::declare(Arguments& arguments, const std::string& otherwise) {
    return arguments
        .add("--camera", cameras,
             "source of camera N, such as 0=test:smpte, 1=file:a.mp4 or 0=v4l2:/dev/video0; may be repeated "
             "(default: " +
                 otherwise + ")")
        .valueName("N=SOURCE")
        .completes(listSources)
        .repeatable();
}

std::vector<std::string> SourceOptions::readSources() const {
    std::map<int, std::string> sources;
    for (const std::string& option : cameras) {
        const std::size_t equals = option.find('=');
        const int camera = readNumber(option.substr(0, equals));
        if (equals == std::string::npos || camera < 0) {
            throw UsageError("--camera " + option + ": expected N=SOURCE, such as 0=v4l2:/dev/video0");
        }
        if (!sources.emplace(camera, option.substr(equals + 1)).second) {
            throw UsageError("--camera " + option + ": camera " + std::to_string(camera) + " is given twice");
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

void ServiceOptions::declare(Arguments& arguments) {
#ifdef KR_WITH_DDS
    own.declare(arguments, "the cameras of the running system");
    domain.declare(arguments).excludes("--camera");
#else
    own.declare(arguments, "0=test");
#endif
}

bool ServiceOptions::isOwn() const noexcept {
#ifdef KR_WITH_DDS
    return !own.cameras.empty();
#else
    return true;
#endif
}

Cameras::Cameras(const ServiceOptions& options)
    : broker_(connect(options)), module_(makeService(broker_, options)), service_(broker_),
      count_(static_cast<int>(service_.getCameraList().size())) {}

Cameras::Cameras(const CameraOptions& options) : Cameras(options.service) {
    require(options.number);
}

void Cameras::require(int camera) const {
    if (camera < 0 || camera >= count_) {
        throw UsageError(
            "there is no camera " + std::to_string(camera) + "; there " +
            (count_ == 1 ? "is only camera 0" : "are cameras 0 to " + std::to_string(count_ - 1)));
    }
}

void CameraOptions::declare(Arguments& arguments) {
    arguments.add("N", number, "camera number").required().wholeNumber(0);
    service.declare(arguments);
}

void GeometryOptions::declare(Arguments& arguments) {
    arguments.add("--resolution", resolution, "size of the images, that of a resolution code")
        .valueName("WIDTHxHEIGHT")
        .completes(listSizes())
        .showDefault();
    declareColorSpace(arguments, colorSpace, "colour space of the images").showDefault();
}

int GeometryOptions::getResolution() const {
    const std::size_t x = resolution.find('x');
    const int width = readNumber(resolution.substr(0, x));
    const int height = x == std::string::npos ? -1 : readNumber(resolution.substr(x + 1));
    const int code = getResolutionFromSize(width, height);
    if (code < 0) {
        std::string sizes;
        for (const std::string& size : listSizes()) {
            sizes += (sizes.empty() ? "" : ", ") + size;
        }
        throw UsageError("--resolution " + resolution + ": sizes are " + sizes);
    }
    return code;
}

int GeometryOptions::getColorSpace() const {
    return parseColorSpace(colorSpace);
}

Subscription::Subscription(KRVideoDeviceProxy& service, int camera, int resolution, int colorSpace)
    : service_(service), id_(service.subscribeCamera("kr", camera, resolution, colorSpace, 30)) {}

Subscription::~Subscription() {
    try {
        service_.unsubscribe(id_);
    } catch (const KRError&) {
        // The service is gone, and the subscription with it.
    }
}

std::unique_ptr<KRImage> Subscription::fetch() {
    std::unique_ptr<KRImage> image(KRImage::fromKRValue(service_.getImageRemote(id_)));
    service_.releaseImage(id_);
    if (!image) {
        throw std::runtime_error("the camera service has sent a value that is not an image");
    }
    return image;
}

std::optional<KRSubscriptionStatistics> Subscription::getStatistics() const {
    for (KRSubscriptionStatistics& statistics : service_.getStatistics()) {
        if (statistics.id == id_) {
            return std::move(statistics);
        }
    }
    return std::nullopt;
}

std::unique_ptr<Subscription> subscribe(KRVideoDeviceProxy& service, int camera,
                                        const GeometryOptions& geometry, Interruption& interruption) {
    const int resolution = geometry.getResolution();
    const int colorSpace = geometry.getColorSpace();
    return doInterruptibly(interruption, [&service, camera, resolution, colorSpace] {
        return std::make_unique<Subscription>(service, camera, resolution, colorSpace);
    });
}

} // namespace KR::tool
