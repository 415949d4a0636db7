#include "image/pictureconversion.hpp"
#include "tool/outputfile.hpp"
#include "video/framesink.hpp"

#include <filesystem>
#include <regex>

namespace KR::tool {

namespace {

class PictureSink : public FrameSink {
public:
    explicit PictureSink(const std::string& path) : path_(path) {}

    void write(const KRImage& image, std::uint64_t number, std::int64_t) override {
        OutputFile out(numberPath(path_, number), "");
        writePicture(makePicture(image), out.getPath());
        out.commit();
    }

private:
    const std::string path_;
};

std::string pad(std::uint64_t number, std::size_t digits) {
    const std::string text = std::to_string(number);
    return std::string(digits > text.size() ? digits - text.size() : 0, '0') + text;
}

} // namespace

std::string numberPath(const std::string& path, std::uint64_t number) {
    static const std::regex kPlace("%(0?)([0-9]?)d");
    std::smatch place;
    if (std::regex_search(path, place, kPlace)) {
        const std::size_t digits =
            place[2].length() > 0 ? static_cast<std::size_t>(*place[2].first - '0') : 0;
        return place.prefix().str() + pad(number, digits) + place.suffix().str();
    }
    std::filesystem::path numbered(path);
    const std::string extension = numbered.extension().string();
    numbered.replace_extension();
    return numbered.string() + "-" + pad(number, 6) + extension;
}

std::unique_ptr<FrameSink> makePictureSink(const std::string& path) {
    return std::make_unique<PictureSink>(path);
}

} // namespace KR::tool
