#pragma once

#include "krinterop/krmcap.hpp"

#include <cstddef>
#include <memory>

namespace KR {

/// Destination of the bytes of a file. Tests replace it with a disk that fills up.
class KR_EXPORT KRMcapOutput {
public:
    virtual ~KRMcapOutput();
    KRMcapOutput() = default;
    KRMcapOutput(const KRMcapOutput&) = delete;
    KRMcapOutput& operator=(const KRMcapOutput&) = delete;

    /// Appends the pieces, one after the other. \throws KRMcapError not all of them could be written
    virtual void append(std::span<const KRBytes> pieces) = 0;
    /// Nothing is appended after that. \throws KRMcapError the data may not be on the disk
    virtual void close() = 0;
};

/// A file of the operating system, created or emptied; written without a buffer, several pieces at once.
/// \param name  name of the file in errors, if not `path`
/// \throws KRMcapError with the name: it cannot be opened
KR_EXPORT std::unique_ptr<KRMcapOutput> createMcapFile(const std::string& path, const std::string& name = "");

/// Options of a file.
struct KRMcapWriterOptions {
    KRMcapCompression compression = KRMcapCompression::None; ///< of the chunks
    /// As `lz4` and `zstd` take it: 1 is fast.
    int compressionLevel = 1;
    /// Bytes of messages after which a chunk is closed: the most that a killed process loses. 0: no chunks,
    /// each message is written at once, and found only by reading the whole file.
    std::size_t chunkSize = std::size_t{1} << 20;
    /// Whether chunks have a checksum of their content.
    bool hasChunkCrcs = true;
    std::string profile; ///< conventions that the file follows, for the header; "": none
};

/// Writes an MCAP file: chunks with message indexes, then a summary with schemas, channels, statistics and the indexes of
/// chunks, attachments and metadata.
///
/// Each chunk goes to the output in one piece as soon as it is full, so the complete chunks of a file that
/// was never closed can be read. Without compression, a message of 64 KiB or more closes its chunk and is not
/// copied. Memory grows with a chunk, and by about 100 bytes for each chunk written.
///
/// After an error of the output nothing more is written: every operation throws that error again. Reentrant.
class KR_EXPORT KRMcapWriter {
public:
    /// \throws KRMcapError the file cannot be created or written
    explicit KRMcapWriter(const std::string& path, KRMcapWriterOptions options = {});
    /// The same to another output.
    explicit KRMcapWriter(std::unique_ptr<KRMcapOutput> output, KRMcapWriterOptions options = {});
    /// Closes the file unless closed. Errors are ignored: call close() to get them.
    ~KRMcapWriter();
    KRMcapWriter(const KRMcapWriter&) = delete;
    KRMcapWriter& operator=(const KRMcapWriter&) = delete;

    /// \return the identifier for addChannel()
    /// \throws KRMcapError an error of the output; 65535 schemas have been added
    std::uint16_t addSchema(const std::string& name, const std::string& encoding, std::string_view text);
    /// \param schemaId  of addSchema(), 0: no schema
    /// \return the identifier for write()
    /// \throws KRMcapError an error of the output; no such schema; 65536 channels have been added
    std::uint16_t addChannel(const std::string& topic, const std::string& messageEncoding,
                             std::uint16_t schemaId, const KRMcapMetadataMap& metadata = {});

    /// Writes a message that consists of several pieces.
    /// \param sequence     the channel's own count; 0: none
    /// \param logTime      when it was recorded, nanoseconds since the Unix epoch
    /// \param publishTime  when it was sent, the same if unknown
    /// \throws KRMcapError an error of the output; no such channel
    void write(std::uint16_t channelId, std::uint32_t sequence, std::uint64_t logTime,
               std::uint64_t publishTime, std::span<const KRBytes> pieces);
    /// The same for a message in one piece.
    void write(std::uint16_t channelId, std::uint32_t sequence, std::uint64_t logTime,
               std::uint64_t publishTime, KRBytes message);

    /// \throws KRMcapError an error of the output
    void writeAttachment(const KRMcapAttachment& attachment);
    /// Writes a metadata record.
    void writeMetadata(const KRMcapMetadata& metadata);

    /// Closes the chunk that is open, if it has messages. \throws KRMcapError an error of the output
    void flush();
    /// Writes the rest, the summary and the end. Only then can a reader find messages without reading
    /// everything.
    /// \throws KRMcapError an error of the output, also an earlier one
    void close();

    /// Statistics so far.
    const KRMcapStatistics& getStatistics() const noexcept;
    /// Bytes written to the output.
    std::uint64_t getFileSize() const noexcept;

private:
    class Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
