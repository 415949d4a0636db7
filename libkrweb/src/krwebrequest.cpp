#include "krwebrequest.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/krcolorspacenames.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <charconv>

namespace KR::web {

namespace {

constexpr int kLastResolution = 17;
constexpr int kLastCamera = 127;

std::string decode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i] == '+' ? ' ' : text[i]);
            continue;
        }
        unsigned byte = 0;
        const char* first = text.data() + i + 1;
        const char* end = text.data() + std::min(i + 3, text.size());
        const auto [last, error] = std::from_chars(first, end, byte, 16);
        if (error != std::errc() || last != first + 2) {
            throw BadRequest("malformed escape in the address: " + escapeText(text.substr(i, 3)));
        }
        decoded.push_back(static_cast<char>(byte));
        i += 2;
    }
    return decoded;
}

std::optional<int> readNumber(std::string_view text, int least, int greatest) {
    int number = 0;
    const auto [last, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && last == text.data() + text.size();
    return isNumber && number >= least && number <= greatest ? std::optional(number) : std::nullopt;
}

} // namespace

int parseResolution(const std::string& text) {
    std::string sizes;
    for (int code = 0; code <= kLastResolution; ++code) {
        const std::string size = getResolutionName(code);
        if (size == text) {
            return code;
        }
        sizes += (sizes.empty() ? "" : ", ") + size;
    }
    throw BadRequest("resolution=" + escapeText(text, 40) + ": sizes are " + sizes);
}

int parseColorSpace(const std::string& text) {
    const int code = findColorSpace(text);
    if (code < 0) {
        throw BadRequest("color-space=" + escapeText(text, 40) +
                         ": colour spaces are luma, yuv422, rgb, bgr and bgrx");
    }
    return code;
}

std::string getResolutionName(int resolution) {
    int width = 0;
    int height = 0;
    setSizeFromResolution(resolution, width, height);
    return std::to_string(width) + "x" + std::to_string(height);
}

Target parseTarget(std::string_view text) {
    Target target;
    const std::size_t question = text.find('?');
    target.path = decode(text.substr(0, question));
    if (question == std::string_view::npos) {
        return target;
    }
    std::string_view rest = text.substr(question + 1);
    while (!rest.empty()) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        const std::size_t equals = pair.find('=');
        const std::string_view value =
            equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
        if (!pair.empty()) {
            target.query[decode(pair.substr(0, equals))] = decode(value);
        }
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
    }
    return target;
}

std::optional<PictureTarget> findPicture(const Target& target) {
    constexpr std::string_view kPrefix = "/camera/";
    PictureTarget found;
    std::string_view name = target.path;
    if (!name.starts_with(kPrefix)) {
        return std::nullopt;
    }
    name.remove_prefix(kPrefix.size());
    const std::size_t dot = name.find('.');
    const std::string_view extension = dot == std::string_view::npos ? "" : name.substr(dot);
    const std::optional<int> camera = readNumber(name.substr(0, dot), 0, kLastCamera);
    if (!camera || (extension != ".jpg" && extension != ".mjpeg")) {
        return std::nullopt;
    }
    found.picture.camera = *camera;
    found.isStream = extension == ".mjpeg";
    for (const auto& [parameter, value] : target.query) {
        if (parameter == "resolution") {
            found.picture.resolution = parseResolution(value);
        } else if (parameter == "color-space") {
            found.picture.colorSpace = parseColorSpace(value);
        } else if (parameter == "quality") {
            const std::optional<int> quality = readNumber(value, 1, 100);
            if (!quality) {
                throw BadRequest("quality=" + escapeText(value, 40) + " is not a number from 1 to 100");
            }
            found.picture.quality = *quality;
        } else if (parameter == "annotations") {
            found.picture.annotations = value;
        } else if (parameter != "token" &&
                   parameter != "_") { // "_" keeps browsers from showing an old picture
            throw BadRequest("there is no parameter " + escapeText(parameter, 40) +
                             "; there are resolution, color-space, quality and annotations");
        }
    }
    return found;
}

} // namespace KR::web
