#pragma once

#include <krvision/krimage.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace KR::tool {

/// The frames of a video file, one after another. Needs memory for a few of them.
class FilmReader {
public:
    virtual ~FilmReader() = default;
    FilmReader() = default;
    FilmReader(const FilmReader&) = delete;
    FilmReader& operator=(const FilmReader&) = delete;

    /// Approximate number of frames; 0 if the file does not say.
    virtual std::uint64_t estimateFrames() const = 0;
    /// Reads the next frame into an image of YUV422 and the reader's size. Its time stamp counts from the beginning of
    /// the film; -1: the film has none.
    /// \return false: there are no more
    /// \throws std::runtime_error with the path: it cannot be decoded, or no frame comes in time
    virtual bool readNext(KRImage& image) = 0;
};

/// Opens a video file that GStreamer can decode. Frames are scaled to one size, with black borders where the shape
/// differs.
/// \param resolution  code of that size
/// \param patience  how long it may take to decode one frame
/// \throws std::runtime_error with the path: GStreamer cannot be used or cannot decode the file; there is no video in
/// it; no frame comes in time
std::unique_ptr<FilmReader> openFilm(const std::string& path, int resolution,
                                     std::chrono::milliseconds patience = std::chrono::seconds(10));

} // namespace KR::tool
