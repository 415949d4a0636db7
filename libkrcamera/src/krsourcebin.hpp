#pragma once

#include "krgstreamer.hpp"
#include "krsource.hpp"

namespace KR {

constexpr const char* imageSinkName = "kr-images";

/// Builds the elements of a source: a bin in which everything ends in the appsink named `imageSinkName`, for raw
/// video in system memory. In a source with picture controls the elements named "gain", "balance" and "flip" adjust
/// the picture; they pass images through untouched while all controls have their defaults.
/// Not for recordings. \throws std::runtime_error  an element is missing; the pipeline of a gst: source is none
GstHandle<GstElement> makeSourceBin(const KRSource& source);

} // namespace KR
