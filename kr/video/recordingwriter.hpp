#pragma once

#include "filewriter.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvideo.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace KR::tool {

/// Writes a recording as KRVideo does, but counts frames where that counts chunks, and tells of every error.
class RecordingWriter {
public:
    /// \throws std::runtime_error the file cannot be written, as all operations
    RecordingWriter(const std::string& path, const std::vector<streamHeader>& streams);

    /// Whether each chunk of another frame would begin before 4 GiB, where readers find none any more.
    bool hasRoom() const noexcept;
    /// Writes a chunk of each stream. \param images  one per stream, of its geometry
    void write(const std::vector<const KRImage*>& images);
    /// Removes what there is of a frame that could not be written to its end.
    void removeCutFrame();
    std::uint32_t countFrames() const noexcept { return frames_; }
    /// Writes how many frames there are.
    void close();

private:
    void writeChunk(const KRImage& image);

    FileWriter file_;
    std::uint64_t size_ = 0; // of the file, up to its last complete frame
    std::uint64_t lastChunk_ =
        0; // where that of the last stream begins in a frame; known after the first one
    std::uint32_t frames_ = 0;
};

} // namespace KR::tool
