#pragma once

#include "video/framesink.hpp"

#include <memory>
#include <stdexcept>
#include <string>

namespace KR::tool {

/// The formats of makeFilmSink(), for people: "mkv (jpeg, vp8), mp4 (vp9)".
std::string listFilmFormats();
/// Whether makeFilmSink() supports the extension.
bool isFilmExtension(const std::string& extension);

/// Writes a film by an encoder of GStreamer.
/// \param extension  of the file: ".mkv" or ".mp4"
/// \param codec      one of listFilmFormats() for it; "": the first of them
/// \throws UsageError there is no such codec for the extension
/// \throws std::runtime_error GStreamer cannot be used, or lacks an encoder
std::unique_ptr<FrameSink> makeFilmSink(const std::string& path, const std::string& extension,
                                        const std::string& codec, std::int64_t interval_usec);

/// The window has been closed.
class WindowClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Shows the frames in a window, at their time. write() blocks while frames wait; it and finish() throw WindowClosed.
/// \throws std::runtime_error there is no display, or GStreamer cannot use it
std::unique_ptr<FrameSink> makeWindowSink(std::int64_t interval_usec);

} // namespace KR::tool
