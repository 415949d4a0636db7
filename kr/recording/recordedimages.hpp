#pragma once

#include <krvision/krimage.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// The images of one camera of a recording, from the first to the last. Memory is taken for one image at a time.
class ImageReader {
public:
    virtual ~ImageReader() = default;
    ImageReader() = default;
    ImageReader(const ImageReader&) = delete;
    ImageReader& operator=(const ImageReader&) = delete;

    /// \return with pixels that nobody else has; nullopt: there are no more
    /// \throws std::runtime_error the file cannot be read
    virtual std::optional<KRImage> next() = 0;
    /// Losses found so far, one sentence each.
    virtual std::vector<std::string> getLosses() const = 0;
};

/// A camera of a recording.
struct RecordedCamera {
    int number;
    std::string text;     ///< what the file calls it: "/camera/0/image", "stream 1"
    std::uint64_t images; ///< 0: unknown
};

/// A recording by its cameras: an oxv file, or the image topics of an MCAP file.
///
/// The streams of an oxv file are the cameras that their first images say, or the numbers of the streams where these are
/// not distinct. Image topics of an MCAP file that are not called "/camera/N/image" get the lowest free numbers.
class RecordedImages {
public:
    virtual ~RecordedImages() = default;
    RecordedImages() = default;
    RecordedImages(const RecordedImages&) = delete;
    RecordedImages& operator=(const RecordedImages&) = delete;

    /// At least one, by number.
    const std::vector<RecordedCamera>& getCameras() const noexcept { return cameras_; }
    /// Reads a camera's images from the first one on. The recording must outlive the reader.
    /// \param index  of the camera in the list
    /// \throws std::runtime_error the file cannot be read
    virtual std::unique_ptr<ImageReader> read(std::size_t index) const = 0;

protected:
    std::vector<RecordedCamera> cameras_;
};

/// \throws std::runtime_error with the path: it cannot be read, is not a recording, or has no images
std::unique_ptr<RecordedImages> openRecordedImages(const std::string& path);

} // namespace KR::tool
