#pragma once

#include "krpictures.hpp"

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace KR::web {

/// The target of an HTTP request.
struct Target {
    std::string path; ///< decoded
    std::map<std::string, std::string> query;
};

/// An invalid request; the text says why.
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// \throws BadRequest a malformed escape such as "%zz"
Target parseTarget(std::string_view target);

/// \name Codes and their names: "640x480", "yuv422"
/// \throws BadRequest no such name; the text lists those that there are
///@{
int parseResolution(const std::string& text);
int parseColorSpace(const std::string& text);
std::string getResolutionName(int resolution);
///@}

/// The target of a request for a picture.
struct PictureTarget {
    PictureRequest picture;
    bool isStream = false; ///< ".mjpeg"
};

/// The picture of "/camera/N.jpg" or "/camera/N.mjpeg" with resolution=WIDTHxHEIGHT, color-space=NAME, quality=1..100 and
/// annotations=MODULE; nullopt for another path.
/// \throws BadRequest a value that is none of these; another parameter
std::optional<PictureTarget> findPicture(const Target& target);

} // namespace KR::web
