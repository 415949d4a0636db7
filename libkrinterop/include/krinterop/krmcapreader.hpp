#pragma once

#include "krinterop/krmcap.hpp"

#include <cstddef>
#include <functional>
#include <limits>
#include <memory>

namespace KR {

/// Source of the bytes of a file.
class KR_EXPORT KRMcapInput {
public:
    virtual ~KRMcapInput();
    KRMcapInput() = default;
    KRMcapInput(const KRMcapInput&) = delete;
    KRMcapInput& operator=(const KRMcapInput&) = delete;

    virtual std::uint64_t getSize() = 0; ///< bytes
    /// \return how many bytes were read: fewer only at the end of the file
    /// \throws KRMcapError they cannot be read
    virtual std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) = 0;
};

/// A file of the operating system. \throws KRMcapError with the path: it cannot be opened, or is no regular file
KR_EXPORT std::unique_ptr<KRMcapInput> openMcapFile(const std::string& path);

/// A message of a file, with its channel.
struct KRMcapMessage {
    const KRMcapChannel* channel = nullptr; ///< valid as long as the reader
    const KRMcapSchema* schema = nullptr;   ///< null: the channel has none, or the file does not hold it
    std::uint32_t sequence = 0;             ///< number that its writer gave it
    std::uint64_t logTime = 0;              ///< nanoseconds
    std::uint64_t publishTime = 0;          ///< nanoseconds
    KRBytes data;                           ///< valid until the reader reads on
};

/// Limits that are checked before memory is allocated.
struct KRMcapLimits {
    /// Longest record, and largest chunk before and after decompression. Anything larger is skipped and
    /// counted.
    std::uint64_t maxRecordSize = std::uint64_t{256} << 20;
    /// Longest summary that is read; a file with a longer one is searched for its chunks.
    std::uint64_t maxSummarySize = std::uint64_t{256} << 20;
    /// Bytes, decompressed, of the chunks that are open at once when reading in time order, as their times
    /// overlap.
    std::uint64_t maxOpenChunks = std::uint64_t{1} << 30;
    /// Chunks, attachments and metadata of a file, each; beyond that, the file is not searched further.
    std::uint64_t maxRecords = 4'000'000;
};

/// Which messages to read, and in what order.
struct KRMcapSelection {
    /// File: as written. Time: by log time, equal ones as written.
    enum class Order { File, Time };
    Order order = Order::File;                                         ///< in which messages come
    std::uint64_t startTime = 0;                                       ///< of the first one, nanoseconds
    std::uint64_t endTime = std::numeric_limits<std::uint64_t>::max(); ///< of the last one
    /// Whether messages of the channel are wanted; empty: all are.
    std::function<bool(const KRMcapChannel&)> isWanted = {};
};

/// Damage found so far in a file.
struct KRMcapDamage {
    std::uint64_t wrongCrcs = 0; ///< chunks and attachments whose content is not what was written; skipped
    std::uint64_t unreadableChunks = 0; ///< unknown compression, wrong sizes, too large; skipped
    std::uint64_t badRecords = 0;       ///< malformed records; skipped
    std::uint64_t unknownChannels = 0;  ///< messages of channels that the file does not hold; skipped
    std::uint64_t cutBytes = 0;         ///< after the last complete record
    bool isClosed = true;               ///< whether the file ends as a closed one does
    std::vector<std::string> texts;     ///< a sentence for each of the first few

    /// Whether there is no damage.
    bool isNone() const noexcept {
        return wrongCrcs == 0 && unreadableChunks == 0 && badRecords == 0 && unknownChannels == 0 &&
               cutBytes == 0 && isClosed && texts.empty();
    }
};

/// Reads an MCAP file of any writer, and tolerates damage.
///
/// If the file has an intact summary with an index of its chunks, only the requested parts are read. Otherwise
/// the file is scanned from its beginning, record by record, up to the first incomplete one. Damaged chunks are skipped and counted. Records of
/// unknown kinds are skipped; messages of any schema and encoding are read as bytes. Memory grows with the largest chunk and
/// with the number of chunks. Reentrant.
class KR_EXPORT KRMcapReader {
public:
    /// \throws KRMcapError it cannot be read, or does not begin like an MCAP file
    explicit KRMcapReader(const std::string& path, KRMcapLimits limits = {});
    /// The same for another input.
    explicit KRMcapReader(std::unique_ptr<KRMcapInput> input, KRMcapLimits limits = {});
    ~KRMcapReader();
    KRMcapReader(const KRMcapReader&) = delete;
    KRMcapReader& operator=(const KRMcapReader&) = delete;

    const std::string& getProfile() const noexcept; ///< from the header
    const std::string& getLibrary() const noexcept; ///< what wrote the file
    std::uint64_t getFileSize() const noexcept;     ///< bytes

    /// Whether chunks are located through the summary; messages outside of chunks are then not found.
    bool isIndexed() const noexcept;
    /// From the summary.
    const std::optional<KRMcapStatistics>& getStatistics() const noexcept;
    /// Known so far: without a summary, channels and schemas are known once messages have been read.
    const std::map<std::uint16_t, KRMcapChannel>& getChannels() const noexcept;
    /// By number; those that have been read so far.
    const std::map<std::uint16_t, KRMcapSchema>& getSchemas() const noexcept;
    /// In the order of the file. Those found by a search lack `messageIndexOffsets`.
    const std::vector<KRMcapChunkIndex>& getChunks() const noexcept;
    /// Locations of the attachments that the file lists.
    const std::vector<KRMcapAttachmentIndex>& getAttachments() const noexcept;
    /// Locations of the metadata records that the file lists.
    const std::vector<KRMcapMetadataIndex>& getMetadata() const noexcept;

    /// Starts over with these options. Initially, all messages are read in the order of the file.
    void select(KRMcapSelection selection);
    /// The next message. \return false: there are no more
    /// \throws KRMcapError the file cannot be read; chunks that overlap in time are larger than the limit
    bool next(KRMcapMessage& message);

    /// \throws KRMcapError the file cannot be read there; it is not an attachment; too large; wrong CRC
    KRMcapAttachment readAttachment(const KRMcapAttachmentIndex& index);
    /// The same for a metadata record.
    KRMcapMetadata readMetadata(const KRMcapMetadataIndex& index);

    /// Damage in what has been read so far.
    const KRMcapDamage& getDamage() const noexcept;

private:
    class Private;
    std::unique_ptr<Private> p_;
};

/// Whether a file begins like an MCAP file; false also if it cannot be read.
KR_EXPORT bool isMcapFile(const std::string& path) noexcept;

} // namespace KR
