#include "krinterop/krmcapreader.hpp"

#include "krcrc32.hpp"
#include "krmcapcompression.hpp"
#include "krmcapcontents.hpp"
#include "krmcaprecord.hpp"

#include <algorithm>
#include <array>
#include <queue>

namespace KR {

namespace {

using mcap::note;
using mcap::Opcode;
using mcap::RecordReader;
using mcap::Segment;

/// A segment whose records are in memory.
struct OpenSegment {
    Segment* segment = nullptr;
    mcap::Buffer stored;
    mcap::Buffer decompressed;
    KRBytes records;
    std::size_t position = 0; // of the next record
    bool isCounted = false;   // whether its damage counts: not when it is read again

    // For reading in time order: the wanted messages not yet read.
    struct Entry {
        std::uint64_t time;
        std::size_t position;
    };
    std::vector<Entry> entries;
    std::size_t nextEntry = 0;
    std::uint64_t getNextTime() const noexcept { return entries[nextEntry].time; }
};

struct IsLater {
    bool operator()(const OpenSegment* a, const OpenSegment* b) const noexcept {
        return std::pair(a->getNextTime(), a->segment->offset) >
               std::pair(b->getNextTime(), b->segment->offset);
    }
};

struct Record {
    Opcode opcode;
    KRBytes content;
};

} // namespace

class KRMcapReader::Private {
public:
    Private(std::unique_ptr<KRMcapInput> input, KRMcapLimits limits, std::string path)
        : input_(std::move(input)), limits_(limits), path_(std::move(path)), fileSize_(input_->getSize()) {
        try {
            readContents(*input_, limits_, damage_, contents_);
        } catch (const KRMcapError& error) {
            fail(error.what());
        }
        select({});
    }

    void select(KRMcapSelection selection) {
        selection_ = std::move(selection);
        areWanted_.assign(kMostChannels, kUnknown);
        current_.records = {};
        current_.position = 0;
        nextSegment_ = 0;
        byTime_.clear();
        openByTime_ = {};
        opened_.clear();
        openBytes_ = 0;
        lastRead_ = nullptr;
        if (selection_.order == KRMcapSelection::Order::Time) {
            if (!contents_.isIndexed && !hasLearned_) {
                learnChannels();
            }
            for (Segment& segment : contents_.segments) {
                byTime_.push_back(&segment);
            }
            std::ranges::stable_sort(byTime_, {}, &Segment::startTime);
        }
    }

    bool next(KRMcapMessage& message) {
        return selection_.order == KRMcapSelection::Order::Time ? nextByTime(message) : nextInFile(message);
    }

    KRMcapAttachment readAttachment(const KRMcapAttachmentIndex& index) {
        const std::vector<unsigned char> bytes = readRecord(Opcode::Attachment, index.offset, index.length);
        const KRBytes content = bytes;
        RecordReader reader(content);
        KRMcapAttachment attachment;
        attachment.logTime = reader.number<std::uint64_t>();
        attachment.createTime = reader.number<std::uint64_t>();
        attachment.name = reader.string();
        attachment.mediaType = reader.string();
        const KRBytes data = reader.bytes(reader.number<std::uint64_t>());
        attachment.data.assign(data.begin(), data.end());
        const auto crc = reader.number<std::uint32_t>();
        const std::size_t checked = content.size() - reader.rest().size() - sizeof crc;
        if (crc != 0 && updateCrc32(0, content.data(), checked) != crc) {
            ++damage_.wrongCrcs;
            fail("attachment \"" + attachment.name + "\" has a wrong CRC");
        }
        return attachment;
    }

    KRMcapMetadata readMetadata(const KRMcapMetadataIndex& index) {
        const std::vector<unsigned char> content = readRecord(Opcode::Metadata, index.offset, index.length);
        RecordReader reader(content);
        KRMcapMetadata metadata;
        metadata.name = reader.string();
        metadata.values = reader.map();
        return metadata;
    }

    const mcap::Contents& getContents() const noexcept { return contents_; }
    const KRMcapDamage& getDamage() const noexcept { return damage_; }
    std::uint64_t getFileSize() const noexcept { return fileSize_; }

private:
    static constexpr std::size_t kMostChannels = 65536;
    static constexpr signed char kUnknown = -1;

    [[noreturn]] void fail(const std::string& what) const {
        throw KRMcapError(path_.empty() ? what : path_ + ": " + what);
    }

    // ---- segments

    // \return false: it is damaged; that has been counted
    bool load(OpenSegment& open, Segment& segment, bool isCounted) {
        open.segment = &segment;
        open.records = {};
        open.position = 0;
        open.entries.clear();
        open.nextEntry = 0;
        open.isCounted = isCounted && !segment.isRead;
        segment.isRead = segment.isRead || isCounted;
        if (segment.chunk == nullptr) {
            unsigned char* to = open.stored.prepare(segment.length);
            open.records = {to, input_->readAt(to, segment.length, segment.offset)};
            return true;
        }
        std::uint64_t* counter = &damage_.unreadableChunks;
        try {
            loadChunk(open, *segment.chunk, counter);
            return true;
        } catch (const KRMcapError& error) {
            if (open.isCounted) {
                ++*counter;
                note(damage_, "chunk at offset " + std::to_string(segment.offset) + ": " + error.what());
            }
            return false;
        }
    }

    // \param counter  of damage: changed if the checksum is wrong
    void loadChunk(OpenSegment& open, const KRMcapChunkIndex& chunk, std::uint64_t*& counter) {
        constexpr std::size_t kLongestName = 64;
        std::array<unsigned char, mcap::kRecordHeaderSize + mcap::kChunkFixedSize + kLongestName + 8> head;
        const std::size_t headSize = std::min<std::uint64_t>(head.size(), chunk.length);
        RecordReader reader(KRBytes(head).first(input_->readAt(head.data(), headSize, chunk.offset)));
        const auto opcode = static_cast<Opcode>(reader.number<std::uint8_t>());
        const auto length = reader.number<std::uint64_t>();
        if (opcode != Opcode::Chunk || chunk.length < mcap::kRecordHeaderSize ||
            length != chunk.length - mcap::kRecordHeaderSize) {
            throw KRMcapError("there is no chunk");
        }
        reader.bytes(2 * sizeof(std::uint64_t)); // its times
        const auto size = reader.number<std::uint64_t>();
        const auto crc = reader.number<std::uint32_t>();
        const std::string_view compression = reader.view();
        const auto storedSize = reader.number<std::uint64_t>();
        const std::uint64_t headerSize = mcap::kChunkFixedSize + compression.size() + sizeof storedSize;
        if (storedSize != length - headerSize) {
            throw KRMcapError("its header gives " + std::to_string(storedSize) + " bytes, not " +
                              std::to_string(length - headerSize));
        }
        if (std::max(size, storedSize) > limits_.maxRecordSize) {
            throw KRMcapError(std::to_string(std::max(size, storedSize)) + " bytes exceed the limit of " +
                              std::to_string(limits_.maxRecordSize));
        }
        const bool isCompressed = !compression.empty();
        if (isCompressed && !mcap::Decompressor::isKnown(compression)) {
            throw KRMcapError("compression \"" + std::string(compression) + "\" is not supported");
        }
        if (!isCompressed && size != storedSize) {
            throw KRMcapError("it has " + std::to_string(storedSize) + " bytes instead of " +
                              std::to_string(size));
        }
        const std::uint64_t offset = chunk.offset + mcap::kRecordHeaderSize + headerSize;
        const std::uint32_t storedCrc = readStored(open, storedSize, offset, crc != 0 && !isCompressed);
        std::uint32_t found = storedCrc;
        KRBytes content(open.stored.get(), storedSize);
        if (isCompressed) {
            unsigned char* to = open.decompressed.prepare(size);
            decompressor_.decompress(compression, content, {to, size});
            content = {to, size};
            found = crc != 0 ? updateCrc32(0, to, size) : 0;
        }
        if (found != crc) {
            counter = &damage_.wrongCrcs;
            throw KRMcapError("wrong CRC");
        }
        open.records = content;
    }

    // \return the checksum if wanted, otherwise 0
    std::uint32_t readStored(OpenSegment& open, std::uint64_t size, std::uint64_t offset, bool isCrcWanted) {
        constexpr std::uint64_t kPiece = std::uint64_t{256} << 10; // is still in the cache when it is parsed
        unsigned char* to = open.stored.prepare(size);
        std::uint32_t crc = 0;
        for (std::uint64_t done = 0; done < size;) {
            const std::uint64_t piece = std::min(kPiece, size - done);
            if (input_->readAt(to + done, piece, offset + done) != piece) {
                throw KRMcapError("the file ends within it");
            }
            crc = isCrcWanted ? updateCrc32(crc, to + done, piece) : 0;
            done += piece;
        }
        return crc;
    }

    bool isWorthReading(const Segment& segment) {
        if (!contents_.isIndexed) {
            return true; // it may define a channel of later messages
        }
        if (segment.startTime > selection_.endTime || segment.endTime < selection_.startTime) {
            return false;
        }
        const auto& channels = segment.chunk->messageIndexOffsets;
        return channels.empty() || std::ranges::any_of(channels, [this](const auto& entry) {
                   return isWanted(contents_.channels.at(entry.first));
               });
    }

    // ---- records

    bool isWanted(const KRMcapChannel& channel) {
        signed char& known = areWanted_[channel.id];
        if (known == kUnknown) {
            known = !selection_.isWanted || selection_.isWanted(channel) ? 1 : 0;
        }
        return known != 0;
    }

    // The next record of a segment. \return false: there are no more
    bool nextRecord(OpenSegment& open, Record& record) {
        const KRBytes rest = open.records.subspan(open.position);
        if (rest.empty()) {
            return false;
        }
        std::uint64_t length = 0;
        if (rest.size() >= mcap::kRecordHeaderSize) {
            std::memcpy(&length, rest.data() + 1, sizeof length);
        }
        if (rest.size() < mcap::kRecordHeaderSize || length > rest.size() - mcap::kRecordHeaderSize) {
            countBad(open, "a record is longer than what contains it");
            open.position = open.records.size();
            return false;
        }
        record = {static_cast<Opcode>(rest[0]), rest.subspan(mcap::kRecordHeaderSize, length)};
        open.position += mcap::kRecordHeaderSize + length;
        return true;
    }

    void countBad(const OpenSegment& open, const std::string& what) {
        if (open.isCounted) {
            ++damage_.badRecords;
            note(damage_, "behind offset " + std::to_string(open.segment->offset) + ": " + what);
        }
    }

    template <class T>
    void define(const OpenSegment& open, std::map<std::uint16_t, T>& known, T defined, const char* what) {
        const std::uint16_t id = defined.id;
        const auto found = known.find(id);
        if (found == known.end()) {
            known.emplace(id, std::move(defined));
        } else if (!(found->second == defined)) {
            countBad(open, std::string(what) + " " + std::to_string(id) +
                               " is defined a second time, differently; the first one is used");
        }
    }

    void takeDefinition(const OpenSegment& open, const Record& record) {
        try {
            if (record.opcode == Opcode::Schema) {
                define(open, contents_.schemas, mcap::parseSchema(record.content), "schema");
            } else if (record.opcode == Opcode::Channel) {
                define(open, contents_.channels, mcap::parseChannel(record.content), "channel");
            }
        } catch (const KRMcapError& error) {
            countBad(open, error.what());
        }
    }

    // \return whether it is a message that is wanted
    bool takeMessage(const OpenSegment& open, KRBytes content, KRMcapMessage& message) {
        if (content.size() < mcap::kMessageHeaderSize) {
            countBad(open, "a message is shorter than its header");
            return false;
        }
        RecordReader reader(content);
        const auto channelId = reader.number<std::uint16_t>();
        message.sequence = reader.number<std::uint32_t>();
        message.logTime = reader.number<std::uint64_t>();
        message.publishTime = reader.number<std::uint64_t>();
        const auto channel = contents_.channels.find(channelId);
        if (channel == contents_.channels.end()) {
            if (open.isCounted) {
                ++damage_.unknownChannels;
                note(damage_, "a message of channel " + std::to_string(channelId) +
                                  ", which the file does not describe");
            }
            return false;
        }
        if (message.logTime < selection_.startTime || message.logTime > selection_.endTime ||
            !isWanted(channel->second)) {
            return false;
        }
        const auto schema = contents_.schemas.find(channel->second.schemaId);
        message.channel = &channel->second;
        message.schema = schema == contents_.schemas.end() ? nullptr : &schema->second;
        message.data = reader.rest();
        return true;
    }

    bool nextInFile(KRMcapMessage& message) {
        while (true) {
            for (Record record; nextRecord(current_, record);) {
                if (record.opcode != Opcode::Message) {
                    takeDefinition(current_, record);
                } else if (takeMessage(current_, record.content, message)) {
                    return true;
                }
            }
            do {
                if (nextSegment_ == contents_.segments.size()) {
                    return false;
                }
            } while (!isWorthReading(contents_.segments[nextSegment_++]));
            load(current_, contents_.segments[nextSegment_ - 1], true);
        }
    }

    // ---- in time order

    // Without a summary, a channel may be defined later in the file than messages that come earlier in time.
    void learnChannels() {
        hasLearned_ = true;
        for (Segment& segment : contents_.segments) {
            load(current_, segment, false);
            for (Record record; nextRecord(current_, record);) {
                takeDefinition(current_, record);
            }
        }
        current_.records = {};
        current_.position = 0;
    }

    bool nextByTime(KRMcapMessage& message) {
        putBack();
        while (
            nextSegment_ < byTime_.size() &&
            (openByTime_.empty() || byTime_[nextSegment_]->startTime <= openByTime_.top()->getNextTime())) {
            Segment& segment = *byTime_[nextSegment_++];
            if (isWorthReading(segment)) {
                openSegment(segment);
            }
        }
        if (openByTime_.empty()) {
            return false;
        }
        OpenSegment* open = openByTime_.top();
        openByTime_.pop();
        lastRead_ = open;
        open->position = open->entries[open->nextEntry++].position;
        Record record;
        nextRecord(*open, record);
        return takeMessage(*open, record.content, message);
    }

    // Releases or reinserts the segment that was read last.
    void putBack() {
        if (lastRead_ == nullptr) {
            return;
        }
        OpenSegment* open = std::exchange(lastRead_, nullptr);
        if (open->nextEntry < open->entries.size()) {
            openByTime_.push(open);
            return;
        }
        openBytes_ -= open->records.size();
        const auto found =
            std::ranges::find_if(opened_, [open](const auto& one) { return one.get() == open; });
        spare_ = std::move(*found); // for its memory
        opened_.erase(found);
    }

    void openSegment(Segment& segment) {
        std::unique_ptr<OpenSegment> open = spare_ ? std::move(spare_) : std::make_unique<OpenSegment>();
        if (!load(*open, segment, true)) {
            spare_ = std::move(open);
            return;
        }
        KRMcapMessage message;
        std::size_t position = 0;
        for (Record record; nextRecord(*open, record); position = open->position) {
            if (record.opcode != Opcode::Message) {
                takeDefinition(*open, record);
            } else if (takeMessage(*open, record.content, message)) {
                open->entries.push_back({message.logTime, position});
            }
        }
        if (open->entries.empty()) {
            spare_ = std::move(open);
            return;
        }
        std::ranges::stable_sort(open->entries, {}, &OpenSegment::Entry::time);
        openBytes_ += open->records.size();
        if (openBytes_ > limits_.maxOpenChunks) {
            fail("chunks that overlap in time have more than " + std::to_string(limits_.maxOpenChunks) +
                 " bytes; read them in file order");
        }
        openByTime_.push(open.get());
        opened_.push_back(std::move(open));
    }

    // ---- attachments and metadata

    std::vector<unsigned char> readRecord(Opcode opcode, std::uint64_t offset, std::uint64_t length) {
        if (length < mcap::kRecordHeaderSize || length > limits_.maxRecordSize || length > fileSize_ ||
            offset > fileSize_ - length) {
            fail("there is no record of " + std::to_string(length) + " bytes at offset " +
                 std::to_string(offset) + ", or it is too large");
        }
        std::array<unsigned char, mcap::kRecordHeaderSize> header{};
        std::vector<unsigned char> content(length - header.size());
        std::uint64_t announced = 0;
        const bool isRead =
            input_->readAt(header.data(), header.size(), offset) == header.size() &&
            input_->readAt(content.data(), content.size(), offset + header.size()) == content.size();
        std::memcpy(&announced, header.data() + 1, sizeof announced);
        if (!isRead || static_cast<Opcode>(header[0]) != opcode || announced != content.size()) {
            fail("at offset " + std::to_string(offset) + " is not the record that the index names");
        }
        return content;
    }

    const std::unique_ptr<KRMcapInput> input_;
    const KRMcapLimits limits_;
    const std::string path_;
    const std::uint64_t fileSize_;
    KRMcapDamage damage_;
    mcap::Contents contents_;
    mcap::Decompressor decompressor_;

    KRMcapSelection selection_;
    std::vector<signed char> areWanted_; // by channel
    std::size_t nextSegment_ = 0;        // in file order, or in time order
    OpenSegment current_;                // in file order

    std::vector<Segment*> byTime_;
    std::vector<std::unique_ptr<OpenSegment>> opened_;
    std::priority_queue<OpenSegment*, std::vector<OpenSegment*>, IsLater> openByTime_;
    std::unique_ptr<OpenSegment> spare_;
    OpenSegment* lastRead_ = nullptr; // not in openByTime_
    std::uint64_t openBytes_ = 0;
    bool hasLearned_ = false;
};

KRMcapReader::KRMcapReader(const std::string& path, KRMcapLimits limits)
    : p_(std::make_unique<Private>(openMcapFile(path), limits, path)) {}

KRMcapReader::KRMcapReader(std::unique_ptr<KRMcapInput> input, KRMcapLimits limits)
    : p_(std::make_unique<Private>(std::move(input), limits, std::string())) {}

KRMcapReader::~KRMcapReader() = default;

const std::string& KRMcapReader::getProfile() const noexcept {
    return p_->getContents().profile;
}

const std::string& KRMcapReader::getLibrary() const noexcept {
    return p_->getContents().writerLibrary;
}

std::uint64_t KRMcapReader::getFileSize() const noexcept {
    return p_->getFileSize();
}

bool KRMcapReader::isIndexed() const noexcept {
    return p_->getContents().isIndexed;
}

const std::optional<KRMcapStatistics>& KRMcapReader::getStatistics() const noexcept {
    return p_->getContents().statistics;
}

const std::map<std::uint16_t, KRMcapChannel>& KRMcapReader::getChannels() const noexcept {
    return p_->getContents().channels;
}

const std::map<std::uint16_t, KRMcapSchema>& KRMcapReader::getSchemas() const noexcept {
    return p_->getContents().schemas;
}

const std::vector<KRMcapChunkIndex>& KRMcapReader::getChunks() const noexcept {
    return p_->getContents().chunks;
}

const std::vector<KRMcapAttachmentIndex>& KRMcapReader::getAttachments() const noexcept {
    return p_->getContents().attachments;
}

const std::vector<KRMcapMetadataIndex>& KRMcapReader::getMetadata() const noexcept {
    return p_->getContents().metadata;
}

void KRMcapReader::select(KRMcapSelection selection) {
    p_->select(std::move(selection));
}

bool KRMcapReader::next(KRMcapMessage& message) {
    return p_->next(message);
}

KRMcapAttachment KRMcapReader::readAttachment(const KRMcapAttachmentIndex& index) {
    return p_->readAttachment(index);
}

KRMcapMetadata KRMcapReader::readMetadata(const KRMcapMetadataIndex& index) {
    return p_->readMetadata(index);
}

const KRMcapDamage& KRMcapReader::getDamage() const noexcept {
    return p_->getDamage();
}

} // namespace KR
