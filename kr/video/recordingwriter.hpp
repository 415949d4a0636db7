#pragma once

#include "filewriter.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvideo.hpp>

#include <cstdint>
#include <string>

namespace KR::tool {

/// Writes a recording of one stream as KRVideo does, but tells of every error.
class RecordingWriter {
public:
    /// \throws std::runtime_error the file cannot be written, as all operations
    RecordingWriter(const std::string& path, const streamHeader& stream);

    /// Whether there is room for another frame before 4 GiB, where readers find no frames any more.
    bool hasRoom() const noexcept;
    /// \param image  of the stream's geometry
    void write(const KRImage& image);
    std::uint32_t countFrames() const noexcept { return frames_; }
    /// Writes how many frames there are.
    void close();

private:
    FileWriter file_;
    std::uint64_t size_ = 0; // of the file
    std::uint32_t frames_ = 0;
};

} // namespace KR::tool
