#pragma once

#include <krvision/krimage.hpp>

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

    /// About how many frames there are; 0 if the file does not tell.
    virtual std::uint64_t estimateFrames() const = 0;
    /// Reads the next frame into an image of YUV422 and the reader's size. Its time stamp counts from the beginning of
    /// the film; -1: the film does not tell.
    /// \return false: there was none any more
    /// \throws std::runtime_error with the path: it cannot be decoded
    virtual bool readNext(KRImage& image) = 0;
};

/// Opens a video file that GStreamer can decode. All of its frames are made to fit, with black beside pictures of another
/// shape.
/// \param resolution  code of the size that the frames are to have
/// \throws std::runtime_error with the path: GStreamer cannot be used, or cannot read the file
std::unique_ptr<FilmReader> openFilm(const std::string& path, int resolution);

} // namespace KR::tool
