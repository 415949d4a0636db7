#include "source/krsourcekinds.hpp"

#include "gstreamer/krpipelinesource.hpp"
#include "recording/krrecordingsource.hpp"
#include "v4l2/krv4l2source.hpp"

#include <array>

namespace KR {

namespace {

constexpr std::array sourceKinds{
    KRSourceKind{"test", "test, test:PATTERN", 1, makeTestSource, "ball"},
    KRSourceKind{"file", "file:PATH", 2, makeFileSource},
    KRSourceKind{"image", "image:PATH", 6, makeStillImageSource},
    KRSourceKind{"v4l2", "v4l2:DEVICE", 3, makeV4l2Source},
    KRSourceKind{"http", "http://...", 5, makeHttpSource, nullptr, true},
    KRSourceKind{"https", "https://...", 5, makeHttpSource, nullptr, true},
    KRSourceKind{"rtsp", "rtsp://...", 5, makeRtspSource, nullptr, true},
    KRSourceKind{"oxv", "oxv:PATH[#STREAM][?pace=own|fetch]", 7, makeRecordingSource},
    KRSourceKind{"gst", "gst:PIPELINE", 4, makeGstSource},
};

} // namespace

std::unique_ptr<KRSource> makeSource(const std::string& text) {
    const KRSourceString string = parseSourceString(text, sourceKinds);
    return string.kind->make(string);
}

} // namespace KR
