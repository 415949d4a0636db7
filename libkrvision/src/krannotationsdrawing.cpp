#include "krvision/krannotations.hpp"

#include "krfont.hpp"

#include "krplatform/krerror.hpp"
#include "krvision/krimage.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <optional>

namespace KR {

namespace {

struct Color {
    std::uint8_t red;
    std::uint8_t green;
    std::uint8_t blue;
};

constexpr Color kBoxColor{255, 128, 0};
constexpr Color kPointColor{0, 255, 0};
constexpr Color kLineColor{0, 192, 255};
constexpr Color kTextColor{255, 255, 255};
constexpr Color kTextBackground{0, 0, 0};

// A color as pixel bytes: BT.601 with luma from 16 to 235, like the images of the camera service.
struct Ink {
    std::array<std::uint8_t, 4> bytes;
    std::uint8_t u;
    std::uint8_t v;
};

Ink mix(const Color& color, int colorSpace) {
    const float r = color.red;
    const float g = color.green;
    const float b = color.blue;
    const auto toByte = [](float value) { return static_cast<std::uint8_t>(std::lround(value)); };
    const std::uint8_t luma = toByte(16 + 0.257F * r + 0.504F * g + 0.098F * b);
    const std::uint8_t u = toByte(128 - 0.148F * r - 0.291F * g + 0.439F * b);
    const std::uint8_t v = toByte(128 + 0.439F * r - 0.368F * g - 0.071F * b);
    switch (colorSpace) {
    case kRgbColorSpace:
        return {{color.red, color.green, color.blue, 0}, u, v};
    case kBgrColorSpace:
    case kBgrxColorSpace:
        return {{color.blue, color.green, color.red, 255}, u, v};
    default:
        return {{luma, 0, 0, 0}, u, v};
    }
}

struct Pixel {
    int x;
    int y;
};

/// Draws into an image's pixels, clipped to the image.
class Canvas {
public:
    explicit Canvas(KRImage& image)
        : pixels_(image.data.get()), width_(image.width), height_(image.height), layers_(image.nbLayers),
          colorSpace_(image.colorSpace), thickness_(std::max(1, (image.width + 319) / 320)) {}

    int getThickness() const noexcept { return thickness_; }

    /// Clamps distant coordinates so that sums of them do not overflow; they stay outside the image.
    Pixel place(const KRAnnotations::Point& point) const {
        const auto scale = [](float fraction, int size) {
            const double pixel = std::round(static_cast<double>(fraction) * size);
            if (std::isnan(pixel)) {
                return -4 * size - 100;
            }
            return static_cast<int>(std::clamp(pixel, -4.0 * size - 100, 5.0 * size + 100));
        };
        return {scale(point.x, width_), scale(point.y, height_)};
    }

    /// \param right,bottom  first column and row not filled
    void fill(int left, int top, int right, int bottom, const Color& color) {
        const Ink ink = mix(color, colorSpace_);
        for (int y = std::max(top, 0); y < std::min(bottom, height_); ++y) {
            for (int x = std::max(left, 0); x < std::min(right, width_); ++x) {
                set(x, y, ink);
            }
        }
    }

    void drawLine(const Pixel& from, const Pixel& to, const Color& color) {
        const int steps = std::max({std::abs(to.x - from.x), std::abs(to.y - from.y), 1});
        for (int i = 0; i <= steps; ++i) {
            const auto at = [&](int a, int b) {
                return a + static_cast<int>(std::lround(static_cast<double>(b - a) * i / steps));
            };
            const int x = at(from.x, to.x) - thickness_ / 2;
            const int y = at(from.y, to.y) - thickness_ / 2;
            fill(x, y, x + thickness_, y + thickness_, color);
        }
    }

    /// Draws inside the rectangle.
    void drawFrame(const Pixel& leftTop, const Pixel& rightBottom, const Color& color) {
        const int right = std::max(rightBottom.x, leftTop.x + 1);
        const int bottom = std::max(rightBottom.y, leftTop.y + 1);
        const int line = std::max(thickness_, 2);
        fill(leftTop.x, leftTop.y, right, std::min(leftTop.y + line, bottom), color);
        fill(leftTop.x, std::max(bottom - line, leftTop.y), right, bottom, color);
        fill(leftTop.x, leftTop.y, std::min(leftTop.x + line, right), bottom, color);
        fill(std::max(right - line, leftTop.x), leftTop.y, right, bottom, color);
    }

    int getTextHeight() const noexcept { return (KRFont::kHeight + 2) * thickness_; }

    /// Draws on a dark background that is one font pixel wider on each side.
    void drawText(const Pixel& leftTop, const std::string& text, const Color& color) {
        const int longest = width_ / thickness_ + 1; // characters that can be visible
        const int count = static_cast<int>(std::min(text.size(), static_cast<std::size_t>(longest)));
        if (count == 0) {
            return;
        }
        fill(leftTop.x, leftTop.y, leftTop.x + (count * KRFont::kAdvance + 1) * thickness_,
             leftTop.y + getTextHeight(), kTextBackground);
        for (int i = 0; i < count; ++i) {
            const auto& glyph = KRFont::getGlyph(text[static_cast<std::size_t>(i)]);
            for (int row = 0; row < KRFont::kHeight; ++row) {
                for (int column = 0; column < KRFont::kWidth; ++column) {
                    if ((glyph[static_cast<std::size_t>(row)] >> (KRFont::kWidth - 1 - column) & 1) != 0) {
                        const int x = leftTop.x + (1 + i * KRFont::kAdvance + column) * thickness_;
                        const int y = leftTop.y + (1 + row) * thickness_;
                        fill(x, y, x + thickness_, y + thickness_, color);
                    }
                }
            }
        }
    }

private:
    void set(int x, int y, const Ink& ink) {
        const auto index =
            static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x);
        unsigned char* const pixel = pixels_ + index * static_cast<std::size_t>(layers_);
        if (colorSpace_ != kYUV422ColorSpace) {
            std::copy_n(ink.bytes.begin(), layers_, pixel);
            return;
        }
        // Pairs of pixels share their chroma: Y0 U Y1 V. The last of an odd number of pixels has only its luma.
        pixel[0] = ink.bytes[0];
        const std::size_t count = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
        if ((index | 1) < count) {
            unsigned char* const pair = pixels_ + (index & ~std::size_t{1}) * 2;
            pair[1] = ink.u;
            pair[3] = ink.v;
        }
    }

    unsigned char* const pixels_;
    const int width_;
    const int height_;
    const int layers_;
    const int colorSpace_;
    const int thickness_;
};

void require(const KRImage& image) {
    const auto refuse = [](const std::string& what) {
        throw KRError("KRAnnotations", "drawAnnotations", what);
    };
    switch (image.colorSpace) {
    case kLumaColorSpace:
    case kYUV422ColorSpace:
    case kRgbColorSpace:
    case kBgrColorSpace:
    case kBgrxColorSpace:
        break;
    default:
        refuse("cannot draw in colour space " + std::to_string(image.colorSpace) +
               "; supported are luma (0), YUV422 (9), RGB (11), BGR (13) and BGRx (18)");
    }
    if (image.width <= 0 || image.height <= 0 ||
        image.nbLayers != getNumLayersInColorSpace(image.colorSpace)) {
        refuse("the image has " + std::to_string(image.width) + "x" + std::to_string(image.height) +
               " pixels of " + std::to_string(image.nbLayers) + " bytes");
    }
    const auto needed =
        static_cast<std::int64_t>(image.width) * image.height * static_cast<std::int64_t>(image.nbLayers);
    const auto* deleter = boost::get_deleter<KRImage::deleter>(image.data);
    if (!image.data ||
        (deleter != nullptr && !deleter->external && deleter->size >= 0 && deleter->size < needed)) {
        refuse("the image has no buffer for its geometry");
    }
}

std::string describe(const KRAnnotations::Box& box) {
    std::string text = box.label;
    if (box.identity >= 0) {
        text.append(text.empty() ? "#" : " #").append(std::to_string(box.identity));
    }
    if (box.score < 1) {
        text.append(text.empty() ? "" : " ");
        text.append(std::to_string(std::lround(std::max(0.0F, box.score) * 100))).append("%");
    }
    return text;
}

// One character per code point: continuation bytes are dropped.
std::string toAscii(const std::string& utf8) {
    std::string text;
    for (const char byte : utf8) {
        if ((static_cast<unsigned char>(byte) & 0xC0U) != 0x80U) {
            text += byte;
        }
    }
    return text;
}

} // namespace

void drawAnnotations(KRImage& image, const KRAnnotations& annotations) {
    require(image);
    Canvas canvas(image);
    for (const KRAnnotations::Polyline& line : annotations.polylines) {
        for (std::size_t i = 1; i < line.points.size(); ++i) {
            canvas.drawLine(canvas.place(line.points[i - 1]), canvas.place(line.points[i]), kLineColor);
        }
        if (line.closed && line.points.size() > 2) {
            canvas.drawLine(canvas.place(line.points.back()), canvas.place(line.points.front()), kLineColor);
        }
    }
    for (const KRAnnotations::Point& point : annotations.points) {
        const Pixel at = canvas.place(point);
        const int arm = 3 * canvas.getThickness();
        canvas.drawLine({at.x - arm, at.y}, {at.x + arm, at.y}, kPointColor);
        canvas.drawLine({at.x, at.y - arm}, {at.x, at.y + arm}, kPointColor);
    }
    for (const KRAnnotations::Box& box : annotations.boxes) {
        const Pixel leftTop = canvas.place({box.left, box.top});
        canvas.drawFrame(leftTop, canvas.place({box.right, box.bottom}), kBoxColor);
        // Above the box, or inside it if there is no room above.
        const int above = leftTop.y - canvas.getTextHeight();
        canvas.drawText({leftTop.x, above >= 0 ? above : leftTop.y}, toAscii(describe(box)), kTextColor);
    }
    for (const KRAnnotations::Text& text : annotations.texts) {
        canvas.drawText(canvas.place(text.position), toAscii(text.text), kTextColor);
    }
}

} // namespace KR
