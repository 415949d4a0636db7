#pragma once

#include "framesink.hpp"

#include <memory>
#include <stdexcept>
#include <string>

namespace KR::tool {

/// The formats that makeFilmSink() writes, for people: "mkv (jpeg, vp8), mp4 (vp9)".
std::string listFilmFormats();
/// Whether there is such a format.
bool isFilmExtension(const std::string& extension);

/// A film as other programs play it, by an encoder of GStreamer.
/// \param extension  of the file: ".mkv" or ".mp4"
/// \param codec      one that listFilmFormats() has for it; "": the first of them
/// \throws UsageError the codec is not for that file
/// \throws std::runtime_error GStreamer cannot be used, or lacks an encoder
std::unique_ptr<FrameSink> makeFilmSink(const std::string& path, const std::string& extension,
                                        const std::string& codec, std::int64_t interval_usec);

/// The window has been closed.
class WindowClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A window in which the frames are shown at their time. write() returns when there is room for the next one; it, and
/// finish(), throw WindowClosed.
/// \throws std::runtime_error there is no display, or none that GStreamer can use
std::unique_ptr<FrameSink> makeWindowSink(std::int64_t interval_usec);

} // namespace KR::tool
