#pragma once

#include "tool/progress.hpp"
#include "video/framesink.hpp"

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// MCAP files (docs/mcap.md). Without libkrinterop no file is one, and everything else throws std::runtime_error.

bool isMcap(const std::string& path);

/// "none, lz4 or zstd"
inline constexpr const char* kMcapCompressions = "none, lz4 or zstd";

/// Frames of one camera as an MCAP file.
/// \param compression  one of kMcapCompressions
/// \throws std::runtime_error the file cannot be written; std::invalid_argument no such compression
std::unique_ptr<FrameSink> makeMcapSink(const std::string& path, const std::string& compression);

/// Writes complete frames of a recording to an MCAP file: each stream to the topic of its camera, or of the stream's number
/// where the cameras of the streams are not distinct.
/// \param stream  the one to copy; nullopt: all of them
/// \throws std::runtime_error one of the files cannot be read or written
void copyToMcap(const KROxvFile& recording, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, const std::string& compression,
                Progress& progress);

/// The images of a channel of an MCAP file.
struct McapImages {
    std::uint16_t channel;
    std::string topic;
    std::uint32_t width = 0;                   ///< pixels; of the first image
    std::uint32_t height = 0;                  ///< pixels
    int colorSpace = -1;                       ///< code
    std::vector<std::int64_t> timeStamps = {}; ///< of those of this geometry, microseconds
    std::uint64_t refused = 0;                 ///< of another geometry, or not supported
    std::string refusal = {};                  ///< why, of the first such image
};

struct McapTopic {
    std::string topic;
    std::string schema;
    std::string encoding; ///< of the messages
    std::uint64_t messages = 0;
};

/// Contents of an MCAP file, found by reading all of it.
struct McapContent {
    bool isIndexed = false;
    bool isClosed = false;
    std::uint64_t fileSize = 0;
    std::size_t chunks = 0;
    std::size_t attachments = 0;
    std::uint64_t messages = 0;
    std::uint64_t startTime = 0; ///< nanoseconds
    std::uint64_t endTime = 0;
    std::vector<McapTopic> topics;
    std::vector<McapImages> images; ///< in the order of streams: as they were in an oxv file, or by topic
    std::vector<std::string> damage;
};

/// \throws std::runtime_error with the path: it cannot be read
McapContent readMcap(const std::string& path, Progress& progress);

/// The images of a stream, which must have such a frame.
/// \param stream  index in McapContent::images \throws std::runtime_error with the path: there is no such stream or frame
const McapImages& chooseMcapImages(const std::string& path, const McapContent& content, std::size_t stream,
                                   std::uint64_t frame);

/// Reads images of a channel. \return gives the next one of the channel's geometry, valid until the next call; null: there
/// are no more. \throws std::runtime_error the file cannot be read, as what it returns
std::function<const KRImage*()> openMcapImages(const std::string& path, const McapImages& images);

/// Writes images of an MCAP file to an oxv file: a stream per channel, frames of the images with the same number in each.
/// \param stream  index in McapContent::images; nullopt: all of them
/// \param name    of the file to write, in errors
/// \return frames written: fewer than `count` where an oxv file has no room beyond 4 GiB
/// \throws std::runtime_error one of the files cannot be read or written; there are no images, or too large ones
std::uint64_t copyFromMcap(const std::string& in, const McapContent& content, std::uint64_t first,
                           std::uint64_t count, std::optional<std::size_t> stream, const std::string& path,
                           const std::string& name, Progress& progress);

} // namespace KR::tool
