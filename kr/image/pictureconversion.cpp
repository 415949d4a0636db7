#include "image/pictureconversion.hpp"

#include "tool/colorspace.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

using Pixels = std::vector<unsigned char>;

[[noreturn]] void refuse(int colorSpace) {
    throw std::runtime_error("colour space " + std::to_string(colorSpace) +
                             " is not supported; colour spaces are " + listColorSpaces());
}

void swapRedAndBlue(Pixels& pixels) {
    for (std::size_t i = 0; i + 2 < pixels.size(); i += 3) {
        std::swap(pixels[i], pixels[i + 2]);
    }
}

unsigned char toByte(int level) {
    return static_cast<unsigned char>(std::clamp(level, 0, 255));
}

// ITU-R BT.601 with Y from 16 to 235, to the nearest level, in 1/65536: what the camera service does, and players do.
struct StandardColors {
    static void addRgb(int y, int u, int v, Pixels& rgb) {
        const int luma = 76309 * (y - 16) + 32768;
        u -= 128;
        v -= 128;
        rgb.push_back(toByte((luma + 104597 * v) >> 16));
        rgb.push_back(toByte((luma - 25675 * u - 53279 * v) >> 16));
        rgb.push_back(toByte((luma + 132201 * u) >> 16));
    }
    static unsigned char makeY(const unsigned char* rgb) {
        return toByte((16829 * rgb[0] + 33039 * rgb[1] + 6416 * rgb[2] + (16 << 16) + 32768) >> 16);
    }
    // U and V are those of the mean colour of two pixels.
    static unsigned char makeU(const unsigned char* pair) {
        return makeChroma(-9714 * (pair[0] + pair[3]) - 19070 * (pair[1] + pair[4]) +
                          28784 * (pair[2] + pair[5]));
    }
    static unsigned char makeV(const unsigned char* pair) {
        return makeChroma(28784 * (pair[0] + pair[3]) - 24103 * (pair[1] + pair[4]) -
                          4681 * (pair[2] + pair[5]));
    }

private:
    static unsigned char makeChroma(int twice) { return toByte((twice + (128 << 17) + 65536) >> 17); }
};

// Converts an even number of pixels to R G B as modules do.
Pixels convertYuv422AsModules(unsigned char* yuv422, std::size_t pixels) {
    KRImage image(static_cast<int>(pixels), 1, kYUV422ColorSpace, true, 0.0f, 0.0f, 0.0f, 0.0f);
    image.data = KRImage::externalData(yuv422);
    Pixels rgb(3 * pixels);
    image.computeBGRimageFromYUV422(rgb.data());
    swapRedAndBlue(rgb);
    return rgb;
}

std::size_t roundUpToPairs(std::size_t pixels) {
    return (pixels + 1) / 2 * 2;
}

Pixels convertYuv422(unsigned char* yuv422, std::size_t pixels, Colors colors) {
    if (colors == Colors::AsModulesSee) {
        return convertYuv422AsModules(yuv422, pixels);
    }
    Pixels rgb;
    rgb.reserve(3 * pixels);
    for (const unsigned char* pair = yuv422; pair != yuv422 + 2 * pixels; pair += 4) {
        StandardColors::addRgb(pair[0], pair[1], pair[3], rgb);
        StandardColors::addRgb(pair[2], pair[1], pair[3], rgb);
    }
    return rgb;
}

Pixels convertFromYuv422(const unsigned char* from, std::size_t pixels, Colors colors) {
    Pixels yuv422(from, from + 2 * pixels);
    if (pixels % 2 != 0) { // the last pixel has no V: it is its own partner, as in KRImage::savePPM
        const unsigned char y = yuv422[2 * pixels - 2], u = yuv422[2 * pixels - 1];
        yuv422.insert(yuv422.end(), {y, u});
    }
    Pixels rgb = convertYuv422(yuv422.data(), roundUpToPairs(pixels), colors);
    rgb.resize(3 * pixels);
    return rgb;
}

Pixels convertFromLuma(const unsigned char* luma, std::size_t pixels, Colors colors) {
    Pixels yuv422(2 * roundUpToPairs(pixels), 128);
    for (std::size_t i = 0; i < pixels; ++i) {
        yuv422[2 * i] = luma[i];
    }
    Pixels rgb = convertYuv422(yuv422.data(), roundUpToPairs(pixels), colors);
    rgb.resize(3 * pixels);
    return rgb;
}

// B G R, with the last pixel repeated if their number is odd.
Pixels makeBgrPairs(const Picture& picture) {
    Pixels bgr = picture.rgb;
    swapRedAndBlue(bgr);
    if (bgr.size() % 2 != 0) {
        const Pixels last(bgr.end() - 3, bgr.end());
        bgr.insert(bgr.end(), last.begin(), last.end());
    }
    return bgr;
}

void convertToYuv422(const Picture& picture, KRImage& image, Colors colors) {
    if (picture.width % 2 != 0) {
        throw std::runtime_error("YUV422 needs an even width, not " + std::to_string(picture.width) +
                                 "; choose another colour space");
    }
    if (colors == Colors::Standard) {
        unsigned char* to = image.data.get();
        for (std::size_t i = 0; i < picture.rgb.size(); i += 6, to += 4) {
            const unsigned char* pair = picture.rgb.data() + i;
            to[0] = StandardColors::makeY(pair);
            to[1] = StandardColors::makeU(pair);
            to[2] = StandardColors::makeY(pair + 3);
            to[3] = StandardColors::makeV(pair);
        }
        return;
    }
    Pixels bgr = makeBgrPairs(picture);
    image.computeYUV422imageFromBGR(picture.height, picture.width, reinterpret_cast<char*>(bgr.data()));
}

void convertToLuma(const Picture& picture, KRImage& image, Colors colors) {
    if (colors == Colors::Standard) {
        for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(picture.rgb.size() / 3); ++i) {
            image.data[i] = StandardColors::makeY(picture.rgb.data() + 3 * i);
        }
        return;
    }
    Pixels bgr = makeBgrPairs(picture);
    const int pixels = static_cast<int>(bgr.size() / 3);
    KRImage yuv422(pixels, 1, kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    yuv422.computeYUV422imageFromBGR(1, pixels, reinterpret_cast<char*>(bgr.data()));
    for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(picture.rgb.size() / 3); ++i) {
        image.data[i] = yuv422.data[2 * i];
    }
}

// Where R, G and B are in a colour space of three or four bytes.
struct Order {
    std::ptrdiff_t red, green, blue;
};

Order orderOf(int colorSpace) {
    switch (colorSpace) {
    case kRgbColorSpace:
        return {0, 1, 2};
    case kBgrColorSpace:
    case kBgrxColorSpace:
        return {2, 1, 0};
    default:
        refuse(colorSpace);
    }
}

} // namespace

Picture makePicture(const KRImage& image, Colors colors) {
    Picture picture;
    picture.width = image.width;
    picture.height = image.height;
    picture.isGrey = image.colorSpace == kLumaColorSpace;
    const unsigned char* pixels = image.data.get();
    const auto count = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
    if (image.colorSpace == kLumaColorSpace) {
        picture.rgb = convertFromLuma(pixels, count, colors);
    } else if (image.colorSpace == kYUV422ColorSpace) {
        picture.rgb = convertFromYuv422(pixels, count, colors);
    } else {
        const Order order = orderOf(image.colorSpace);
        picture.rgb.reserve(3 * count);
        for (std::size_t i = 0; i < count; ++i, pixels += image.nbLayers) {
            picture.rgb.insert(picture.rgb.end(),
                               {pixels[order.red], pixels[order.green], pixels[order.blue]});
        }
    }
    return picture;
}

KRImage makeImage(const Picture& picture, int colorSpace, Colors colors) {
    KRImage image(picture.width, picture.height, colorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    if (colorSpace == kLumaColorSpace) {
        convertToLuma(picture, image, colors);
    } else if (colorSpace == kYUV422ColorSpace) {
        convertToYuv422(picture, image, colors);
    } else {
        const Order order = orderOf(colorSpace);
        unsigned char* pixels = image.data.get();
        for (std::size_t i = 0; i < picture.rgb.size(); i += 3, pixels += image.nbLayers) {
            pixels[order.red] = picture.rgb[i];
            pixels[order.green] = picture.rgb[i + 1];
            pixels[order.blue] = picture.rgb[i + 2];
        }
    }
    return image;
}

} // namespace KR::tool
