#pragma once

#include "program.hpp"

#include "oxvfile.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace KR::test {

constexpr std::size_t kChunk = 160 * 120; // of a luma stream
constexpr std::uint32_t kNeverClosed = 0xFFFFFFFF;

/// A folder with recordings of streams of 160x120 luma.
class Recordings : public testing::Test {
protected:
    std::string path(const std::string& name) const { return folder_.path(name); }

    static Bytes make(unsigned frames, std::uint32_t count, unsigned streams = 1,
                      std::uint32_t announcedExtra = 0, std::size_t extra = 0,
                      std::uint32_t version = kOxvVersion1) {
        Bytes file = makeOxvHeader(version, announcedExtra, count, streams,
                                   std::vector<streamHeader>(streams, {160, 120, kLuma, 8}));
        file.resize(file.size() + extra, 0xEE);
        for (unsigned frame = 0; frame < frames; ++frame) {
            for (unsigned stream = 0; stream < streams; ++stream) {
                appendChunk(file, frame, stream, kChunk);
            }
        }
        return file;
    }
    std::string write(const std::string& name, const Bytes& bytes) const {
        writeAll(path(name), bytes);
        return path(name);
    }
    /// Writes a field of a file's bytes.
    template <class T>
    static void put(Bytes& file, std::size_t offset, T field) {
        std::memcpy(file.data() + offset, &field, sizeof field);
    }

private:
    const TemporaryFolder folder_;
};

} // namespace KR::test
