#include "krmcaprecord.hpp"

#include <limits>

namespace KR {

KRMcapError::~KRMcapError() = default;

const char* getCompressionName(KRMcapCompression compression) noexcept {
    switch (compression) {
    case KRMcapCompression::Lz4:
        return "lz4";
    case KRMcapCompression::Zstd:
        return "zstd";
    case KRMcapCompression::None:
        break;
    }
    return "";
}

std::uint64_t toNanoseconds(std::int64_t time_usec) noexcept {
    constexpr std::int64_t kFactor = 1000;
    if (time_usec <= 0) {
        return 0;
    }
    // Times after the year 2554 do not fit in nanoseconds: they become the last one that does.
    constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max() / kFactor;
    const auto time = static_cast<std::uint64_t>(time_usec);
    return time > kLast ? std::numeric_limits<std::uint64_t>::max() : time * kFactor;
}

namespace mcap {

void RecordWriter::append(const void* from, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(from);
    buffer_.insert(buffer_.end(), bytes, bytes + size);
}

void RecordWriter::string(std::string_view text) {
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw KRMcapError("a text of " + std::to_string(text.size()) + " bytes is too long");
    }
    number(static_cast<std::uint32_t>(text.size()));
    append(text.data(), text.size());
}

void RecordWriter::map(const KRMcapMetadataMap& map) {
    const std::size_t length = size();
    number(std::uint32_t{0});
    for (const auto& [key, value] : map) {
        string(key);
        string(value);
    }
    put(length, static_cast<std::uint32_t>(size() - length - sizeof(std::uint32_t)));
}

std::size_t RecordWriter::begin(Opcode opcode) {
    const std::size_t begun = size();
    number(static_cast<std::uint8_t>(opcode));
    number(std::uint64_t{0});
    return begun;
}

void RecordWriter::end(std::size_t begun) {
    put(begun + 1, static_cast<std::uint64_t>(size() - begun - kRecordHeaderSize));
}

void writeSchema(RecordWriter& writer, const KRMcapSchema& schema) {
    const std::size_t begun = writer.begin(Opcode::Schema);
    writer.number(schema.id);
    writer.string(schema.name);
    writer.string(schema.encoding);
    writer.string(schema.text);
    writer.end(begun);
}

void writeChannel(RecordWriter& writer, const KRMcapChannel& channel) {
    const std::size_t begun = writer.begin(Opcode::Channel);
    writer.number(channel.id);
    writer.number(channel.schemaId);
    writer.string(channel.topic);
    writer.string(channel.messageEncoding);
    writer.map(channel.metadata);
    writer.end(begun);
}

void writeChunkIndex(RecordWriter& writer, const KRMcapChunkIndex& index) {
    const std::size_t begun = writer.begin(Opcode::ChunkIndex);
    writer.number(index.startTime);
    writer.number(index.endTime);
    writer.number(index.offset);
    writer.number(index.length);
    writer.number(static_cast<std::uint32_t>(index.messageIndexOffsets.size() * 10));
    for (const auto& [channel, offset] : index.messageIndexOffsets) {
        writer.number(channel);
        writer.number(offset);
    }
    writer.number(index.messageIndexLength);
    writer.string(index.compression);
    writer.number(index.compressedSize);
    writer.number(index.uncompressedSize);
    writer.end(begun);
}

void writeAttachmentIndex(RecordWriter& writer, const KRMcapAttachmentIndex& index) {
    const std::size_t begun = writer.begin(Opcode::AttachmentIndex);
    writer.number(index.offset);
    writer.number(index.length);
    writer.number(index.logTime);
    writer.number(index.createTime);
    writer.number(index.dataSize);
    writer.string(index.name);
    writer.string(index.mediaType);
    writer.end(begun);
}

void writeMetadataIndex(RecordWriter& writer, const KRMcapMetadataIndex& index) {
    const std::size_t begun = writer.begin(Opcode::MetadataIndex);
    writer.number(index.offset);
    writer.number(index.length);
    writer.string(index.name);
    writer.end(begun);
}

void writeStatistics(RecordWriter& writer, const KRMcapStatistics& statistics) {
    const std::size_t begun = writer.begin(Opcode::Statistics);
    writer.number(statistics.messages);
    writer.number(statistics.schemas);
    writer.number(statistics.channels);
    writer.number(statistics.attachments);
    writer.number(statistics.metadata);
    writer.number(statistics.chunks);
    writer.number(statistics.startTime);
    writer.number(statistics.endTime);
    writer.number(static_cast<std::uint32_t>(statistics.messagesPerChannel.size() * 10));
    for (const auto& [channel, messages] : statistics.messagesPerChannel) {
        writer.number(channel);
        writer.number(messages);
    }
    writer.end(begun);
}

KRBytes RecordReader::bytes(std::uint64_t size) {
    if (size > content_.size() - position_) {
        throw KRMcapError("a record ends early: " + std::to_string(size) + " bytes are needed, " +
                          std::to_string(content_.size() - position_) + " are left");
    }
    const KRBytes found = content_.subspan(position_, size);
    position_ += size;
    return found;
}

std::string_view RecordReader::view() {
    const KRBytes text = bytes(number<std::uint32_t>());
    return {reinterpret_cast<const char*>(text.data()), text.size()};
}

KRMcapMetadataMap RecordReader::map() {
    KRMcapMetadataMap map;
    for (RecordReader entries = list(); !entries.atEnd();) {
        std::string key = entries.string();
        map[std::move(key)] = entries.string();
    }
    return map;
}

KRBytes RecordReader::rest() noexcept {
    const KRBytes left = content_.subspan(position_);
    position_ = content_.size();
    return left;
}

KRMcapSchema parseSchema(KRBytes content) {
    RecordReader reader(content);
    KRMcapSchema schema;
    schema.id = reader.number<std::uint16_t>();
    schema.name = reader.string();
    schema.encoding = reader.string();
    schema.text = reader.string();
    if (schema.id == 0) {
        throw KRMcapError("a schema has the identifier 0, which means no schema");
    }
    return schema;
}

KRMcapChannel parseChannel(KRBytes content) {
    RecordReader reader(content);
    KRMcapChannel channel;
    channel.id = reader.number<std::uint16_t>();
    channel.schemaId = reader.number<std::uint16_t>();
    channel.topic = reader.string();
    channel.messageEncoding = reader.string();
    channel.metadata = reader.map();
    return channel;
}

KRMcapChunkIndex parseChunkIndex(KRBytes content) {
    RecordReader reader(content);
    KRMcapChunkIndex index;
    index.startTime = reader.number<std::uint64_t>();
    index.endTime = reader.number<std::uint64_t>();
    index.offset = reader.number<std::uint64_t>();
    index.length = reader.number<std::uint64_t>();
    for (RecordReader offsets = reader.list(); !offsets.atEnd();) {
        const auto channel = offsets.number<std::uint16_t>();
        index.messageIndexOffsets.emplace_back(channel, offsets.number<std::uint64_t>());
    }
    index.messageIndexLength = reader.number<std::uint64_t>();
    index.compression = reader.string();
    index.compressedSize = reader.number<std::uint64_t>();
    index.uncompressedSize = reader.number<std::uint64_t>();
    return index;
}

KRMcapAttachmentIndex parseAttachmentIndex(KRBytes content) {
    RecordReader reader(content);
    KRMcapAttachmentIndex index;
    index.offset = reader.number<std::uint64_t>();
    index.length = reader.number<std::uint64_t>();
    index.logTime = reader.number<std::uint64_t>();
    index.createTime = reader.number<std::uint64_t>();
    index.dataSize = reader.number<std::uint64_t>();
    index.name = reader.string();
    index.mediaType = reader.string();
    return index;
}

KRMcapMetadataIndex parseMetadataIndex(KRBytes content) {
    RecordReader reader(content);
    KRMcapMetadataIndex index;
    index.offset = reader.number<std::uint64_t>();
    index.length = reader.number<std::uint64_t>();
    index.name = reader.string();
    return index;
}

KRMcapStatistics parseStatistics(KRBytes content) {
    RecordReader reader(content);
    KRMcapStatistics statistics;
    statistics.messages = reader.number<std::uint64_t>();
    statistics.schemas = reader.number<std::uint16_t>();
    statistics.channels = reader.number<std::uint32_t>();
    statistics.attachments = reader.number<std::uint32_t>();
    statistics.metadata = reader.number<std::uint32_t>();
    statistics.chunks = reader.number<std::uint32_t>();
    statistics.startTime = reader.number<std::uint64_t>();
    statistics.endTime = reader.number<std::uint64_t>();
    for (RecordReader counts = reader.list(); !counts.atEnd();) {
        const auto channel = counts.number<std::uint16_t>();
        statistics.messagesPerChannel[channel] = counts.number<std::uint64_t>();
    }
    return statistics;
}

} // namespace mcap

} // namespace KR
