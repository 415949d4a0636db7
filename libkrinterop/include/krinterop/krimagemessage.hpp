#pragma once

#include "krinterop/krcdr.hpp"
#include "krplatform/krexport.hpp"
#include "krvision/krimage.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Images in the common exchange format of robot tools: `sensor_msgs/msg/Image` in CDR. Compressed ones are
/// `sensor_msgs/msg/CompressedImage`.
///
/// | colour space | encoding |
/// |---|---|
/// | 0 luma | `mono8` |
/// | 9 YUV422 | `yuv422_yuy2` |
/// | 11 RGB | `rgb8` |
/// | 13 BGR | `bgr8` |
/// | 18 BGRx | `bgra8` |
/// | any other | `8UC<layers>`, such as 8UC3: raw bytes per pixel |
///
/// The functions are reentrant.
namespace KR {

inline constexpr const char* kImageSchemaName = "sensor_msgs/msg/Image"; ///< name of the message type
/// Encoding of the schema's text, and of the messages.
inline constexpr const char* kImageSchemaEncoding = "ros2msg";
inline constexpr const char* kImageMessageEncoding = "cdr"; ///< how its messages are encoded

/// The definition of `sensor_msgs/msg/Image` with the definitions that it refers to.
KR_EXPORT std::string_view getImageSchema() noexcept;

/// Name of the message type of compressed images. Its encodings are those of images.
inline constexpr const char* kCompressedImageSchemaName = "sensor_msgs/msg/CompressedImage";
/// The definition of `sensor_msgs/msg/CompressedImage` with those that it refers to.
KR_EXPORT std::string_view getCompressedImageSchema() noexcept;

/// A decoded `sensor_msgs/msg/Image`. Refers to the message that it was decoded from.
struct KRImageMessage {
    std::int32_t seconds = 0;      ///< capture time since the Unix epoch
    std::uint32_t nanoseconds = 0; ///< of the time stamp, beyond its seconds
    std::string_view frameId;      ///< coordinate frame
    std::uint32_t height = 0;      ///< pixels
    std::uint32_t width = 0;       ///< pixels
    std::string_view encoding;     ///< how a pixel is stored, such as "bgr8"
    bool isBigEndian = false;      ///< of samples longer than a byte
    std::uint32_t step = 0;        ///< bytes from one row to the next
    KRBytes pixels;                ///< at least `height * step` bytes
};

/// The encoding of a colour space; the table above.
/// \throws std::invalid_argument the colour space does not exist
KR_EXPORT std::string getImageEncoding(int colorSpace);
/// The colour space of an encoding that has one; `yuyv` is read as `yuv422_yuy2`. nullopt for all others, `8UC<layers>`
/// among them.
KR_EXPORT std::optional<int> findColorSpaceOfEncoding(std::string_view encoding) noexcept;

/// The message of an image up to its pixels, which follow unchanged, so they need not be copied.
///
/// The frame is called `camera_<cameraId>`. A time stamp that does not fit 32 bits of seconds (before 1901, after 2038) is
/// clamped.
/// \throws std::invalid_argument the colour space does not exist; the image has fewer bytes than its geometry needs, or
/// no pixels
KR_EXPORT std::vector<unsigned char> encodeImageHeader(const KRImage& image);
/// `width * height * layers` bytes of the image's buffer. \throws std::invalid_argument as encodeImageHeader()
KR_EXPORT KRBytes getPixels(const KRImage& image);
/// The whole message, with a copy of the pixels. \throws std::invalid_argument as encodeImageHeader()
KR_EXPORT std::vector<unsigned char> encodeImage(const KRImage& image);

/// The message of a compressed image up to its bytes, which follow unchanged. The last four bytes are the number of these, a
/// uint32 that is 0 and is to be set. The frame and the time stamp are those of encodeImageHeader().
/// \param format  "jpeg"
KR_EXPORT std::vector<unsigned char> encodeCompressedImageHeader(std::int64_t time_usec, int camera,
                                                                 std::string_view format);

/// \throws KRCdrError not well-formed; no pixels, or fewer than `height * step`
KR_EXPORT KRImageMessage decodeImageMessage(KRBytes message);

/// Makes `image` the image of a message: geometry, colour space, time stamp in whole microseconds, camera (if the frame
/// is called `camera_<number>`, otherwise 0) and pixels without padding. The field of view becomes the default one.
///
/// An owned buffer that is large enough is reused, any other is replaced.
/// \param colorSpace  for encodings that do not imply one; -1: none
/// \throws KRCdrError the encoding has no colour space, and none is given or its bytes per pixel differ; rows are
/// shorter than their pixels; more pixels than an image can have. The image has not changed
KR_EXPORT void readImage(const KRImageMessage& message, KRImage& image, int colorSpace = -1);

} // namespace KR
