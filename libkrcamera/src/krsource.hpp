#pragma once

#include "krcameraparameter.hpp"
#include "krgstreamer.hpp"

#include <span>
#include <string>

namespace KR {

/// Where the images of a camera come from: a source string, understood.
struct KRSource {
    /// The numbers are what getCameraModel() answers.
    enum class Kind { Test = 1, File = 2, V4l2 = 3, Gst = 4 };

    Kind kind;
    std::string text;     ///< the whole source string, for messages
    std::string argument; ///< what stands behind the colon: pattern, path, device or pipeline
};

constexpr const char* imageSinkName = "kr-images";

/// Reads a source string. Nothing is opened yet.
/// \throws std::invalid_argument  unknown scheme or test pattern, missing argument; the text lists what there
/// is
KRSource parseSource(const std::string& text);

/// Builds the elements of a source: a bin in which everything ends in the appsink named `imageSinkName`, for raw
/// video in system memory. In a source with software parameters the elements named "balance" and "flip" adjust the
/// picture; both pass images through untouched while all parameters have their defaults.
/// \throws std::runtime_error  an element is missing; the pipeline of a gst: source is none
GstHandle<GstElement> makeSourceBin(const KRSource& source);

/// The source starts again when it has come to its end.
bool isLooped(const KRSource& source) noexcept;

/// The parameters that the source can be given.
std::span<const KRCameraParameter> getParameters(const KRSource& source) noexcept;

} // namespace KR
