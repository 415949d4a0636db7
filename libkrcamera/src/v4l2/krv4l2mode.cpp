#include "v4l2/krv4l2mode.hpp"

#include "v4l2/krv4l2device.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <linux/videodev2.h>
#include <optional>
#include <tuple>

namespace KR {

namespace {

constexpr const char* anyCaps =
    "video/x-raw,format=YUY2,width=640,height=480,framerate=30/1;video/x-raw;image/jpeg";
constexpr double wantedRate = 30;
constexpr double fluentRate = 24;

struct Format {
    __u32 code;
    const char* caps;
};

// Best first.
constexpr std::array formats{
    Format{V4L2_PIX_FMT_YUYV, "video/x-raw,format=YUY2"},
    Format{V4L2_PIX_FMT_UYVY, "video/x-raw,format=UYVY"},
    Format{V4L2_PIX_FMT_YVYU, "video/x-raw,format=YVYU"},
    Format{V4L2_PIX_FMT_NV12, "video/x-raw,format=NV12"},
    Format{V4L2_PIX_FMT_YUV420, "video/x-raw,format=I420"},
    Format{V4L2_PIX_FMT_BGR24, "video/x-raw,format=BGR"},
    Format{V4L2_PIX_FMT_RGB24, "video/x-raw,format=RGB"},
    Format{V4L2_PIX_FMT_GREY, "video/x-raw,format=GRAY8"},
    Format{V4L2_PIX_FMT_MJPEG, "image/jpeg"},
    Format{V4L2_PIX_FMT_JPEG, "image/jpeg"},
};

std::ptrdiff_t getRank(const KRV4l2Mode& mode) {
    return std::ranges::find_if(formats, [&](const Format& format) { return mode.format == format.caps; }) -
           formats.begin();
}

double getRate(const KRV4l2Mode& mode) {
    return static_cast<double>(mode.rateNumerator) / mode.rateDenominator;
}

// Drivers list intervals; a rate is the inverse.
void findRate(const KRV4l2Device& device, __u32 code, KRV4l2Mode& mode) {
    v4l2_frmivalenum interval{};
    interval.pixel_format = code;
    interval.width = static_cast<__u32>(mode.size.width);
    interval.height = static_cast<__u32>(mode.size.height);
    std::optional<double> best;
    const auto offer = [&](const v4l2_fract& fraction) {
        const double rate = static_cast<double>(fraction.denominator) / fraction.numerator;
        if (fraction.numerator != 0 && fraction.denominator != 0 &&
            (!best || std::abs(rate - wantedRate) < std::abs(*best - wantedRate))) {
            best = rate;
            mode.rateNumerator = static_cast<int>(fraction.denominator);
            mode.rateDenominator = static_cast<int>(fraction.numerator);
        }
    };
    while (device.control(VIDIOC_ENUM_FRAMEINTERVALS, interval)) {
        if (interval.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
            const auto& range = interval.stepwise;
            const auto seconds = [](const v4l2_fract& f) {
                return static_cast<double>(f.numerator) / f.denominator;
            };
            if (seconds(range.min) <= 1 / wantedRate && seconds(range.max) >= 1 / wantedRate) {
                offer({1, 30});
            } else {
                offer(range.min);
                offer(range.max);
            }
            return;
        }
        offer(interval.discrete);
        ++interval.index;
    }
}

void addSizes(const KRV4l2Device& device, const Format& format, std::vector<KRV4l2Mode>& modes) {
    v4l2_frmsizeenum size{};
    size.pixel_format = format.code;
    const auto add = [&](__u32 width, __u32 height) {
        KRV4l2Mode mode{format.caps, {static_cast<int>(width), static_cast<int>(height)}};
        findRate(device, format.code, mode);
        modes.push_back(mode);
    };
    while (device.control(VIDIOC_ENUM_FRAMESIZES, size)) {
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            add(size.discrete.width, size.discrete.height);
            ++size.index;
            continue;
        }
        // Any size in a range: list those that subscribers can ask for.
        const auto& range = size.stepwise;
        const auto fits = [](__u32 value, __u32 low, __u32 high, __u32 step) {
            return value >= low && value <= high && (step == 0 || (value - low) % step == 0);
        };
        for (const auto& [width, height] : {std::pair{160U, 120U},
                                            {320U, 240U},
                                            {640U, 480U},
                                            {1280U, 720U},
                                            {1280U, 960U},
                                            {1920U, 1080U},
                                            {2560U, 1920U}}) {
            if (fits(width, range.min_width, range.max_width, range.step_width) &&
                fits(height, range.min_height, range.max_height, range.step_height)) {
                add(width, height);
            }
        }
        return;
    }
}

} // namespace

std::vector<KRV4l2Mode> listV4l2Modes(const std::string& path) {
    const KRV4l2Device device(path);
    std::vector<KRV4l2Mode> modes;
    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    while (device.control(VIDIOC_ENUM_FMT, description)) {
        const auto* format = std::ranges::find(formats, description.pixelformat, &Format::code);
        if (format != formats.end()) {
            addSizes(device, *format, modes);
        }
        ++description.index;
    }
    return modes;
}

std::string chooseV4l2Caps(const std::vector<KRV4l2Mode>& modes, const KRSize& wanted) {
    if (modes.empty()) {
        return anyCaps;
    }
    const auto worth = [&wanted](const KRV4l2Mode& mode) {
        const bool covers = mode.size.width >= wanted.width && mode.size.height >= wanted.height;
        const std::int64_t area = std::int64_t{mode.size.width} * mode.size.height;
        const bool stretched = mode.size.width * wanted.height != mode.size.height * wanted.width;
        // The least tuple wins. Of modes that are too small, the largest is best.
        return std::tuple(!covers, getRate(mode) < fluentRate, covers && stretched, covers ? area : -area,
                          getRank(mode));
    };
    const KRV4l2Mode& best = *std::ranges::min_element(modes, {}, worth);
    return best.format + ",width=" + std::to_string(best.size.width) +
           ",height=" + std::to_string(best.size.height) +
           ",framerate=" + std::to_string(best.rateNumerator) + "/" + std::to_string(best.rateDenominator);
}

} // namespace KR
