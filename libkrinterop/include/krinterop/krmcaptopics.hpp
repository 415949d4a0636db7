#pragma once

#include "krinterop/krmcapreader.hpp"
#include "krinterop/krmcapwriter.hpp"
#include "krplatform/krvalue.hpp"
#include "krvision/krimage.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// The topics seen by other tools, the same in files and on the wire: docs/mcap.md.
namespace KR {

KR_EXPORT std::string getImageTopic(int camera);           ///< `/camera/N/image`
KR_EXPORT std::string getImagePropertiesTopic(int camera); ///< `/camera/N/properties`
/// Topic of the values of a memory key: "/memory/KEY".
KR_EXPORT std::string getMemoryTopic(const std::string& key);
/// Topic of an event: "/event/NAME".
KR_EXPORT std::string getEventTopic(const std::string& name);
/// Topic of a module's annotations: "/MODULE/annotations".
KR_EXPORT std::string getAnnotationsTopic(const std::string& module);

/// The camera of an image topic; nullopt if it is not one.
KR_EXPORT std::optional<int> findCameraOfImageTopic(std::string_view topic) noexcept;
/// The key of a topic of values in memory; nullopt if it is not one. Refers to `topic`.
KR_EXPORT std::optional<std::string_view> findKeyOfMemoryTopic(std::string_view topic) noexcept;
/// The event of a topic of events; nullopt if it is not one. Refers to `topic`.
KR_EXPORT std::optional<std::string_view> findEventOfTopic(std::string_view topic) noexcept;
/// Whether messages of a topic only describe others: properties of images, and annotations.
KR_EXPORT bool isDescribingTopic(std::string_view topic) noexcept;

/// JSON schema of messages on memory and event topics: `{"value": ...}`, the value as in krjson.hpp, and
/// optionally "frame".
KR_EXPORT std::string_view getValueSchema() noexcept;
/// JSON schema of messages on properties topics.
KR_EXPORT std::string_view getImagePropertiesSchema() noexcept;

inline constexpr const char* kValueSchemaName = "krvision.Value"; ///< of values and events
/// Of the properties that an image message does not hold.
inline constexpr const char* kImagePropertiesSchemaName = "krvision.ImageProperties";
inline constexpr const char* kJsonSchemaEncoding = "jsonschema"; ///< of both schemas
inline constexpr const char* kJsonMessageEncoding = "json";      ///< of messages with them

/// Properties of an image for which `sensor_msgs/msg/Image` has no field.
struct KRImageProperties {
    std::int64_t timeStamp = -1;      ///< microseconds, exactly as in the image
    int camera = 0;                   ///< the image's `cameraId`
    int colorSpace = 0;               ///< code
    int resolution = -1;              ///< code; -1: a size without code
    std::array<float, 4> angles = {}; ///< left, top, right, bottom, radians; any bits
};

/// The properties of an image.
KR_EXPORT KRImageProperties getProperties(const KRImage& image) noexcept;
/// As JSON.
KR_EXPORT std::string encodeImageProperties(const KRImageProperties& properties);
/// nullopt: not such a message. Throws nothing.
KR_EXPORT std::optional<KRImageProperties> decodeImageProperties(std::string_view json) noexcept;

/// Writes images, values in memory and events to their topics. Channels are added when they are first needed; messages of a
/// channel are numbered from 0. Reentrant.
class KR_EXPORT KRMcapRecording {
public:
    /// \param writer  must outlive this
    explicit KRMcapRecording(KRMcapWriter& writer);

    /// Writes an image, preceded by a message with its properties and the same number and times.
    /// \param camera   of the topic
    /// \param logTime  nanoseconds; nullopt: the image's time stamp
    /// \throws KRMcapError an error of the output
    /// \throws std::invalid_argument as encodeImageHeader()
    void writeImage(int camera, const KRImage& image, std::optional<std::uint64_t> logTime = std::nullopt);
    /// Bytes of strings that are not UTF-8 become U+FFFD. \throws KRMcapError an error of the output
    ///
    /// A value under a key `<Module>/Annotations` is also written to the topic of annotations, if the size of its camera's
    /// images is known.
    /// \param frame  number of the image that it belongs to, in the recording that was evaluated
    void writeMemory(const std::string& key, const KRValue& value, std::uint64_t logTime,
                     std::optional<std::uint64_t> frame = std::nullopt);
    /// Writes an event that was raised; the parameters are those of writeMemory().
    void writeEvent(const std::string& name, const KRValue& value, std::uint64_t logTime,
                    std::optional<std::uint64_t> frame = std::nullopt);
    /// Sets the size of a camera's images, pixels; writeImage() does so, too.
    void setImageSize(int camera, int width, int height);

    /// Metadata of the channels of a camera's images; before the first one is written.
    void setCameraMetadata(int camera, const KRMcapMetadataMap& metadata);

private:
    struct Channel {
        std::uint16_t id;
        std::uint32_t sequence = 0; // of the next message
    };
    struct Camera {
        Channel properties;
        Channel images;
    };
    Camera& getCamera(int camera);
    struct Size {
        int width;
        int height;
    };
    void writeValue(const std::string& topic, const KRValue& value, std::uint64_t logTime,
                    std::optional<std::uint64_t> frame);
    void writeAnnotations(const std::string& module, const KRValue& value, std::uint64_t logTime);
    Channel& getChannel(const std::string& topic, std::uint16_t schema);
    void write(Channel& channel, std::uint64_t logTime, std::string_view message);

    KRMcapWriter& writer_;
    std::uint16_t imageSchema_ = 0;
    std::uint16_t propertiesSchema_ = 0;
    std::uint16_t valueSchema_ = 0;
    std::uint16_t annotationsSchema_ = 0;
    std::map<int, KRMcapMetadataMap> cameraMetadata_;
    std::map<int, Camera> cameras_;
    std::map<int, Size> sizes_;             // by camera
    std::map<std::string, Channel> values_; // and annotations; by topic
};

/// Finds images among the messages of a file, with their properties if it has them. Reentrant.
class KR_EXPORT KRMcapImages {
public:
    /// Whether messages of the channel are images in a form that readImage() knows: `sensor_msgs/msg/Image` in CDR, whatever
    /// the topic, of any writer.
    static bool isImageChannel(const KRMcapChannel& channel, const KRMcapSchema* schema) noexcept;

    /// Processes a message; pass all messages, in the order of the file or of time.
    /// \return whether it was an image, which is in `image` now: see readImage() about its buffer
    /// \throws KRCdrError it should be an image, but is malformed or not supported
    bool take(const KRMcapMessage& message, KRImage& image);

private:
    struct Announced {
        std::uint32_t sequence;
        std::uint64_t logTime;
        KRImageProperties properties;
    };
    std::map<int, Announced> announced_; // by camera; the newest
};

} // namespace KR
