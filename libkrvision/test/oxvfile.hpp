#pragma once

#include "krvision/krvideo.hpp"
#include "temporaryfolder.hpp"

#include <cstdint>
#include <vector>

namespace KR::test {

constexpr std::uint32_t kOxvVersion1 = 0x4F585631;
constexpr std::uint32_t kOxvVersion0 = 0x4F585630;
constexpr int kLuma = 0;
constexpr int kYuv422 = 9;

inline Bytes makeOxvHeader(std::uint32_t version, std::uint32_t extra, std::uint32_t frames,
                           std::uint32_t streamCount, const std::vector<streamHeader>& streams) {
    Bytes file;
    for (const std::uint32_t word : {version, extra, frames, streamCount}) {
        append(file, word);
    }
    for (const streamHeader& stream : streams) {
        append(file, stream);
    }
    return file;
}

// The contents of a chunk: different for every frame and stream.
inline std::int64_t timeStampOf(unsigned frame, unsigned stream) {
    return 1500000000000000 + frame * 33333 + stream;
}
inline unsigned char pixelOf(unsigned frame, unsigned stream, std::size_t at) {
    return static_cast<unsigned char>(frame * 50 + stream * 20 + at * 7);
}

inline void appendChunk(Bytes& file, unsigned frame, unsigned stream, std::size_t size) {
    append(file, timeStampOf(frame, stream));
    append(file, static_cast<signed char>(stream));
    for (const float angle : {0.5f, 0.25f, -0.5f, -0.25f}) {
        append(file, angle);
    }
    for (std::size_t at = 25; at < size; ++at) {
        file.push_back(pixelOf(frame, stream, at));
    }
}

inline KRImage makeEmptyImage(int width = 160, int height = 120, int colorSpace = kLuma) {
    return {width, height, colorSpace, false, 9.0f, 9.0f, 9.0f, 9.0f};
}

// Whether the image holds the pixels of this chunk, apart from the chunk's header.
inline bool holdsChunk(const KRImage& image, unsigned frame, unsigned stream, std::size_t size) {
    if (image.timeStamp != timeStampOf(frame, stream) || image.cameraId != static_cast<signed char>(stream)) {
        return false;
    }
    for (std::size_t at = 25; at < size; ++at) {
        if (image.data[static_cast<std::ptrdiff_t>(at)] != pixelOf(frame, stream, at)) {
            return false;
        }
    }
    return true;
}

} // namespace KR::test
