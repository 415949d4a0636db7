#include "krinterop/krimagemessage.hpp"

#include "krplatform/krtext.hpp"
#include "krvision/krdefaultangles.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>
#include <stdexcept>

namespace KR {

namespace {

struct Encoding {
    int colorSpace;
    std::string_view name;
};

constexpr std::array kEncodings = {
    Encoding{kLumaColorSpace, "mono8"}, Encoding{kYUV422ColorSpace, "yuv422_yuy2"},
    Encoding{kRgbColorSpace, "rgb8"}, Encoding{kBgrColorSpace, "bgr8"}, Encoding{kBgrxColorSpace, "bgra8"}};

// What std_msgs/Header refers to, behind the schema of a message that begins with it.
constexpr std::string_view kHeaderSchema =
    R"(================================================================================
MSG: std_msgs/Header
builtin_interfaces/Time stamp
string frame_id
================================================================================
MSG: builtin_interfaces/Time
int32 sec
uint32 nanosec
)";

constexpr std::string_view kFramePrefix = "camera_";
constexpr std::int64_t kUsecPerSecond = 1'000'000;
constexpr std::uint32_t kNanosecondsPerUsec = 1000;

struct Stamp {
    std::int32_t seconds;
    std::uint32_t nanoseconds;
};

Stamp toStamp(std::int64_t time_usec) {
    std::int64_t seconds = time_usec / kUsecPerSecond;
    std::int64_t rest = time_usec % kUsecPerSecond;
    if (rest < 0) {
        rest += kUsecPerSecond;
        --seconds;
    }
    if (seconds > std::numeric_limits<std::int32_t>::max()) {
        return {std::numeric_limits<std::int32_t>::max(), 999'999'999};
    }
    if (seconds < std::numeric_limits<std::int32_t>::min()) {
        return {std::numeric_limits<std::int32_t>::min(), 0};
    }
    return {static_cast<std::int32_t>(seconds), static_cast<std::uint32_t>(rest) * kNanosecondsPerUsec};
}

void writeHeader(KRCdrWriter& writer, std::int64_t time_usec, int camera) {
    const Stamp stamp = toStamp(time_usec);
    writer.write(stamp.seconds);
    writer.write(stamp.nanoseconds);
    writer.write(std::string(kFramePrefix) + std::to_string(camera));
}

signed char findCamera(std::string_view frameId) {
    int camera = 0;
    if (frameId.starts_with(kFramePrefix)) {
        const char* end = frameId.data() + frameId.size();
        const auto [last, error] = std::from_chars(frameId.data() + kFramePrefix.size(), end, camera);
        if (error == std::errc() && last == end && camera >= -128 && camera <= 127) {
            return static_cast<signed char>(camera);
        }
    }
    return 0;
}

int chooseColorSpace(const KRImageMessage& message, int colorSpace) {
    if (const std::optional<int> known = findColorSpaceOfEncoding(message.encoding)) {
        return *known;
    }
    if (colorSpace < 0) {
        throw KRCdrError("encoding \"" + escapeText(message.encoding, 60) +
                         "\" is not supported; mono8, yuv422_yuy2, rgb8, bgr8 and bgra8 are");
    }
    if (!isColorSpaceValid(colorSpace) || getImageEncoding(colorSpace) != message.encoding) {
        throw KRCdrError("colour space " + std::to_string(colorSpace) + " is not stored as encoding \"" +
                         escapeText(message.encoding, 60) + "\"");
    }
    return colorSpace;
}

bool ownsBytes(const KRImage& image, std::size_t size) {
    return image.ownsData() && image.data.use_count() == 1 &&
           boost::get_deleter<KRImage::deleter>(image.data)->size >= static_cast<std::ptrdiff_t>(size);
}

} // namespace

std::string_view getImageSchema() noexcept {
    static const std::string schema = R"(std_msgs/Header header
uint32 height
uint32 width
string encoding
uint8 is_bigendian
uint32 step
uint8[] data
)" + std::string(kHeaderSchema);
    return schema;
}

std::string_view getCompressedImageSchema() noexcept {
    static const std::string schema = R"(std_msgs/Header header
string format
uint8[] data
)" + std::string(kHeaderSchema);
    return schema;
}

std::string getImageEncoding(int colorSpace) {
    if (!isColorSpaceValid(colorSpace)) {
        throw std::invalid_argument("colour space " + std::to_string(colorSpace) +
                                    " does not exist; they are 0 to 26");
    }
    const auto found = std::ranges::find(kEncodings, colorSpace, &Encoding::colorSpace);
    return found != kEncodings.end() ? std::string(found->name)
                                     : "8UC" + std::to_string(getNumLayersInColorSpace(colorSpace));
}

std::optional<int> findColorSpaceOfEncoding(std::string_view encoding) noexcept {
    if (encoding == "yuyv") { // the newer name
        return kYUV422ColorSpace;
    }
    const auto found = std::ranges::find(kEncodings, encoding, &Encoding::name);
    return found != kEncodings.end() ? std::optional(found->colorSpace) : std::nullopt;
}

KRBytes getPixels(const KRImage& image) {
    const int layers = getNumLayersInColorSpace(image.colorSpace);
    if (layers < 0) {
        throw std::invalid_argument("colour space " + std::to_string(image.colorSpace) +
                                    " does not exist; they are 0 to 26");
    }
    constexpr int kLongestSide = 1 << 20; // so that no product wraps around
    if (image.width <= 0 || image.height <= 0 || image.width > kLongestSide || image.height > kLongestSide) {
        throw std::invalid_argument("an image of " + std::to_string(image.width) + "x" +
                                    std::to_string(image.height) + " pixels cannot be written");
    }
    const std::size_t size = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) *
                             static_cast<std::size_t>(layers);
    if (!image.data) {
        throw std::invalid_argument("the image has no pixels");
    }
    const std::ptrdiff_t owned =
        image.ownsData() ? boost::get_deleter<KRImage::deleter>(image.data)->size : -1;
    if (owned >= 0 && static_cast<std::size_t>(owned) < size) {
        throw std::invalid_argument("the image has " + std::to_string(owned) +
                                    " bytes of pixels instead of " + std::to_string(size));
    }
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        throw std::invalid_argument("the image has more than 4 GiB");
    }
    return {image.data.get(), size};
}

std::vector<unsigned char> encodeImageHeader(const KRImage& image) {
    const KRBytes pixels = getPixels(image);
    KRCdrWriter writer;
    writeHeader(writer, image.timeStamp, image.cameraId);
    writer.write(static_cast<std::uint32_t>(image.height));
    writer.write(static_cast<std::uint32_t>(image.width));
    writer.write(getImageEncoding(image.colorSpace));
    writer.write(false);
    writer.write(static_cast<std::uint32_t>(pixels.size() / static_cast<std::size_t>(image.height)));
    writer.writeLength(pixels.size());
    return writer.takeBytes();
}

std::vector<unsigned char> encodeImage(const KRImage& image) {
    std::vector<unsigned char> message = encodeImageHeader(image);
    const KRBytes pixels = getPixels(image);
    message.insert(message.end(), pixels.begin(), pixels.end());
    return message;
}

std::vector<unsigned char> encodeCompressedImageHeader(std::int64_t time_usec, int camera,
                                                       std::string_view format) {
    KRCdrWriter writer;
    writeHeader(writer, time_usec, camera);
    writer.write(format);
    writer.writeLength(0);
    return writer.takeBytes();
}

KRImageMessage decodeImageMessage(KRBytes bytes) {
    KRCdrReader reader(bytes);
    KRImageMessage message;
    message.seconds = reader.read<std::int32_t>();
    message.nanoseconds = reader.read<std::uint32_t>();
    message.frameId = reader.readString();
    message.height = reader.read<std::uint32_t>();
    message.width = reader.read<std::uint32_t>();
    message.encoding = reader.readString();
    message.isBigEndian = reader.readBool();
    message.step = reader.read<std::uint32_t>();
    message.pixels = reader.readBytes(reader.readLength(1));
    const std::uint64_t needed = std::uint64_t{message.height} * message.step;
    if (message.height == 0 || message.width == 0 || needed == 0) {
        throw KRCdrError("an image of " + std::to_string(message.width) + "x" +
                         std::to_string(message.height) + " pixels");
    }
    if (message.pixels.size() < needed) {
        throw KRCdrError("an image has " + std::to_string(message.pixels.size()) + " bytes of pixels, " +
                         std::to_string(message.height) + " rows of " + std::to_string(message.step) +
                         " are announced");
    }
    return message;
}

void readImage(const KRImageMessage& message, KRImage& image, int colorSpaceIfUntold) {
    const int colorSpace = chooseColorSpace(message, colorSpaceIfUntold);
    const int layers = getNumLayersInColorSpace(colorSpace);
    const std::uint64_t row = std::uint64_t{message.width} * static_cast<std::uint64_t>(layers);
    const std::uint64_t size = row * message.height; // at most as many as the message has bytes
    if (row > message.step) {
        throw KRCdrError("rows of " + std::to_string(message.step) + " bytes are too short for " +
                         std::to_string(message.width) + " pixels of " + std::to_string(layers));
    }
    if (std::uint64_t{message.step} * message.height > message.pixels.size()) {
        throw KRCdrError("the message has fewer pixels than its size says");
    }
    if (size > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
        throw KRCdrError("an image of " + std::to_string(message.width) + "x" +
                         std::to_string(message.height) + " pixels has more than 2 GiB");
    }
    if (!ownsBytes(image, size)) {
        image.data = KRImage::internalDataUninitialized(size);
        image.allocatedSize = static_cast<int>(size);
        image.allocatedResolution =
            getResolutionFromSize(static_cast<int>(message.width), static_cast<int>(message.height));
        image.allocatedLayers = layers;
    }
    image.width = static_cast<int>(message.width);
    image.height = static_cast<int>(message.height);
    image.nbLayers = layers;
    image.colorSpace = colorSpace;
    image.timeStamp = message.seconds * kUsecPerSecond +
                      static_cast<std::int64_t>(message.nanoseconds / kNanosecondsPerUsec);
    image.cameraId = findCamera(message.frameId);
    image.leftAngle = kDefaultAngles[0];
    image.topAngle = kDefaultAngles[1];
    image.rightAngle = kDefaultAngles[2];
    image.bottomAngle = kDefaultAngles[3];
    if (row == message.step) {
        std::memcpy(image.data.get(), message.pixels.data(), size);
    } else {
        for (std::uint32_t y = 0; y < message.height; ++y) {
            std::memcpy(image.data.get() + y * row, message.pixels.data() + std::uint64_t{y} * message.step,
                        row);
        }
    }
}

} // namespace KR
