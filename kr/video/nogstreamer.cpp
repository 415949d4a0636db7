// What stands in for the parts that need GStreamer, in a build without it.

#include "filmreader.hpp"
#include "pipelinesink.hpp"

#include <stdexcept>

namespace KR::tool {

namespace {

[[noreturn]] void refuse() {
    throw std::runtime_error("this kr was built without GStreamer, which that needs");
}

} // namespace

std::string listFilmFormats() {
    return "none, as it was built without GStreamer";
}

bool isFilmExtension(const std::string& extension) {
    return extension == ".mkv" || extension == ".mp4"; // known, to be refused with the reason
}

std::unique_ptr<FrameSink> makeFilmSink(const std::string&, const std::string&, const std::string&,
                                        std::int64_t) {
    refuse();
}

std::unique_ptr<FrameSink> makeWindowSink(std::int64_t) {
    refuse();
}

std::unique_ptr<FilmReader> openFilm(const std::string&, int) {
    refuse();
}

} // namespace KR::tool
