#pragma once

#include "camera/krsize.hpp"

#include <string>
#include <vector>

namespace KR {

/// One way in which a V4L2 device delivers images.
struct KRV4l2Mode {
    std::string format; ///< beginning of GStreamer's caps: "video/x-raw,format=YUY2"
    KRSize size;
    int rateNumerator = 30; ///< images per second
    int rateDenominator = 1;
};

/// What the device tells of itself, as far as its images can be read. Of the rates of a size, it is the one next to 30.
/// Empty if the device does not list its sizes. \throws std::runtime_error it cannot be opened
std::vector<KRV4l2Mode> listV4l2Modes(const std::string& device);

/// The caps of the mode that serves a picture of this size best: not smaller if there is one, fast enough to look fluent,
/// of the same shape, and as little larger as there is; best as YUV422, then uncompressed. Without modes, whatever
/// the device likes.
std::string chooseV4l2Caps(const std::vector<KRV4l2Mode>& modes, const KRSize& wanted);

} // namespace KR
