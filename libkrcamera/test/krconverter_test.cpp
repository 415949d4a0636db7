#include "conversion/krconverter.hpp"

#include "cameratest.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

namespace KR {

namespace {

/// A layout that a camera may deliver.
struct Layout {
    GstVideoFormat format;
    const char* colorimetry;
};

void PrintTo(const Layout& layout, std::ostream* out) {
    *out << gst_video_format_to_string(layout.format) << " " << layout.colorimetry;
}

using Components = std::array<double, 3>;

// R, G, B from 0 to 1 as Y from 0 to 1, U and V from -0.5 to 0.5, and back (ITU-R BT.601 and BT.709).
Components toYuv(const Components& rgb, double kr, double kb) {
    const double y = kr * rgb[0] + (1 - kr - kb) * rgb[1] + kb * rgb[2];
    return {y, (rgb[2] - y) / (2 - 2 * kb), (rgb[0] - y) / (2 - 2 * kr)};
}

Components toRgb(const Components& yuv, double kr, double kb) {
    const double red = yuv[0] + (2 - 2 * kr) * yuv[2];
    const double blue = yuv[0] + (2 - 2 * kb) * yuv[1];
    return {red, (yuv[0] - kr * red - kb * blue) / (1 - kr - kb), blue};
}

/// A picture of squares in random colours.
class Squares {
public:
    static constexpr int size = 32;
    static constexpr int columns = 640 / size;
    static constexpr int rows = 480 / size;

    explicit Squares(const Layout& layout) {
        GstVideoInfo info;
        gst_video_info_set_format(&info, layout.format, 640, 480);
        EXPECT_TRUE(gst_video_colorimetry_from_string(&info.colorimetry, layout.colorimetry));
        buffer_.reset(gst_buffer_new_allocate(nullptr, info.size, nullptr));
        EXPECT_TRUE(gst_video_frame_map(&frame_, &info, buffer_.get(), GST_MAP_READWRITE));
        std::mt19937 random(4);
        for (int i = 0; i < columns * rows; ++i) {
            const auto level = [&] { return static_cast<double>(random() % 256) / 255; };
            draw(i, {level(), level(), level()});
        }
    }
    ~Squares() { gst_video_frame_unmap(&frame_); }
    Squares(const Squares&) = delete;
    Squares& operator=(const Squares&) = delete;

    const GstVideoFrame& getFrame() const { return frame_; }
    /// R, G and B of a square, from 0 to 1, computed from its rounded components.
    const Components& getColor(int column, int row) const { return colors_[row * columns + column]; }

private:
    void draw(int index, const Components& color) {
        const GstVideoInfo& info = frame_.info;
        const bool full = info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255;
        const double scale = (1 << GST_VIDEO_INFO_COMP_DEPTH(&info, 0)) / 256;
        std::array<double, 3> factor{255, 255, 255};
        std::array<double, 3> offset{0, 0, 0};
        if (!GST_VIDEO_INFO_IS_RGB(&info)) {
            factor = full ? std::array<double, 3>{255, 255, 255} : std::array<double, 3>{219, 224, 224};
            offset = full ? std::array<double, 3>{0, 128, 128} : std::array<double, 3>{16, 128, 128};
        }
        double kr = 0;
        double kb = 0;
        const bool isYuv = gst_video_color_matrix_get_Kr_Kb(info.colorimetry.matrix, &kr, &kb);
        Components components = isYuv ? toYuv(color, kr, kb) : color;
        for (int i = 0; i < 3; ++i) {
            double& component = components[i];
            const bool absent = i >= static_cast<int>(GST_VIDEO_INFO_N_COMPONENTS(&info));
            const double level =
                absent ? 128 : std::clamp(std::round(component * factor[i] + offset[i]), 0.0, 255.0);
            component = (level - offset[i]) / factor[i];
            if (!absent) {
                fill(index, i, static_cast<int>(level * scale));
            }
        }
        colors_[index] = isYuv ? toRgb(components, kr, kb) : components;
    }

    void fill(int index, int component, int level) {
        const int width = size * GST_VIDEO_FRAME_COMP_WIDTH(&frame_, component) / 640;
        const int height = size * GST_VIDEO_FRAME_COMP_HEIGHT(&frame_, component) / 480;
        for (int y = index / columns * height; y < (index / columns + 1) * height; ++y) {
            for (int x = index % columns * width; x < (index % columns + 1) * width; ++x) {
                auto* bytes = static_cast<unsigned char*>(GST_VIDEO_FRAME_COMP_DATA(&frame_, component)) +
                              y * GST_VIDEO_FRAME_COMP_STRIDE(&frame_, component) +
                              x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame_, component);
                bytes[0] = static_cast<unsigned char>(level & 0xFF);
                if (GST_VIDEO_FRAME_COMP_DEPTH(&frame_, component) > 8) {
                    bytes[1] = static_cast<unsigned char>(level >> 8);
                }
            }
        }
    }

    GstHandle<GstBuffer> buffer_;
    GstVideoFrame frame_;
    std::array<Components, columns * rows> colors_;
};

/// Two pixels of a colour in a colour space.
std::vector<int> describe(const Components& color, int colorSpace) {
    const auto level = [](double value) {
        return static_cast<int>(std::clamp(std::round(value), 0.0, 255.0));
    };
    const Components yuv = toYuv(color, 0.299, 0.114);
    const int y = level(16 + 219 * yuv[0]);
    const int u = level(128 + 224 * yuv[1]);
    const int v = level(128 + 224 * yuv[2]);
    const int red = level(255 * color[0]);
    const int green = level(255 * color[1]);
    const int blue = level(255 * color[2]);
    switch (colorSpace) {
    case Space::Luma:
        return {y, y};
    case Space::Yuv422:
        return {y, u, y, v};
    case Space::Rgb:
        return {red, green, blue, red, green, blue};
    default:
        return {blue, green, red};
    }
}

} // namespace

class ConverterTest : public testing::TestWithParam<Layout> {
protected:
    static void SetUpTestSuite() { initGStreamer(); }
};

TEST_P(ConverterTest, EveryColorIsWithinTwoLevelsInEverySizeAndColorSpace) {
    const Squares squares(GetParam());
    KRConverter converter;
    for (int resolution = 0; resolution <= 12; ++resolution) {
        for (const int colorSpace : {Space::Luma, Space::Yuv422, Space::Rgb, Space::Bgr, Space::Bgrx}) {
            const KRBinary image = converter.convert(squares.getFrame(), resolution, colorSpace);
            const GstVideoInfo info = getImageInfo(resolution, colorSpace).value();
            if (info.width < 160) {
                continue; // the squares are too small for a centre of one colour
            }
            int worst = 0;
            for (int row = 0; row < Squares::rows; ++row) {
                for (int column = 0; column < Squares::columns; ++column) {
                    const int x = (2 * column + 1) * info.width / Squares::columns / 4 * 2;
                    const int y = (2 * row + 1) * info.height / Squares::rows / 2;
                    const unsigned char* pixel = image.data() + y * GST_VIDEO_INFO_PLANE_STRIDE(&info, 0) +
                                                 x * GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0);
                    const auto expected = describe(squares.getColor(column, row), colorSpace);
                    for (std::size_t i = 0; i < expected.size(); ++i) {
                        worst = std::max(worst, std::abs(expected[i] - pixel[i]));
                    }
                }
            }
            EXPECT_LE(worst, 2) << "resolution " << resolution << ", colour space " << colorSpace;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ConverterTest,
    testing::Values(Layout{GST_VIDEO_FORMAT_YUY2, "bt601"}, Layout{GST_VIDEO_FORMAT_YUY2, "bt709"},
                    Layout{GST_VIDEO_FORMAT_YUY2, "1:4:0:0"}, Layout{GST_VIDEO_FORMAT_UYVY, "bt601"},
                    Layout{GST_VIDEO_FORMAT_I420, "bt601"}, Layout{GST_VIDEO_FORMAT_I420, "1:4:0:0"},
                    Layout{GST_VIDEO_FORMAT_NV12, "bt709"}, Layout{GST_VIDEO_FORMAT_Y42B, "1:4:0:0"},
                    Layout{GST_VIDEO_FORMAT_Y444, "bt601"}, Layout{GST_VIDEO_FORMAT_I420_10LE, "bt709"},
                    Layout{GST_VIDEO_FORMAT_RGB, "sRGB"}, Layout{GST_VIDEO_FORMAT_BGR, "sRGB"},
                    Layout{GST_VIDEO_FORMAT_BGRx, "sRGB"}, Layout{GST_VIDEO_FORMAT_ARGB, "sRGB"},
                    Layout{GST_VIDEO_FORMAT_GRAY8, "bt601"}),
    [](const testing::TestParamInfo<Layout>& layout) {
        std::string name = gst_video_format_to_string(layout.param.format);
        name += std::string("_") + layout.param.colorimetry;
        std::ranges::replace_if(
            name, [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
        return name;
    });

} // namespace KR
