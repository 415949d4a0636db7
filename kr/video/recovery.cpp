#include "video/recovery.hpp"

#include "tool/outputfile.hpp"
#include "tool/progress.hpp"

#include <krvision/kroxvrepair.hpp>
#include <krvision/krvideo.hpp>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace KR::tool {

namespace {

void requireReadable(const KROxvFile& recording) {
    recording.requireFrames();
    for (const KROxvStream& stream : recording.getStreams()) {
        const std::string reason = stream.explainUnreadable();
        if (!reason.empty()) {
            throw std::runtime_error(recording.getPath() + ": " + reason + "; kr video convert may help");
        }
    }
}

void check(KROxvFile& recording, std::uint64_t frames, const std::string& path, Progress& progress) {
    KRVideo video;
    video.readVideo(path);
    if (video.getFrameCount() != frames || video.getStreams().size() != recording.getStreams().size()) {
        throw std::runtime_error(path + ": verification failed: the number of frames or streams is wrong");
    }
    KRImage image(0, 0, 0, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::vector<unsigned char> expected;
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        for (std::size_t s = 0; s < recording.getStreams().size(); ++s) {
            expected.resize(recording.getStreams()[s].chunkSize);
            recording.readBytes(expected.data(), expected.size(), recording.getOffset(frame, s));
            if (!video.getFrame(image, static_cast<unsigned>(frame), static_cast<unsigned>(s), true) ||
                std::memcmp(image.data.get(), expected.data(), expected.size()) != 0) {
                throw std::runtime_error(path + ": verification failed: frame " + std::to_string(frame) +
                                         " differs");
            }
        }
        progress.advance();
    }
}

} // namespace

Recovery recover(KROxvFile& recording, const std::string& path) {
    requireReadable(recording);
    const std::uint64_t kept = recording.countAddressableFrames();
    Progress progress(2 * kept); // written once, read once
    copyFrames(recording, 0, kept, std::nullopt, path, getFinalName(path), [&] { progress.advance(); });
    check(recording, kept, path, progress);
    return {kept, recording.countExpectedFrames() - kept};
}

} // namespace KR::tool
