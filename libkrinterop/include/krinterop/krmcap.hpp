#pragma once

#include "krinterop/krcdr.hpp"
#include "krplatform/krexport.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// Parts of MCAP files, for the writer and the reader. The format: docs/mcap.md.
namespace KR {

/// A file that cannot be read or written, or is malformed. what() begins with the path, if there is one.
class KR_EXPORT KRMcapError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~KRMcapError() override;
};

/// How the chunks of a file are compressed.
enum class KRMcapCompression { None, Lz4, Zstd };

/// As files call it: "", "lz4" or "zstd".
KR_EXPORT const char* getCompressionName(KRMcapCompression compression) noexcept;

/// Names and texts, as channels and metadata records have them.
using KRMcapMetadataMap = std::map<std::string, std::string>;

/// The type of a channel's messages.
struct KRMcapSchema {
    std::uint16_t id = 0; ///< never 0
    std::string name;     ///< as "sensor_msgs/msg/Image"
    std::string encoding; ///< of the text, as "ros2msg" or "jsonschema"
    std::string text;     ///< any bytes
    friend bool operator==(const KRMcapSchema&, const KRMcapSchema&) = default;
};

/// A topic with one type and one encoding of messages.
struct KRMcapChannel {
    std::uint16_t id = 0;        ///< number in the file
    std::uint16_t schemaId = 0;  ///< 0: no schema
    std::string topic;           ///< where the messages belong
    std::string messageEncoding; ///< as "cdr" or "json"
    KRMcapMetadataMap metadata;  ///< of the channel
    friend bool operator==(const KRMcapChannel&, const KRMcapChannel&) = default;
};

/// Any file that belongs to the recording.
struct KRMcapAttachment {
    std::uint64_t logTime = 0;       ///< nanoseconds, as all times
    std::uint64_t createTime = 0;    ///< 0: unknown
    std::string name;                ///< as a file would be called
    std::string mediaType;           ///< as "text/plain"
    std::vector<unsigned char> data; ///< content
};

/// Named texts about the recording.
struct KRMcapMetadata {
    std::string name;         ///< of the record
    KRMcapMetadataMap values; ///< content
};

/// Location of an attachment.
struct KRMcapAttachmentIndex {
    std::uint64_t offset = 0;     ///< of the record in the file
    std::uint64_t length = 0;     ///< of the whole record, bytes
    std::uint64_t logTime = 0;    ///< nanoseconds since the Unix epoch
    std::uint64_t createTime = 0; ///< nanoseconds since the Unix epoch
    std::uint64_t dataSize = 0;   ///< of the content, bytes
    std::string name;             ///< as a file would be called
    std::string mediaType;        ///< of the content
};

/// Location of a metadata record.
struct KRMcapMetadataIndex {
    std::uint64_t offset = 0; ///< of the record in the file, bytes
    std::uint64_t length = 0; ///< of the record, bytes
    std::string name;         ///< of the record
};

/// Location and contents of a chunk.
struct KRMcapChunkIndex {
    std::uint64_t startTime = 0; ///< of its earliest message, nanoseconds; 0 if it has none
    std::uint64_t endTime = 0;   ///< of its latest message
    std::uint64_t offset = 0;    ///< of the record in the file
    std::uint64_t length = 0;    ///< of the whole record, bytes
    /// Channel and offset of the record that indexes its messages in this chunk.
    std::vector<std::pair<std::uint16_t, std::uint64_t>> messageIndexOffsets;
    std::uint64_t messageIndexLength = 0; ///< of these records together
    /// "", "lz4" or "zstd".
    std::string compression;
    std::uint64_t compressedSize = 0;   ///< of the records in the file, bytes
    std::uint64_t uncompressedSize = 0; ///< of the records, bytes
};

/// Counts of records, according to the file.
struct KRMcapStatistics {
    std::uint64_t messages = 0;    ///< number of messages
    std::uint16_t schemas = 0;     ///< number of schemas
    std::uint32_t channels = 0;    ///< number of channels
    std::uint32_t attachments = 0; ///< number of attachments
    std::uint32_t metadata = 0;    ///< number of metadata records
    std::uint32_t chunks = 0;      ///< number of chunks
    std::uint64_t startTime = 0;   ///< of the earliest message, nanoseconds; 0 if there is none
    std::uint64_t endTime = 0;     ///< of the last message, nanoseconds since the Unix epoch
    std::map<std::uint16_t, std::uint64_t> messagesPerChannel; ///< number of messages by channel
};

/// Nanoseconds of a time in microseconds, as all times in MCAP files; 0 for a time before 1970.
KR_EXPORT std::uint64_t toNanoseconds(std::int64_t time_usec) noexcept;

} // namespace KR
