#pragma once

#include <string>

namespace KR {

/// Where the images of a camera come from: a source string, understood.
struct KRSource {
    /// The numbers are what getCameraModel() answers.
    enum class Kind { Test = 1, File = 2, V4l2 = 3, Gst = 4, Network = 5, Image = 6, Recording = 7 };

    Kind kind;
    std::string text;     ///< the whole source string, for messages; a password in it is hidden
    std::string argument; ///< pattern, path, device, pipeline, or the whole URI

    // Of a recording only:
    int stream = 0;            ///< number of the stream
    bool pacedByFetch = false; ///< each subscription gets each image, as fast as it fetches
};

/// Reads a source string. Nothing is opened yet.
/// \throws std::invalid_argument  unknown scheme, test pattern or option, missing argument; the text lists what
/// there is
KRSource parseSource(const std::string& text);

/// The text with "user:***@" wherever the user and the password of the source's URI stand in it: texts go to logs and to
/// other modules.
std::string hidePassword(const KRSource& source, std::string text);

/// The source starts again when it has come to its end.
bool isLooped(const KRSource& source) noexcept;

/// The source delivers at any time, if it works at all: no image for a while means that it does not.
bool isSteady(const KRSource& source) noexcept;

/// The picture is adjusted here, by the controls that getPictureControls() lists.
bool hasPictureControls(const KRSource& source) noexcept;

} // namespace KR
