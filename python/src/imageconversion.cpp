#include "image.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace KR::python {

namespace {

using Bytes = std::vector<unsigned char>;

// The library's conversions need an even number of pixels: rounds up to an even number.
std::size_t countPaired(const KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    return pixels + pixels % 2;
}

// The YUV422 pixels; with an odd number, the last one lacks V, so its U stands for both.
Bytes takeYuv422(const KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    Bytes yuv422(image.data.get(), image.data.get() + 2 * pixels);
    if (pixels % 2 != 0) {
        const unsigned char y = yuv422[2 * pixels - 2], u = yuv422[2 * pixels - 1];
        yuv422.insert(yuv422.end(), {y, u});
    }
    return yuv422;
}

Bytes takeLumaAsYuv422(const KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    Bytes yuv422(2 * countPaired(image), 128);
    for (std::size_t i = 0; i < pixels; ++i) {
        yuv422[2 * i] = image.data[static_cast<std::ptrdiff_t>(i)];
    }
    return yuv422;
}

Bytes toBgr(Bytes yuv422) {
    const std::size_t pixels = yuv422.size() / 2;
    KRImage image(static_cast<int>(pixels), 1, kYUV422ColorSpace, true, 0.0F, 0.0F, 0.0F, 0.0F);
    image.data = KRImage::externalData(yuv422.data());
    Bytes bgr(3 * pixels);
    image.computeBGRimageFromYUV422(bgr.data());
    return bgr;
}

Bytes toYuv422(Bytes bgr) {
    const std::size_t pixels = bgr.size() / 3;
    Bytes yuv422(2 * pixels);
    KRImage image(static_cast<int>(pixels), 1, kYUV422ColorSpace, true, 0.0F, 0.0F, 0.0F, 0.0F);
    image.data = KRImage::externalData(yuv422.data());
    image.computeYUV422imageFromBGR(1, static_cast<int>(pixels), reinterpret_cast<char*>(bgr.data()));
    return yuv422;
}

bool isBgrLike(int colorSpace) {
    return colorSpace == kBgrColorSpace || colorSpace == kRgbColorSpace || colorSpace == kBgrxColorSpace;
}

bool isSupported(int colorSpace) {
    return colorSpace == kLumaColorSpace || colorSpace == kYUV422ColorSpace || isBgrLike(colorSpace);
}

// B G R of every pixel of a BGR, RGB or BGRx image; if their number is odd, the last one twice.
Bytes takeBgr(const KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    const std::size_t step = image.colorSpace == kBgrxColorSpace ? 4 : 3;
    const std::size_t blue = image.colorSpace == kRgbColorSpace ? 2 : 0;
    const unsigned char* from = image.data.get();
    Bytes bgr(3 * countPaired(image));
    for (std::size_t i = 0; i < pixels; ++i, from += step) {
        bgr[3 * i] = from[blue];
        bgr[3 * i + 1] = from[1];
        bgr[3 * i + 2] = from[2 - blue];
    }
    if (pixels % 2 != 0) {
        std::memcpy(bgr.data() + 3 * pixels, bgr.data() + 3 * (pixels - 1), 3);
    }
    return bgr;
}

void putBgr(const Bytes& bgr, KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    const std::size_t step = image.colorSpace == kBgrxColorSpace ? 4 : 3;
    const std::size_t blue = image.colorSpace == kRgbColorSpace ? 2 : 0;
    unsigned char* to = image.data.get();
    for (std::size_t i = 0; i < pixels; ++i, to += step) {
        to[blue] = bgr[3 * i];
        to[1] = bgr[3 * i + 1];
        to[2 - blue] = bgr[3 * i + 2];
        if (step == 4) {
            to[3] = 0;
        }
    }
}

void putYuv422(const Bytes& yuv422, KRImage& image) {
    const std::size_t pixels = static_cast<std::size_t>(image.width) * image.height;
    if (image.colorSpace == kYUV422ColorSpace) {
        std::memcpy(image.data.get(), yuv422.data(), 2 * pixels);
        return;
    }
    for (std::size_t i = 0; i < pixels; ++i) {
        image.data[static_cast<std::ptrdiff_t>(i)] = yuv422[2 * i];
    }
}

void writePpm(const KRImage& image, const std::string& path) {
    const KRImage rgb = image.colorSpace == kRgbColorSpace ? image : convert(image, kRgbColorSpace);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    const std::size_t size = 3 * static_cast<std::size_t>(rgb.width) * rgb.height;
    if (!file || std::fprintf(file.get(), "P6\n%d %d\n255\n", rgb.width, rgb.height) < 0 ||
        std::fwrite(rgb.data.get(), 1, size, file.get()) != size || std::fflush(file.get()) != 0) {
        throw KRError("Image", "write", path + ": cannot be written: " + std::strerror(errno));
    }
}

} // namespace

KRImage convert(const KRImage& image, int colorSpace) {
    for (const int each : {image.colorSpace, colorSpace}) {
        if (!isSupported(each)) {
            throw KRError("Image", "to",
                          "colour space " + std::to_string(each) +
                              " is not converted; colour spaces are luma, YUV422, RGB, BGR and BGRx");
        }
    }
    if (image.colorSpace == colorSpace) {
        return image.deepCopy();
    }
    KRImage converted(image.width, image.height, colorSpace, true, image.leftAngle, image.topAngle,
                      image.rightAngle, image.bottomAngle);
    converted.data = KRImage::internalDataUninitialized(static_cast<std::size_t>(converted.allocatedSize));
    converted.timeStamp = image.timeStamp;
    converted.cameraId = image.cameraId;
    converted.rois = image.rois;
    converted.extraFlag = image.extraFlag;
    if (isBgrLike(image.colorSpace)) {
        if (isBgrLike(colorSpace)) {
            putBgr(takeBgr(image), converted);
        } else {
            putYuv422(toYuv422(takeBgr(image)), converted);
        }
        return converted;
    }
    Bytes yuv422 = image.colorSpace == kLumaColorSpace ? takeLumaAsYuv422(image) : takeYuv422(image);
    if (isBgrLike(colorSpace)) {
        putBgr(toBgr(std::move(yuv422)), converted);
    } else {
        putYuv422(yuv422, converted);
    }
    return converted;
}

void writeImage(const KRImage& image, const std::string& path) {
    if (path.ends_with(".ppm")) {
        writePpm(image, path);
    } else if (!path.ends_with(".oxi")) {
        throw KRError("Image", "write", path + ": the extension selects the format: .oxi or .ppm");
    } else if (!image.writeFile(path.c_str())) {
        throw KRError("Image", "write", path + ": cannot be written: " + std::strerror(errno));
    }
}

} // namespace KR::python
