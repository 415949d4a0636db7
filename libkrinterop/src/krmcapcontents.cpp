#include "krmcapcontents.hpp"

#include "krcrc32.hpp"
#include "krmcaprecord.hpp"

#include <algorithm>
#include <array>
#include <iterator>

namespace KR::mcap {

namespace {

constexpr std::size_t kMostTexts = 20;
constexpr std::uint64_t kLongestRun = std::uint64_t{4} << 20; // of records outside of chunks, bytes

std::string describeRecord(Opcode opcode, std::uint64_t offset) {
    return "record " + std::to_string(static_cast<int>(opcode)) + " at offset " + std::to_string(offset);
}

/// Reads small pieces of the file without a system call for each.
class Window {
public:
    Window(KRMcapInput& input, std::uint64_t fileSize) : input_(input), fileSize_(fileSize), bytes_(kSize) {}

    /// `size` bytes, at most 64 KiB; fewer at the end of the file.
    KRBytes peek(std::uint64_t offset, std::uint64_t size) {
        size = std::min({size, std::uint64_t{kSize}, fileSize_ - std::min(fileSize_, offset)});
        if (offset < start_ || offset + size > start_ + length_) {
            start_ = offset;
            length_ = input_.readAt(bytes_.data(), kSize, offset);
        }
        return KRBytes(bytes_).subspan(offset - start_,
                                       std::min<std::uint64_t>(size, length_ - (offset - start_)));
    }

private:
    static constexpr std::size_t kSize = std::size_t{64} << 10;
    KRMcapInput& input_;
    const std::uint64_t fileSize_;
    std::vector<unsigned char> bytes_;
    std::uint64_t start_ = 0;
    std::uint64_t length_ = 0;
};

/// Searches the file from its beginning.
class Search {
public:
    Search(KRMcapInput& input, const KRMcapLimits& limits, KRMcapDamage& damage, Contents& contents)
        : limits_(limits), damage_(damage), contents_(contents), fileSize_(input.getSize()),
          window_(input, fileSize_) {}

    void run() {
        std::uint64_t offset = kMagic.size();
        bool isAtEnd = false;
        while (!isAtEnd && offset < fileSize_) {
            const KRBytes header = window_.peek(offset, kRecordHeaderSize);
            if (header.size() < kRecordHeaderSize) {
                break;
            }
            RecordReader reader(header);
            const auto opcode = static_cast<Opcode>(reader.number<std::uint8_t>());
            const auto length = reader.number<std::uint64_t>();
            if (length > fileSize_ - offset - kRecordHeaderSize || opcode == Opcode{0} || isFull()) {
                break;
            }
            isAtEnd = opcode == Opcode::DataEnd || opcode == Opcode::Footer;
            try {
                take(opcode, offset, length);
            } catch (const KRMcapError& error) {
                ++(opcode == Opcode::Chunk ? damage_.unreadableChunks : damage_.badRecords);
                note(damage_, describeRecord(opcode, offset) + ": " + error.what());
            }
            offset += kRecordHeaderSize + length;
        }
        if (!isAtEnd && offset < fileSize_) {
            damage_.cutBytes = fileSize_ - offset;
            note(damage_, isFull() ? "there are more than " + std::to_string(limits_.maxRecords) + " chunks"
                                   : "the last " + std::to_string(damage_.cutBytes) +
                                         " bytes are not a complete record");
        }
        // Now that they no longer move.
        std::size_t next = 0;
        for (Segment& segment : contents_.segments) {
            if (next < contents_.chunks.size() && contents_.chunks[next].offset == segment.offset) {
                segment.chunk = &contents_.chunks[next++];
            }
        }
    }

private:
    bool isFull() const noexcept {
        return contents_.segments.size() >= limits_.maxRecords ||
               contents_.attachments.size() >= limits_.maxRecords ||
               contents_.metadata.size() >= limits_.maxRecords;
    }

    void take(Opcode opcode, std::uint64_t offset, std::uint64_t length) {
        RecordReader content(window_.peek(offset + kRecordHeaderSize, length));
        switch (opcode) {
        case Opcode::Header:
            contents_.profile = content.string();
            contents_.writerLibrary = content.string();
            break;
        case Opcode::Schema:
        case Opcode::Channel:
        case Opcode::Message:
            takeLooseRecord(opcode, offset, length, content);
            break;
        case Opcode::Chunk:
            takeChunk(offset, length, content);
            break;
        case Opcode::Attachment:
            takeAttachment(offset, length, content);
            break;
        case Opcode::Metadata:
            contents_.metadata.push_back({offset, kRecordHeaderSize + length, content.string()});
            break;
        default: // not needed, or unknown
            break;
        }
    }

    void takeLooseRecord(Opcode opcode, std::uint64_t offset, std::uint64_t length, RecordReader content) {
        if (length > limits_.maxRecordSize) {
            throw KRMcapError(std::to_string(length) + " bytes exceed the limit of " +
                              std::to_string(limits_.maxRecordSize));
        }
        const std::uint64_t size = kRecordHeaderSize + length;
        std::vector<Segment>& segments = contents_.segments;
        const bool isContinued = !segments.empty() && !isChunk(segments.back()) &&
                                 segments.back().offset + segments.back().length == offset &&
                                 segments.back().length + size <= kLongestRun;
        if (!isContinued) {
            segments.push_back({offset, 0, std::numeric_limits<std::uint64_t>::max(), 0, nullptr});
        }
        Segment& segment = segments.back();
        segment.length += size;
        if (opcode == Opcode::Message) {
            content.bytes(sizeof(std::uint16_t) + sizeof(std::uint32_t));
            const auto logTime = content.number<std::uint64_t>();
            segment.startTime = std::min(segment.startTime, logTime);
            segment.endTime = std::max(segment.endTime, logTime);
        }
    }

    void takeChunk(std::uint64_t offset, std::uint64_t length, RecordReader content) {
        KRMcapChunkIndex chunk;
        chunk.offset = offset;
        chunk.length = kRecordHeaderSize + length;
        chunk.startTime = content.number<std::uint64_t>();
        chunk.endTime = content.number<std::uint64_t>();
        chunk.uncompressedSize = content.number<std::uint64_t>();
        content.bytes(sizeof(std::uint32_t));
        chunk.compression = content.string();
        chunk.compressedSize = content.number<std::uint64_t>();
        contents_.segments.push_back({offset, chunk.length, chunk.startTime, chunk.endTime, nullptr});
        contents_.chunks.push_back(std::move(chunk));
    }

    bool isChunk(const Segment& segment) const noexcept {
        return !contents_.chunks.empty() && contents_.chunks.back().offset == segment.offset;
    }

    void takeAttachment(std::uint64_t offset, std::uint64_t length, RecordReader content) {
        KRMcapAttachmentIndex index;
        index.offset = offset;
        index.length = kRecordHeaderSize + length;
        index.logTime = content.number<std::uint64_t>();
        index.createTime = content.number<std::uint64_t>();
        index.name = content.string();
        index.mediaType = content.string();
        index.dataSize = content.number<std::uint64_t>();
        contents_.attachments.push_back(std::move(index));
    }

    const KRMcapLimits& limits_;
    KRMcapDamage& damage_;
    Contents& contents_;
    const std::uint64_t fileSize_;
    Window window_;
};

void parseSummaryRecord(Opcode opcode, KRBytes content, Contents& contents) {
    switch (opcode) {
    case Opcode::Schema: {
        KRMcapSchema schema = parseSchema(content);
        const std::uint16_t id = schema.id;
        contents.schemas.try_emplace(id, std::move(schema));
        break;
    }
    case Opcode::Channel: {
        KRMcapChannel channel = parseChannel(content);
        const std::uint16_t id = channel.id;
        contents.channels.try_emplace(id, std::move(channel));
        break;
    }
    case Opcode::ChunkIndex:
        contents.chunks.push_back(parseChunkIndex(content));
        break;
    case Opcode::AttachmentIndex:
        contents.attachments.push_back(parseAttachmentIndex(content));
        break;
    case Opcode::MetadataIndex:
        contents.metadata.push_back(parseMetadataIndex(content));
        break;
    case Opcode::Statistics:
        contents.statistics = parseStatistics(content);
        break;
    default:
        break;
    }
}

// Whether the summary suffices to read the messages.
bool isComplete(const Contents& contents) {
    if (contents.chunks.empty()) {
        return contents.statistics && contents.statistics->messages == 0;
    }
    const bool hasChannels = std::ranges::all_of(contents.chunks, [&](const KRMcapChunkIndex& chunk) {
        return std::ranges::all_of(chunk.messageIndexOffsets, [&](const auto& entry) {
            return contents.channels.contains(entry.first);
        });
    });
    return hasChannels && !contents.channels.empty() &&
           (!contents.statistics || contents.statistics->chunks == contents.chunks.size());
}

/// Reads the summary, which lies between the data and the end, if there is one.
/// \throws KRMcapError it is malformed
void readSummary(KRMcapInput& input, const KRMcapLimits& limits, std::uint64_t fileSize, KRBytes footer,
                 Contents& contents) {
    RecordReader reader(footer.subspan(kRecordHeaderSize));
    const auto start = reader.number<std::uint64_t>();
    reader.number<std::uint64_t>(); // where the offsets of the groups are
    const auto crc = reader.number<std::uint32_t>();
    if (start == 0) {
        return; // no summary
    }
    const std::uint64_t end = fileSize - kMagic.size() - kFooterSize;
    if (start < kMagic.size() || start > end) {
        throw KRMcapError("the summary cannot begin at offset " + std::to_string(start));
    }
    // The checksum includes the footer, except for the checksum itself.
    const std::uint64_t size = end - start + kFooterSize - sizeof crc;
    if (size > limits.maxSummarySize) {
        throw KRMcapError("the summary has " + std::to_string(size) + " bytes, the limit is " +
                          std::to_string(limits.maxSummarySize));
    }
    std::vector<unsigned char> bytes(size);
    if (input.readAt(bytes.data(), size, start) != size) {
        throw KRMcapError("the summary cannot be read");
    }
    if (crc != 0 && updateCrc32(0, bytes.data(), size) != crc) {
        throw KRMcapError("the summary has a wrong CRC");
    }
    RecordReader records(KRBytes(bytes).first(end - start));
    while (!records.atEnd()) {
        const auto opcode = static_cast<Opcode>(records.number<std::uint8_t>());
        parseSummaryRecord(opcode, records.bytes(records.number<std::uint64_t>()), contents);
    }
    // Overlapping chunks could make a small file take forever to read.
    std::ranges::sort(contents.chunks, {}, &KRMcapChunkIndex::offset);
    std::uint64_t first = kMagic.size();
    for (const KRMcapChunkIndex& chunk : contents.chunks) {
        if (chunk.offset < first || chunk.length > end || chunk.offset > end - chunk.length) {
            throw KRMcapError("the summary lists a chunk at offset " + std::to_string(chunk.offset) +
                              ", which is not in the file");
        }
        first = chunk.offset + chunk.length;
    }
}

bool useSummary(KRMcapInput& input, const KRMcapLimits& limits, KRMcapDamage& damage, Contents& contents) {
    const std::uint64_t fileSize = input.getSize();
    std::array<unsigned char, kFooterSize + kMagic.size()> end{};
    const bool isLong = fileSize >= kMagic.size() + end.size();
    damage.isClosed = isLong && input.readAt(end.data(), end.size(), fileSize - end.size()) == end.size() &&
                      static_cast<Opcode>(end[0]) == Opcode::Footer &&
                      std::equal(kMagic.begin(), kMagic.end(), end.end() - kMagic.size());
    if (!damage.isClosed) {
        note(damage, "the file was never closed, or was truncated");
        return false;
    }
    Contents found;
    try {
        readSummary(input, limits, fileSize, KRBytes(end).first(kFooterSize), found);
    } catch (const KRMcapError& error) {
        ++damage.badRecords;
        note(damage, error.what());
        return false;
    }
    if (!isComplete(found)) {
        contents.statistics = std::move(found.statistics);
        return false;
    }
    contents = std::move(found);
    contents.isIndexed = true;
    for (const KRMcapChunkIndex& chunk : contents.chunks) {
        contents.segments.push_back({chunk.offset, chunk.length, chunk.startTime, chunk.endTime, &chunk});
    }
    return true;
}

void readHeader(KRMcapInput& input, KRMcapDamage& damage, Contents& contents) {
    constexpr std::size_t kLongest = 4096; // two short texts
    std::array<unsigned char, kLongest> bytes;
    const std::size_t size = input.readAt(bytes.data(), bytes.size(), kMagic.size());
    try {
        RecordReader reader(KRBytes(bytes).first(size));
        if (static_cast<Opcode>(reader.number<std::uint8_t>()) != Opcode::Header) {
            throw KRMcapError("it is missing");
        }
        RecordReader content(reader.bytes(reader.number<std::uint64_t>()));
        contents.profile = content.string();
        contents.writerLibrary = content.string();
    } catch (const KRMcapError& error) {
        ++damage.badRecords;
        note(damage, std::string("the header: ") + error.what());
    }
}

} // namespace

void note(KRMcapDamage& damage, std::string text) {
    if (damage.texts.size() < kMostTexts) {
        damage.texts.push_back(std::move(text));
    }
}

void readContents(KRMcapInput& input, const KRMcapLimits& limits, KRMcapDamage& damage, Contents& contents) {
    std::array<unsigned char, kMagic.size()> magic{};
    if (input.readAt(magic.data(), magic.size(), 0) != magic.size() || magic != kMagic) {
        throw KRMcapError("it is not an MCAP file");
    }
    if (useSummary(input, limits, damage, contents)) {
        readHeader(input, damage, contents);
    } else {
        Search(input, limits, damage, contents).run();
    }
}

} // namespace KR::mcap
