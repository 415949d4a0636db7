#include "krinterop/krmcaptopics.hpp"

#include "krinterop/krannotationsmessage.hpp"
#include "krinterop/krimagemessage.hpp"
#include "krinterop/krjson.hpp"
#include "krplatform/krerror.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>

namespace KR {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kCameraPrefix = "/camera/";
constexpr std::string_view kImageSuffix = "/image";
constexpr std::string_view kPropertiesSuffix = "/properties";
constexpr std::string_view kMemoryPrefix = "/memory/";
constexpr std::string_view kEventPrefix = "/event/";
constexpr std::string_view kAnnotationsTopicSuffix = "/annotations";
constexpr std::string_view kAnnotationsSuffix = "/Annotations"; // of a key

constexpr std::array kAngleNames = {"left_angle", "top_angle", "right_angle", "bottom_angle"};
constexpr const char* kBitsName = "angle_bits";

std::optional<int> findCamera(std::string_view topic, std::string_view suffix) noexcept {
    if (!topic.starts_with(kCameraPrefix) || !topic.ends_with(suffix) ||
        topic.size() <= kCameraPrefix.size() + suffix.size()) {
        return std::nullopt;
    }
    const char* first = topic.data() + kCameraPrefix.size();
    const char* end = topic.data() + topic.size() - suffix.size();
    int camera = 0;
    const auto [last, error] = std::from_chars(first, end, camera);
    return error == std::errc() && last == end && *first != '-' ? std::optional(camera) : std::nullopt;
}

std::optional<std::string_view> removePrefix(std::string_view topic, std::string_view prefix) noexcept {
    return topic.starts_with(prefix) ? std::optional(topic.substr(prefix.size())) : std::nullopt;
}

KRBytes toBytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// No type checks: at() and get() throw.
KRImageProperties parse(const Json& json) {
    KRImageProperties properties;
    properties.timeStamp = json.at("time_stamp_usec").get<std::int64_t>();
    properties.camera = json.at("camera").get<int>();
    properties.colorSpace = json.at("color_space").get<int>();
    properties.resolution = json.value("resolution", -1);
    for (std::size_t i = 0; i < kAngleNames.size(); ++i) {
        if (json.contains(kBitsName)) {
            properties.angles[i] = std::bit_cast<float>(json.at(kBitsName).at(i).get<std::uint32_t>());
        } else {
            properties.angles[i] = static_cast<float>(json.at(kAngleNames[i]).get<double>());
        }
    }
    return properties;
}

} // namespace

std::string getImageTopic(int camera) {
    return std::string(kCameraPrefix) + std::to_string(camera) + std::string(kImageSuffix);
}

std::string getImagePropertiesTopic(int camera) {
    return std::string(kCameraPrefix) + std::to_string(camera) + std::string(kPropertiesSuffix);
}

std::string getMemoryTopic(const std::string& key) {
    return std::string(kMemoryPrefix) + key;
}

std::string getEventTopic(const std::string& name) {
    return std::string(kEventPrefix) + name;
}

std::string getAnnotationsTopic(const std::string& module) {
    return "/" + module + std::string(kAnnotationsTopicSuffix);
}

std::optional<int> findCameraOfImageTopic(std::string_view topic) noexcept {
    return findCamera(topic, kImageSuffix);
}

std::optional<std::string_view> findKeyOfMemoryTopic(std::string_view topic) noexcept {
    return removePrefix(topic, kMemoryPrefix);
}

std::optional<std::string_view> findEventOfTopic(std::string_view topic) noexcept {
    return removePrefix(topic, kEventPrefix);
}

bool isDescribingTopic(std::string_view topic) noexcept {
    return topic.ends_with(kPropertiesSuffix) || topic.ends_with(kAnnotationsTopicSuffix);
}

std::string_view getValueSchema() noexcept {
    return R"({
  "title": "krvision.Value",
  "description": "A value in shared memory, or that an event was raised with",
  "type": "object",
  "properties": {
    "value": {
      "description": "null, a number, a string, an array of values, or bytes as {\"base64\": \"...\"}"
    },
    "frame": {
      "type": "integer",
      "description": "number of the image that it belongs to, in the recording that was evaluated"
    }
  },
  "required": ["value"]
})";
}

std::string_view getImagePropertiesSchema() noexcept {
    return R"({
  "title": "krvision.ImageProperties",
  "description": "What belongs to the image with the same sequence number and log time on the camera's image topic",
  "type": "object",
  "properties": {
    "time_stamp_usec": {"type": "integer", "description": "capture time, microseconds; -1: not set"},
    "camera": {"type": "integer", "description": "number of the camera"},
    "color_space": {"type": "integer", "description": "colour-space code"},
    "resolution": {"type": "integer", "description": "resolution code; -1: a size without code"},
    "left_angle": {"type": ["number", "null"], "description": "edge of the field of view, radians"},
    "top_angle": {"type": ["number", "null"], "description": "radians"},
    "right_angle": {"type": ["number", "null"], "description": "radians"},
    "bottom_angle": {"type": ["number", "null"], "description": "radians"},
    "angle_bits": {
      "type": "array",
      "items": {"type": "integer"},
      "description": "if an angle is not a finite number: the four of them as IEEE 754 single precision"
    }
  },
  "required": ["time_stamp_usec", "camera", "color_space"]
})";
}

KRImageProperties getProperties(const KRImage& image) noexcept {
    return {image.timeStamp,
            image.cameraId,
            image.colorSpace,
            getResolutionFromSize(image.width, image.height),
            {image.leftAngle, image.topAngle, image.rightAngle, image.bottomAngle}};
}

std::string encodeImageProperties(const KRImageProperties& properties) {
    Json json = {{"time_stamp_usec", properties.timeStamp},
                 {"camera", properties.camera},
                 {"color_space", properties.colorSpace},
                 {"resolution", properties.resolution}};
    for (std::size_t i = 0; i < kAngleNames.size(); ++i) {
        json[kAngleNames[i]] = toJson(KRValue(properties.angles[i])); // null if it is not finite
    }
    if (!std::ranges::all_of(properties.angles, [](float angle) { return std::isfinite(angle); })) {
        for (const float angle : properties.angles) {
            json[kBitsName].push_back(std::bit_cast<std::uint32_t>(angle));
        }
    }
    return json.dump();
}

std::optional<KRImageProperties> decodeImageProperties(std::string_view text) noexcept {
    try {
        return parse(Json::parse(text));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

KRMcapRecording::KRMcapRecording(KRMcapWriter& writer) : writer_(writer) {}

void KRMcapRecording::setCameraMetadata(int camera, const KRMcapMetadataMap& metadata) {
    cameraMetadata_[camera] = metadata;
}

KRMcapRecording::Camera& KRMcapRecording::getCamera(int camera) {
    const auto found = cameras_.find(camera);
    if (found != cameras_.end()) {
        return found->second;
    }
    if (imageSchema_ == 0) {
        imageSchema_ = writer_.addSchema(kImageSchemaName, kImageSchemaEncoding, getImageSchema());
        propertiesSchema_ =
            writer_.addSchema(kImagePropertiesSchemaName, kJsonSchemaEncoding, getImagePropertiesSchema());
    }
    const KRMcapMetadataMap& metadata = cameraMetadata_[camera];
    const std::uint16_t properties = writer_.addChannel(getImagePropertiesTopic(camera), kJsonMessageEncoding,
                                                        propertiesSchema_, metadata);
    const std::uint16_t images =
        writer_.addChannel(getImageTopic(camera), kImageMessageEncoding, imageSchema_, metadata);
    return cameras_.emplace(camera, Camera{{properties}, {images}}).first->second;
}

void KRMcapRecording::writeImage(int camera, const KRImage& image, std::optional<std::uint64_t> logTime) {
    const std::vector<unsigned char> header = encodeImageHeader(image);
    const std::array<KRBytes, 2> pieces = {KRBytes(header), getPixels(image)};
    const std::string properties = encodeImageProperties(getProperties(image));
    const std::uint64_t published = toNanoseconds(image.timeStamp);
    const std::uint64_t logged = logTime.value_or(published);
    setImageSize(image.cameraId, image.width, image.height);
    Camera& channels = getCamera(camera);
    writer_.write(channels.properties.id, channels.properties.sequence++, logged, published,
                  toBytes(properties));
    writer_.write(channels.images.id, channels.images.sequence++, logged, published, pieces);
}

void KRMcapRecording::setImageSize(int camera, int width, int height) {
    sizes_.insert_or_assign(camera, Size{width, height});
}

void KRMcapRecording::writeMemory(const std::string& key, const KRValue& value, std::uint64_t logTime,
                                  std::optional<std::uint64_t> frame) {
    writeValue(getMemoryTopic(key), value, logTime, frame);
    if (key.ends_with(kAnnotationsSuffix) && key.size() > kAnnotationsSuffix.size()) {
        writeAnnotations(key.substr(0, key.size() - kAnnotationsSuffix.size()), value, logTime);
    }
}

void KRMcapRecording::writeEvent(const std::string& name, const KRValue& value, std::uint64_t logTime,
                                 std::optional<std::uint64_t> frame) {
    writeValue(getEventTopic(name), value, logTime, frame);
}

void KRMcapRecording::writeValue(const std::string& topic, const KRValue& value, std::uint64_t logTime,
                                 std::optional<std::uint64_t> frame) {
    if (valueSchema_ == 0) {
        valueSchema_ = writer_.addSchema(kValueSchemaName, kJsonSchemaEncoding, getValueSchema());
    }
    Json json = {{"value", toJson(value)}};
    if (frame) {
        json["frame"] = *frame;
    }
    write(getChannel(topic, valueSchema_), logTime,
          json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void KRMcapRecording::writeAnnotations(const std::string& module, const KRValue& value,
                                       std::uint64_t logTime) {
    std::string message;
    try {
        const KRAnnotations annotations = KRAnnotations::fromKRValue(value);
        const auto size = sizes_.find(annotations.camera);
        if (size == sizes_.end()) {
            return;
        }
        message = encodeAnnotations(annotations, size->second.width, size->second.height);
    } catch (const KRError&) {
        return; // not annotations, though the key is named so
    }
    if (annotationsSchema_ == 0) {
        annotationsSchema_ =
            writer_.addSchema(kAnnotationsSchemaName, kJsonSchemaEncoding, getAnnotationsSchema());
    }
    write(getChannel(getAnnotationsTopic(module), annotationsSchema_), logTime, message);
}

KRMcapRecording::Channel& KRMcapRecording::getChannel(const std::string& topic, std::uint16_t schema) {
    auto found = values_.find(topic);
    if (found == values_.end()) {
        found =
            values_.emplace(topic, Channel{writer_.addChannel(topic, kJsonMessageEncoding, schema)}).first;
    }
    return found->second;
}

void KRMcapRecording::write(Channel& channel, std::uint64_t logTime, std::string_view message) {
    writer_.write(channel.id, channel.sequence++, logTime, logTime, toBytes(message));
}

bool KRMcapImages::isImageChannel(const KRMcapChannel& channel, const KRMcapSchema* schema) noexcept {
    return channel.messageEncoding == kImageMessageEncoding && schema != nullptr &&
           schema->encoding == kImageSchemaEncoding &&
           (schema->name == kImageSchemaName || schema->name == "sensor_msgs/Image");
}

bool KRMcapImages::take(const KRMcapMessage& message, KRImage& image) {
    if (const std::optional<int> camera = findCamera(message.channel->topic, kPropertiesSuffix)) {
        const std::string_view text(reinterpret_cast<const char*>(message.data.data()), message.data.size());
        if (const std::optional<KRImageProperties> properties = decodeImageProperties(text)) {
            announced_[*camera] = {message.sequence, message.logTime, *properties};
        }
        return false;
    }
    if (!isImageChannel(*message.channel, message.schema)) {
        return false;
    }
    const std::optional<int> camera = findCameraOfImageTopic(message.channel->topic);
    const auto found = camera ? announced_.find(*camera) : announced_.end();
    const bool hasProperties = found != announced_.end() && found->second.sequence == message.sequence &&
                               found->second.logTime == message.logTime;
    const KRImageMessage decoded = decodeImageMessage(message.data);
    readImage(decoded, image, hasProperties ? found->second.properties.colorSpace : -1);
    if (hasProperties) {
        const KRImageProperties& properties = found->second.properties;
        image.timeStamp = properties.timeStamp;
        image.cameraId = static_cast<signed char>(properties.camera);
        image.leftAngle = properties.angles[0];
        image.topAngle = properties.angles[1];
        image.rightAngle = properties.angles[2];
        image.bottomAngle = properties.angles[3];
    } else if (camera) {
        image.cameraId = static_cast<signed char>(std::min(*camera, 127));
    }
    return true;
}

} // namespace KR
