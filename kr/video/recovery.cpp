#include "recovery.hpp"

#include "diagnosis.hpp"
#include "progress.hpp"

#include <krvision/krvideo.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include <unistd.h>

namespace KR::tool {

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

[[noreturn]] void failToWrite(const std::string& path) {
    throw std::runtime_error(path + ": cannot be written: " + std::strerror(errno));
}

class Copy {
public:
    Copy(Recording& from, const std::string& path)
        : from_(from), path_(path), file_(std::fopen(path.c_str(), "wb")) {
        if (!file_) {
            failToWrite(path_);
        }
        std::setvbuf(file_.get(), nullptr, _IONBF, 0);
    }

    void copyBytes(std::uint64_t size, std::uint64_t offset) {
        buffer_.resize(std::min(size, kBufferSize));
        while (size > 0) {
            const std::uint64_t part = std::min(size, kBufferSize);
            from_.readBytes(buffer_.data(), part, offset);
            write(buffer_.data(), part);
            offset += part;
            size -= part;
        }
    }
    void write(const void* bytes, std::uint64_t size) {
        if (std::fwrite(bytes, 1, size, file_.get()) != size) {
            failToWrite(path_);
        }
    }
    /// Only then the file is whole, whatever happens to the machine.
    void close() {
        if (::fsync(::fileno(file_.get())) != 0 || std::fclose(file_.release()) != 0) {
            failToWrite(path_);
        }
    }

private:
    static constexpr std::uint64_t kBufferSize = std::uint64_t{1} << 20;

    Recording& from_;
    const std::string path_;
    File file_;
    std::vector<char> buffer_;
};

void requireReadable(const Recording& recording) {
    recording.requireFrames();
    for (const RecordedStream& stream : recording.getStreams()) {
        const std::string reason = explainUnreadable(stream);
        if (!reason.empty()) {
            throw std::runtime_error(recording.getPath() + ": " + reason + "; kr video convert may help");
        }
    }
}

void write(Recording& recording, std::uint64_t frames, const std::string& path, Progress& progress) {
    Copy copy(recording, path);
    std::array<std::uint32_t, 4> words;
    recording.readBytes(words.data(), sizeof words, 0);
    words[1] = static_cast<std::uint32_t>(recording.getDataOffset() - recording.getHeaderSize());
    words[2] = static_cast<std::uint32_t>(frames);
    words[3] = static_cast<std::uint32_t>(recording.getStreams().size());
    copy.write(words.data(), sizeof words);
    // The rest of the headers, and the extra one if there is one.
    const std::uint64_t frameless = std::min(recording.getDataOffset(), recording.getFileSize());
    copy.copyBytes(frameless - sizeof words, sizeof words);
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        copy.copyBytes(recording.getFrameSize(), recording.getOffset(frame));
        progress.advance();
    }
    copy.close();
}

void check(Recording& recording, std::uint64_t frames, const std::string& path, Progress& progress) {
    KRVideo video;
    video.readVideo(path);
    if (video.getFrameCount() != frames || video.getStreams().size() != recording.getStreams().size()) {
        throw std::runtime_error(path + ": has not become what it should");
    }
    KRImage image(0, 0, 0, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::vector<unsigned char> expected;
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        for (std::size_t s = 0; s < recording.getStreams().size(); ++s) {
            expected.resize(recording.getStreams()[s].chunkSize);
            recording.readBytes(expected.data(), expected.size(), recording.getOffset(frame, s));
            if (!video.getFrame(image, static_cast<unsigned>(frame), static_cast<unsigned>(s), true) ||
                std::memcmp(image.data.get(), expected.data(), expected.size()) != 0) {
                throw std::runtime_error(path + ": frame " + std::to_string(frame) +
                                         " does not read as it should");
            }
        }
        progress.advance();
    }
}

} // namespace

Recovery recover(Recording& recording, const std::string& path) {
    requireReadable(recording);
    const std::uint64_t kept = recording.countAddressableFrames();
    Progress progress(2 * kept); // written once, read once
    write(recording, kept, path, progress);
    check(recording, kept, path, progress);
    return {kept, recording.countExpectedFrames() - kept};
}

} // namespace KR::tool
