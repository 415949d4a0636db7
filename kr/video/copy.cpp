#include "video/copy.hpp"

#include "tool/filewriter.hpp"

#include <algorithm>
#include <array>
#include <vector>

namespace KR::tool {

namespace {

class Copy {
public:
    Copy(KROxvFile& from, const std::string& path) : from_(from), to_(path) {}

    void copyBytes(std::uint64_t size, std::uint64_t offset) {
        constexpr std::uint64_t kBufferSize = std::uint64_t{1} << 20;
        buffer_.resize(kBufferSize);
        while (size > 0) {
            const std::uint64_t part = std::min(size, kBufferSize);
            from_.readBytes(buffer_.data(), part, offset);
            to_.write(buffer_.data(), part);
            offset += part;
            size -= part;
        }
    }
    void write(const void* bytes, std::uint64_t size) { to_.write(bytes, size); }
    void close() { to_.close(); }

private:
    KROxvFile& from_;
    FileWriter to_;
    std::vector<char> buffer_;
};

} // namespace

void copyFrames(KROxvFile& recording, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, Progress& progress) {
    static_assert(oxv::kFileHeaderSize == oxv::kStreamHeaderSize);
    constexpr std::uint64_t kHeaderSize = oxv::kFileHeaderSize; // also of each stream
    const std::uint64_t headers = recording.getHeaderSize();
    const std::uint64_t dataOffset = std::min(recording.getDataOffset(), recording.getFileSize());
    std::array<std::uint32_t, 4> words;
    recording.readBytes(words.data(), sizeof words, 0);
    words[1] = static_cast<std::uint32_t>(dataOffset - headers); // as much of an extra header as there is
    words[2] = static_cast<std::uint32_t>(count);
    words[3] = stream ? 1 : static_cast<std::uint32_t>(recording.getStreams().size());

    Copy copy(recording, path);
    copy.write(words.data(), sizeof words);
    if (stream) {
        copy.copyBytes(kHeaderSize, kHeaderSize * (1 + *stream));
    } else {
        copy.copyBytes(headers - kHeaderSize, kHeaderSize);
    }
    copy.copyBytes(dataOffset - headers, headers);
    const std::uint64_t size = stream ? recording.getStreams()[*stream].chunkSize : recording.getFrameSize();
    for (std::uint64_t frame = first; frame < first + count; ++frame) {
        copy.copyBytes(size, recording.getOffset(frame, stream.value_or(0)));
        progress.advance();
    }
    copy.close();
}

} // namespace KR::tool
