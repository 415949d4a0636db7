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

/// The modes that the device lists and the service can read. Of the rates of a size, the one closest to 30 counts.
/// Empty if the device does not list its sizes.
/// \throws std::runtime_error  the device cannot be opened; the text is the system's
std::vector<KRV4l2Mode> listV4l2Modes(const std::string& device);

/// The caps of the mode that serves a picture of this size best. In this order: not smaller than the picture, at least
/// 24 images per second, the same aspect ratio, the smallest area, YUV422 before other uncompressed formats before JPEG.
/// Without modes, the caps leave the choice to the device.
std::string chooseV4l2Caps(const std::vector<KRV4l2Mode>& modes, const KRSize& wanted);

} // namespace KR
