#pragma once

#include "source/krsource.hpp"

#include <memory>

namespace KR {

/// \name Sources that are GStreamer pipelines
/// All but that of a gst: string have picture controls.
///@{
/// A pattern that videotestsrc draws. \throws std::invalid_argument  there is no such pattern
std::unique_ptr<KRSource> makeTestSource(const KRSourceString& string);
/// A film, played again and again.
std::unique_ptr<KRSource> makeFileSource(const KRSourceString& string);
std::unique_ptr<KRSource> makeStillImageSource(const KRSourceString& string);
/// A camera that sends multipart JPEG, or a film, which is played again and again.
std::unique_ptr<KRSource> makeHttpSource(const KRSourceString& string);
std::unique_ptr<KRSource> makeRtspSource(const KRSourceString& string);
/// A pipeline in the syntax of gst-launch.
std::unique_ptr<KRSource> makeGstSource(const KRSourceString& string);
///@}

} // namespace KR
