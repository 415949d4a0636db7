#include "krfile.hpp"
#include "kroxvlayout.hpp"
#include "krvision/kroxvfile.hpp"
#include "krvision/kroxvrepair.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace KR {

namespace {

class OxvCopy {
public:
    OxvCopy(const KROxvFile& from, const std::string& path, const std::string& name)
        : from_(from), name_(name.empty() ? path : name) {
        require(to_.openToWrite(path));
    }

    void writeHeaders(std::uint64_t extraHeaderSize, std::uint64_t frames,
                      const std::vector<KROxvStream>& streams) {
        const oxv::FileHeader header = {from_.getVersion() == 1 ? oxv::kVersion1 : oxv::kVersion0,
                                        static_cast<std::uint32_t>(extraHeaderSize),
                                        static_cast<std::uint32_t>(frames),
                                        static_cast<std::uint32_t>(streams.size())};
        std::vector<streamHeader> headers;
        headers.reserve(streams.size());
        for (const KROxvStream& stream : streams) {
            headers.push_back({stream.width, stream.height, stream.colorSpace, stream.depth});
        }
        require(to_.append(&header, sizeof header, headers.data(), headers.size() * sizeof(streamHeader)));
    }
    void copyBytes(std::uint64_t size, std::uint64_t offset) {
        constexpr std::uint64_t kBufferSize = std::uint64_t{1} << 20;
        buffer_.resize(kBufferSize);
        while (size > 0) {
            const std::uint64_t part = std::min(size, kBufferSize);
            from_.readBytes(buffer_.data(), part, offset);
            require(to_.append(buffer_.data(), part, nullptr, 0));
            offset += part;
            size -= part;
        }
    }
    void close() { require(to_.sync() && to_.close()); }

private:
    void require(bool isDone) const {
        if (!isDone) {
            throw std::runtime_error(name_ + ": cannot be written: " + std::strerror(errno));
        }
    }

    const KROxvFile& from_;
    const std::string name_;
    KRFile to_;
    std::vector<char> buffer_;
};

} // namespace

void copyFrames(const KROxvFile& file, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, const std::string& name,
                const std::function<void()>& onFrame) {
    file.requireFrames();
    const std::vector<KROxvStream> streams =
        stream ? std::vector{file.getStreams().at(*stream)} : file.getStreams();
    const std::uint64_t size = stream ? streams.front().chunkSize : file.getFrameSize();
    const std::uint64_t headers = file.getHeaderSize();
    // As much of an extra header as there is.
    const std::uint64_t extra = std::min(file.getDataOffset(), file.getFileSize()) - headers;

    OxvCopy copy(file, path, name);
    copy.writeHeaders(extra, count, streams);
    copy.copyBytes(extra, headers);
    for (std::uint64_t frame = first; frame < first + count; ++frame) {
        copy.copyBytes(size, file.getOffset(frame, stream.value_or(0)));
        if (onFrame) {
            onFrame();
        }
    }
    copy.close();
}

} // namespace KR
