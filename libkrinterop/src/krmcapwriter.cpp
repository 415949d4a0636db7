#include "krinterop/krmcapwriter.hpp"

#include "krcrc32.hpp"
#include "krmcapcompression.hpp"
#include "krmcaprecord.hpp"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>

namespace KR {

namespace {

using mcap::Opcode;
using mcap::RecordWriter;

constexpr const char* kLibrary = "KRVision";

// Messages of this size or more are not copied where possible.
constexpr std::size_t kLargeMessage = std::size_t{64} << 10;

} // namespace

class KRMcapWriter::Private {
public:
    Private(std::unique_ptr<KRMcapOutput> output, KRMcapWriterOptions options)
        : output_(std::move(output)), options_(std::move(options)),
          compressor_(options_.compression, options_.compressionLevel) {
        RecordWriter header;
        header.bytes(mcap::kMagic);
        const std::size_t begun = header.begin(Opcode::Header);
        header.string(options_.profile);
        header.string(kLibrary);
        header.end(begun);
        append(header.get());
    }

    std::uint16_t addSchema(KRMcapSchema schema) {
        requireOpen();
        if (schemas_.size() == std::numeric_limits<std::uint16_t>::max()) {
            throw KRMcapError("a file has at most 65535 schemas");
        }
        schema.id = static_cast<std::uint16_t>(schemas_.size() + 1);
        record_.clear();
        writeSchema(record_, schema);
        append(record_.get());
        schemas_.push_back(std::move(schema));
        ++statistics_.schemas;
        return schemas_.back().id;
    }

    std::uint16_t addChannel(KRMcapChannel channel) {
        requireOpen();
        if (channel.schemaId > schemas_.size()) {
            throw KRMcapError("schema " + std::to_string(channel.schemaId) + " has not been added");
        }
        if (channels_.size() > std::numeric_limits<std::uint16_t>::max()) {
            throw KRMcapError("a file has at most 65536 channels");
        }
        channel.id = static_cast<std::uint16_t>(channels_.size());
        record_.clear();
        writeChannel(record_, channel);
        append(record_.get());
        channels_.push_back(std::move(channel));
        indexes_.emplace_back();
        statistics_.messagesPerChannel[channels_.back().id] = 0;
        ++statistics_.channels;
        return channels_.back().id;
    }

    void write(std::uint16_t channelId, std::uint32_t sequence, std::uint64_t logTime,
               std::uint64_t publishTime, std::span<const KRBytes> pieces) {
        requireOpen();
        if (channelId >= channels_.size()) {
            throw KRMcapError("channel " + std::to_string(channelId) + " has not been added");
        }
        std::uint64_t size = 0;
        for (const KRBytes piece : pieces) {
            size += piece.size();
        }
        const bool isChunked = options_.chunkSize > 0;
        RecordWriter& to = isChunked ? chunk_ : record_;
        if (!isChunked) {
            record_.clear();
        }
        const std::size_t offset = to.size();
        to.number(static_cast<std::uint8_t>(Opcode::Message));
        to.number(std::uint64_t{mcap::kMessageHeaderSize} + size);
        to.number(channelId);
        to.number(sequence);
        to.number(logTime);
        to.number(publishTime);
        count(channelId, logTime);
        if (!isChunked) {
            appendBehind(record_.get(), pieces);
            return;
        }
        if (indexes_[channelId].empty()) {
            indexed_.push_back(channelId);
        }
        indexes_[channelId].emplace_back(logTime, offset);
        chunkStart_ = std::min(chunkStart_, logTime);
        chunkEnd_ = std::max(chunkEnd_, logTime);
        if (options_.compression == KRMcapCompression::None && size >= kLargeMessage) {
            closeChunk(pieces);
            return;
        }
        for (const KRBytes piece : pieces) {
            chunk_.bytes(piece);
        }
        if (chunk_.size() >= options_.chunkSize) {
            closeChunk({});
        }
    }

    void writeAttachment(const KRMcapAttachment& attachment) {
        requireOpen();
        record_.clear();
        record_.number(static_cast<std::uint8_t>(Opcode::Attachment));
        record_.number(std::uint64_t{0});
        record_.number(attachment.logTime);
        record_.number(attachment.createTime);
        record_.string(attachment.name);
        record_.string(attachment.mediaType);
        record_.number(std::uint64_t{attachment.data.size()});
        const KRBytes content = record_.get().subspan(mcap::kRecordHeaderSize);
        std::uint32_t crc = updateCrc32(0, content.data(), content.size());
        crc = updateCrc32(crc, attachment.data.data(), attachment.data.size());
        const std::uint64_t length = content.size() + attachment.data.size() + sizeof crc;
        record_.put(1, length);
        std::array<unsigned char, sizeof crc> last;
        std::memcpy(last.data(), &crc, sizeof crc);
        attachments_.push_back({fileSize_, mcap::kRecordHeaderSize + length, attachment.logTime,
                                attachment.createTime, attachment.data.size(), attachment.name,
                                attachment.mediaType});
        const std::array<KRBytes, 2> pieces = {KRBytes(attachment.data), KRBytes(last)};
        appendBehind(record_.get(), pieces);
        ++statistics_.attachments;
    }

    void writeMetadata(const KRMcapMetadata& metadata) {
        requireOpen();
        record_.clear();
        const std::size_t begun = record_.begin(Opcode::Metadata);
        record_.string(metadata.name);
        record_.map(metadata.values);
        record_.end(begun);
        metadata_.push_back({fileSize_, record_.size(), metadata.name});
        append(record_.get());
        ++statistics_.metadata;
    }

    void flush() {
        requireOpen();
        if (!chunk_.empty()) {
            closeChunk({});
        }
    }

    void close() {
        if (isClosed_) {
            return;
        }
        flush();
        writeSummary();
        try {
            output_->close();
        } catch (const std::exception& error) {
            failure_ = error.what();
            throw;
        }
        isClosed_ = true;
    }

    bool isDone() const noexcept { return isClosed_ || failure_; }
    const KRMcapStatistics& getStatistics() const noexcept { return statistics_; }
    std::uint64_t getFileSize() const noexcept { return fileSize_; }

private:
    void requireOpen() const {
        if (failure_) {
            throw KRMcapError(*failure_);
        }
        if (isClosed_) {
            throw KRMcapError("the file has been closed");
        }
    }

    void append(KRBytes bytes) { appendBehind(bytes, {}); }

    void appendBehind(KRBytes first, std::span<const KRBytes> pieces, KRBytes last = {}) {
        pieces_.clear();
        pieces_.push_back(first);
        pieces_.insert(pieces_.end(), pieces.begin(), pieces.end());
        pieces_.push_back(last);
        try {
            output_->append(pieces_);
        } catch (const std::exception& error) {
            failure_ = error.what();
            throw;
        }
        for (const KRBytes piece : pieces_) {
            fileSize_ += piece.size();
        }
    }

    void count(std::uint16_t channelId, std::uint64_t logTime) {
        statistics_.startTime =
            statistics_.messages == 0 ? logTime : std::min(statistics_.startTime, logTime);
        statistics_.endTime = std::max(statistics_.endTime, logTime);
        ++statistics_.messages;
        ++statistics_.messagesPerChannel[channelId];
    }

    // `tail` belongs to the chunk's last message.
    void closeChunk(std::span<const KRBytes> tail) {
        std::uint64_t size = chunk_.size();
        for (const KRBytes piece : tail) {
            size += piece.size();
        }
        std::uint32_t crc = 0; // means no checksum
        if (options_.hasChunkCrcs) {
            crc = updateCrc32(0, chunk_.get().data(), chunk_.size());
            for (const KRBytes piece : tail) {
                crc = updateCrc32(crc, piece.data(), piece.size());
            }
        }
        const KRBytes content = compressor_.compress(chunk_.get());
        const std::uint64_t stored =
            options_.compression == KRMcapCompression::None ? size : std::uint64_t{content.size()};
        const std::string compression = getCompressionName(options_.compression);

        record_.clear();
        record_.number(static_cast<std::uint8_t>(Opcode::Chunk));
        record_.number(mcap::kChunkFixedSize + compression.size() + sizeof(std::uint64_t) + stored);
        record_.number(chunkStart_);
        record_.number(chunkEnd_);
        record_.number(size);
        record_.number(crc);
        record_.string(compression);
        record_.number(stored);

        KRMcapChunkIndex index;
        index.startTime = chunkStart_;
        index.endTime = chunkEnd_;
        index.offset = fileSize_;
        index.length = record_.size() + stored;
        index.compression = compression;
        index.compressedSize = stored;
        index.uncompressedSize = size;
        messageIndexes_.clear();
        writeMessageIndexes(index);

        chunkPieces_.assign(1, content);
        chunkPieces_.insert(chunkPieces_.end(), tail.begin(), tail.end());
        appendBehind(record_.get(), chunkPieces_, messageIndexes_.get());
        chunks_.push_back(std::move(index));
        ++statistics_.chunks;
        chunk_.clear();
        chunkStart_ = std::numeric_limits<std::uint64_t>::max();
        chunkEnd_ = 0;
    }

    void writeMessageIndexes(KRMcapChunkIndex& index) {
        std::ranges::sort(indexed_);
        for (const std::uint16_t channelId : indexed_) {
            auto& entries = indexes_[channelId];
            std::ranges::stable_sort(entries, {}, &std::pair<std::uint64_t, std::uint64_t>::first);
            index.messageIndexOffsets.emplace_back(channelId,
                                                   index.offset + index.length + messageIndexes_.size());
            const std::size_t begun = messageIndexes_.begin(Opcode::MessageIndex);
            messageIndexes_.number(channelId);
            messageIndexes_.number(static_cast<std::uint32_t>(entries.size() * 16));
            for (const auto& [time, offset] : entries) {
                messageIndexes_.number(time);
                messageIndexes_.number(offset);
            }
            messageIndexes_.end(begun);
            entries.clear();
        }
        indexed_.clear();
        index.messageIndexLength = messageIndexes_.size();
    }

    template <class Item, class Write>
    void writeGroup(RecordWriter& summary, RecordWriter& offsets, std::uint64_t summaryStart, Opcode opcode,
                    const std::vector<Item>& items, Write writeItem) {
        if (items.empty()) {
            return;
        }
        const std::size_t start = summary.size();
        for (const Item& item : items) {
            writeItem(summary, item);
        }
        const std::size_t begun = offsets.begin(Opcode::SummaryOffset);
        offsets.number(static_cast<std::uint8_t>(opcode));
        offsets.number(summaryStart + start);
        offsets.number(std::uint64_t{summary.size() - start});
        offsets.end(begun);
    }

    void writeSummary() {
        record_.clear();
        const std::size_t begun = record_.begin(Opcode::DataEnd);
        record_.number(std::uint32_t{0}); // no checksum: the chunks have theirs
        record_.end(begun);
        append(record_.get());

        const std::uint64_t summaryStart = fileSize_;
        RecordWriter summary, offsets;
        writeGroup(summary, offsets, summaryStart, Opcode::Schema, schemas_, mcap::writeSchema);
        writeGroup(summary, offsets, summaryStart, Opcode::Channel, channels_, mcap::writeChannel);
        writeGroup(summary, offsets, summaryStart, Opcode::Statistics, std::vector{statistics_},
                   mcap::writeStatistics);
        writeGroup(summary, offsets, summaryStart, Opcode::ChunkIndex, chunks_, mcap::writeChunkIndex);
        writeGroup(summary, offsets, summaryStart, Opcode::AttachmentIndex, attachments_,
                   mcap::writeAttachmentIndex);
        writeGroup(summary, offsets, summaryStart, Opcode::MetadataIndex, metadata_,
                   mcap::writeMetadataIndex);
        const std::uint64_t offsetsStart = summaryStart + summary.size();
        summary.bytes(offsets.get());
        summary.number(static_cast<std::uint8_t>(Opcode::Footer));
        summary.number(std::uint64_t{mcap::kFooterSize - mcap::kRecordHeaderSize});
        summary.number(summaryStart);
        summary.number(offsetsStart);
        summary.number(updateCrc32(0, summary.get().data(), summary.size()));
        summary.bytes(mcap::kMagic);
        append(summary.get());
    }

    const std::unique_ptr<KRMcapOutput> output_;
    const KRMcapWriterOptions options_;
    mcap::Compressor compressor_;
    std::optional<std::string> failure_;
    bool isClosed_ = false;
    std::uint64_t fileSize_ = 0;

    // The open chunk: its records, and time and offset of each message by channel.
    RecordWriter chunk_;
    std::uint64_t chunkStart_ = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t chunkEnd_ = 0;
    std::vector<std::vector<std::pair<std::uint64_t, std::uint64_t>>> indexes_;
    std::vector<std::uint16_t> indexed_; // channels that have messages in it

    // For the summary.
    std::vector<KRMcapSchema> schemas_;
    std::vector<KRMcapChannel> channels_;
    std::vector<KRMcapChunkIndex> chunks_;
    std::vector<KRMcapAttachmentIndex> attachments_;
    std::vector<KRMcapMetadataIndex> metadata_;
    KRMcapStatistics statistics_;

    // Reused.
    RecordWriter record_;
    RecordWriter messageIndexes_;
    std::vector<KRBytes> pieces_;
    std::vector<KRBytes> chunkPieces_;
};

KRMcapWriter::KRMcapWriter(const std::string& path, KRMcapWriterOptions options)
    : KRMcapWriter(createMcapFile(path), std::move(options)) {}

KRMcapWriter::KRMcapWriter(std::unique_ptr<KRMcapOutput> output, KRMcapWriterOptions options)
    : p_(std::make_unique<Private>(std::move(output), std::move(options))) {}

KRMcapWriter::~KRMcapWriter() {
    if (!p_->isDone()) {
        try {
            p_->close();
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): as documented
        }
    }
}

std::uint16_t KRMcapWriter::addSchema(const std::string& name, const std::string& encoding,
                                      std::string_view text) {
    return p_->addSchema({0, name, encoding, std::string(text)});
}

std::uint16_t KRMcapWriter::addChannel(const std::string& topic, const std::string& messageEncoding,
                                       std::uint16_t schemaId, const KRMcapMetadataMap& metadata) {
    return p_->addChannel({0, schemaId, topic, messageEncoding, metadata});
}

void KRMcapWriter::write(std::uint16_t channelId, std::uint32_t sequence, std::uint64_t logTime,
                         std::uint64_t publishTime, std::span<const KRBytes> pieces) {
    p_->write(channelId, sequence, logTime, publishTime, pieces);
}

void KRMcapWriter::write(std::uint16_t channelId, std::uint32_t sequence, std::uint64_t logTime,
                         std::uint64_t publishTime, KRBytes message) {
    p_->write(channelId, sequence, logTime, publishTime, std::span(&message, 1));
}

void KRMcapWriter::writeAttachment(const KRMcapAttachment& attachment) {
    p_->writeAttachment(attachment);
}

void KRMcapWriter::writeMetadata(const KRMcapMetadata& metadata) {
    p_->writeMetadata(metadata);
}

void KRMcapWriter::flush() {
    p_->flush();
}

void KRMcapWriter::close() {
    p_->close();
}

const KRMcapStatistics& KRMcapWriter::getStatistics() const noexcept {
    return p_->getStatistics();
}

std::uint64_t KRMcapWriter::getFileSize() const noexcept {
    return p_->getFileSize();
}

} // namespace KR
