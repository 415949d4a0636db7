// Replaces the parts that need GStreamer in a build without it.

#include "video/filmreader.hpp"
#include "video/pipelinesink.hpp"

#include <stdexcept>

namespace KR::tool {

namespace {

[[noreturn]] void refuse() {
    throw std::runtime_error("this kr was built without GStreamer, which is needed for that");
}

} // namespace

std::string listFilmFormats() {
    return "none, in a build without GStreamer";
}

bool isFilmExtension(const std::string& extension) {
    return extension == ".mkv" || extension == ".mp4"; // refused later, with the reason
}

std::unique_ptr<FrameSink> makeFilmSink(const std::string&, const std::string&, const std::string&,
                                        std::int64_t) {
    refuse();
}

std::unique_ptr<FrameSink> makeWindowSink(std::int64_t) {
    refuse();
}

std::unique_ptr<FilmReader> openFilm(const std::string&, int, std::chrono::milliseconds) {
    refuse();
}

} // namespace KR::tool
