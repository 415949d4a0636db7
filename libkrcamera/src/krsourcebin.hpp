#pragma once

#include "krgstreamer.hpp"
#include "krsource.hpp"

#include <string>

namespace KR {

constexpr const char* imageSinkName = "kr-images";

/// Builds the elements of a source: a bin in which everything ends in the appsink named `imageSinkName`, for raw
/// video in system memory. In a source with picture controls the elements named "gain", "balance" and "flip" adjust
/// the picture; they pass images through untouched while all controls have their defaults.
/// Not for recordings. \param v4l2Caps  in what way a V4L2 device is to deliver \throws std::runtime_error  an element is missing; the pipeline of a gst: source is none
GstHandle<GstElement> makeSourceBin(const KRSource& source, const std::string& v4l2Caps);

} // namespace KR
