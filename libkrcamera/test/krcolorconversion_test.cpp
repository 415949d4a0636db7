// Every implementation of the colour conversion that this processor can run, against the formulas.

#include "conversion/krcolorconversion.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace KR {
namespace {

constexpr unsigned char canary = 0xA5;
constexpr int rows = 3;

using Triple = std::array<double, 3>;

/// An image whose rows, if it has one plane, are followed by bytes that must not change.
class Picture {
public:
    Picture(GstVideoFormat format, int width, const char* colorimetry) {
        GstVideoInfo info;
        gst_video_info_set_format(&info, format, static_cast<guint>(width), rows);
        EXPECT_TRUE(gst_video_colorimetry_from_string(&info.colorimetry, colorimetry));
        if (GST_VIDEO_INFO_N_PLANES(&info) == 1) {
            info.stride[0] += 64;
            info.size = static_cast<gsize>(info.stride[0]) * rows;
        }
        bytes_.assign(info.size, canary);
        buffer_.reset(gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), bytes_.data(), info.size, 0,
                                                  info.size, nullptr, nullptr));
        EXPECT_TRUE(gst_video_frame_map(&frame, &info, buffer_.get(), GST_MAP_READWRITE));
    }
    ~Picture() { gst_video_frame_unmap(&frame); }
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    void fillAtRandom(unsigned seed) {
        std::mt19937 random(seed);
        std::ranges::generate(bytes_, [&random] { return static_cast<unsigned char>(random()); });
    }
    unsigned char get(int component, int x, int y) const {
        const int column = x >> GST_VIDEO_FORMAT_INFO_W_SUB(frame.info.finfo, component);
        return static_cast<unsigned char*>(GST_VIDEO_FRAME_COMP_DATA(
            &frame, component))[y * GST_VIDEO_FRAME_COMP_STRIDE(&frame, component) +
                                column * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component)];
    }
    Triple getPixel(int x, int y) const {
        Triple pixel{};
        for (int i = 0; i < static_cast<int>(GST_VIDEO_FRAME_N_COMPONENTS(&frame)); ++i) {
            pixel[static_cast<std::size_t>(i)] = get(i, x, y);
        }
        return pixel;
    }
    bool isPaddingUntouched() const {
        const int stride = frame.info.stride[0];
        for (int y = 0; y < rows; ++y) {
            const auto end = bytes_.begin() + (y + 1) * stride;
            if (!std::all_of(end - 64, end, [](unsigned char byte) { return byte == canary; })) {
                return false;
            }
        }
        return true;
    }
    const std::vector<unsigned char>& getBytes() const { return bytes_; }

    GstVideoFrame frame;

private:
    std::vector<unsigned char> bytes_;
    GstHandle<GstBuffer> buffer_;
};

struct Levels {
    explicit Levels(const GstVideoInfo& info) {
        const bool isFull = info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255;
        offset = {isFull ? 0.0 : 16.0, 128, 128};
        span = isFull ? Triple{255, 255, 255} : Triple{219, 224, 224};
        gst_video_color_matrix_get_Kr_Kb(info.colorimetry.matrix, &kr, &kb);
    }
    Triple offset{}, span{};
    double kr = 0, kb = 0;
};

// The exact result for a pixel, unrounded (ITU-R BT.601 and BT.709).
Triple convertExactly(const Triple& pixel, const GstVideoInfo& in, const GstVideoInfo& out) {
    const Levels from(in);
    Triple yuv{};
    for (std::size_t i = 0; i < 3; ++i) {
        yuv[i] = (pixel[i] - from.offset[i]) / from.span[i];
    }
    const double red = yuv[0] + 2 * (1 - from.kr) * yuv[2];
    const double blue = yuv[0] + 2 * (1 - from.kb) * yuv[1];
    const double green = (yuv[0] - from.kr * red - from.kb * blue) / (1 - from.kr - from.kb);
    if (GST_VIDEO_INFO_IS_RGB(&out)) {
        return {255 * red, 255 * green, 255 * blue};
    }
    const Levels to(out);
    const double luma = to.kr * red + (1 - to.kr - to.kb) * green + to.kb * blue;
    return {to.offset[0] + to.span[0] * luma, to.offset[1] + to.span[1] * (blue - luma) / (2 * (1 - to.kb)),
            to.offset[2] + to.span[2] * (red - luma) / (2 * (1 - to.kr))};
}

struct Way {
    GstVideoFormat in;
    const char* colorimetry;
    GstVideoFormat out;
};

std::string getName(const Way& way) {
    std::string name = std::string(gst_video_format_to_string(way.in)) + "_" + way.colorimetry + "_to_" +
                       gst_video_format_to_string(way.out);
    std::ranges::replace_if(
        name, [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

void PrintTo(const Way& way, std::ostream* out) {
    *out << getName(way);
}

std::vector<Way> listWays() {
    std::vector<Way> ways;
    for (const char* colorimetry : {"bt601", "bt709", "1:4:0:0"}) {
        for (const GstVideoFormat out : {GST_VIDEO_FORMAT_RGB, GST_VIDEO_FORMAT_BGR, GST_VIDEO_FORMAT_BGRx}) {
            ways.push_back({GST_VIDEO_FORMAT_Y444, colorimetry, out});
            ways.push_back({GST_VIDEO_FORMAT_YUY2, colorimetry, out});
        }
        for (const GstVideoFormat out : {GST_VIDEO_FORMAT_YUY2, GST_VIDEO_FORMAT_GRAY8}) {
            ways.push_back({GST_VIDEO_FORMAT_YUY2, colorimetry, out});
        }
    }
    return ways;
}

class ColorConversionPath : public testing::TestWithParam<Way> {
protected:
    static void SetUpTestSuite() { initGStreamer(); }
    void TearDown() override { forceColorConversionPath(""); }

    /// The largest difference of a level from the exact one.
    static double getWorst(const Picture& in, const Picture& out) {
        double worst = 0;
        const int components = static_cast<int>(GST_VIDEO_FRAME_N_COMPONENTS(&out.frame));
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < GST_VIDEO_FRAME_WIDTH(&in.frame); ++x) {
                const Triple exact = convertExactly(in.getPixel(x, y), in.frame.info, out.frame.info);
                for (int i = 0; i < components; ++i) {
                    const double level = std::clamp(exact[static_cast<std::size_t>(i)], 0.0, 255.0);
                    worst = std::max(worst, std::abs(level - out.get(i, x, y)));
                }
            }
        }
        return worst;
    }
};

TEST_P(ColorConversionPath, GivesTheNearestLevelsAndTouchesNothingElse) {
    const Way way = GetParam();
    const std::vector<std::string> paths = listColorConversionPaths();
    ASSERT_FALSE(paths.empty());
    for (const int width : {32, 34, 46, 62, 66, 640}) {
        Picture in(way.in, width, way.colorimetry);
        in.fillAtRandom(static_cast<unsigned>(width));
        std::vector<unsigned char> first;
        for (const std::string& path : paths) {
            const std::string where = path + ", width " + std::to_string(width);
            forceColorConversionPath(path);
            Picture out(way.out, width,
                        GST_VIDEO_FORMAT_INFO_IS_RGB(gst_video_format_get_info(way.out))
                            ? "sRGB"
                            : GST_VIDEO_COLORIMETRY_BT601);
            KRColorConversion(in.frame.info.colorimetry, out.frame.info).convert(in.frame, out.frame);
            EXPECT_LT(getWorst(in, out), 0.6) << where; // 0.5, and the factors have 13 bits
            EXPECT_TRUE(out.isPaddingUntouched()) << where;
            if (first.empty()) {
                first = out.getBytes();
            }
            EXPECT_EQ(out.getBytes(), first) << where;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, ColorConversionPath, testing::ValuesIn(listWays()),
                         [](const testing::TestParamInfo<Way>& way) { return getName(way.param); });

TEST(ColorConversionPaths, CanBeForcedOneByOne) {
    const std::vector<std::string> paths = listColorConversionPaths();
    EXPECT_EQ(std::ranges::count(paths, paths.front()), 1);
#if defined(__x86_64__)
    EXPECT_GE(paths.size(), 3U) << "this processor runs fewer than three of the instruction sets";
#endif
}

} // namespace
} // namespace KR
