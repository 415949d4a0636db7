#pragma once

#include "krinterop/krmcap.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace KR::mcap {

inline constexpr std::array<unsigned char, 8> kMagic = {0x89, 'M', 'C', 'A', 'P', '0', '\r', '\n'};

enum class Opcode : std::uint8_t {
    Header = 0x01,
    Footer = 0x02,
    Schema = 0x03,
    Channel = 0x04,
    Message = 0x05,
    Chunk = 0x06,
    MessageIndex = 0x07,
    ChunkIndex = 0x08,
    Attachment = 0x09,
    AttachmentIndex = 0x0A,
    Statistics = 0x0B,
    Metadata = 0x0C,
    MetadataIndex = 0x0D,
    SummaryOffset = 0x0E,
    DataEnd = 0x0F,
};

inline constexpr std::size_t kRecordHeaderSize = 9;   // opcode and length
inline constexpr std::size_t kMessageHeaderSize = 22; // of the content, before the data
inline constexpr std::size_t kFooterSize = kRecordHeaderSize + 20;
inline constexpr std::size_t kChunkFixedSize = 32; // of the content, before the name of the compression

/// Assembles records.
class RecordWriter {
public:
    template <class T>
    void number(T value) {
        static_assert(std::is_unsigned_v<T>);
        append(&value, sizeof value);
    }
    void string(std::string_view text); ///< \throws KRMcapError longer than 32 bits can count
    void bytes(KRBytes data) { append(data.data(), data.size()); }
    void map(const KRMcapMetadataMap& map);
    /// Begins a record; its length is filled in by end().
    std::size_t begin(Opcode opcode);
    void end(std::size_t begun);

    /// Reserves room for a number that is filled in later by put() at this position.
    template <class T>
    void put(std::size_t position, T value) {
        std::memcpy(buffer_.data() + position, &value, sizeof value);
    }
    std::size_t size() const noexcept { return buffer_.size(); }
    bool empty() const noexcept { return buffer_.empty(); }
    void clear() noexcept { buffer_.clear(); }
    KRBytes get() const noexcept { return buffer_; }

private:
    void append(const void* from, std::size_t size);

    std::vector<unsigned char> buffer_;
};

void writeSchema(RecordWriter& writer, const KRMcapSchema& schema);
void writeChannel(RecordWriter& writer, const KRMcapChannel& channel);
void writeChunkIndex(RecordWriter& writer, const KRMcapChunkIndex& index);
void writeAttachmentIndex(RecordWriter& writer, const KRMcapAttachmentIndex& index);
void writeMetadataIndex(RecordWriter& writer, const KRMcapMetadataIndex& index);
void writeStatistics(RecordWriter& writer, const KRMcapStatistics& statistics);

/// Parses a record's content. Everything throws KRMcapError if the content ends too early.
class RecordReader {
public:
    explicit RecordReader(KRBytes content) : content_(content) {}

    template <class T>
    T number() {
        T value;
        std::memcpy(&value, bytes(sizeof value).data(), sizeof value);
        return value;
    }
    KRBytes bytes(std::uint64_t size);
    std::string string() { return std::string(view()); }
    std::string_view view(); ///< refers to the content
    KRMcapMetadataMap map();
    /// The bytes of a list, which begins with its length in bytes.
    RecordReader list() { return RecordReader(bytes(number<std::uint32_t>())); }
    KRBytes rest() noexcept;
    bool atEnd() const noexcept { return position_ == content_.size(); }

private:
    KRBytes content_;
    std::size_t position_ = 0;
};

KRMcapSchema parseSchema(KRBytes content);
KRMcapChannel parseChannel(KRBytes content);
KRMcapChunkIndex parseChunkIndex(KRBytes content);
KRMcapAttachmentIndex parseAttachmentIndex(KRBytes content);
KRMcapMetadataIndex parseMetadataIndex(KRBytes content);
KRMcapStatistics parseStatistics(KRBytes content);

} // namespace KR::mcap
