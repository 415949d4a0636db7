#include "krvision/krimage.hpp"

#include "krconversionpath.hpp"
#include "krplatform/krlog.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "krwrappingproduct.hpp"

namespace KR {

namespace {

bool isYuv422(const KRImage& image) {
    if (image.colorSpace != kYUV422ColorSpace) {
        logError("vision.krimage", "Input image is not a YUV422 image.");
        return false;
    }
    return true;
}

// The number of pixels; 0 if their YUV422 bytes do not fit an int.
std::size_t countPixels(const KRImage& image) {
    const int bytes = wrappingProduct(2, image.width, image.height);
    return bytes > 0 ? static_cast<std::size_t>(bytes) / 2 : 0;
}

// The interface declares the destination const: deliberate.
unsigned char* writable(const unsigned char* out) {
    return const_cast<unsigned char*>(out);
}

} // namespace

bool KRImage::computeYUV422imageFromBGR(int rows, int cols, char* bgr) {
    const bool fits = width == cols && height == rows && nbLayers == 2;
    const int size = wrappingProduct(3, rows, cols);
    if (fits ? !data && size > 0 : !ownsData()) {
        logError("vision.krimage", "External buffer not compatible.");
        return false;
    }
    if (!fits) {
        data = internalDataUninitialized(static_cast<std::size_t>(wrappingProduct(2, cols, rows)));
        width = cols;
        height = rows;
        nbLayers = 2;
    }
    if (size > 0) {
        conversionPath().yuv422FromBgr(reinterpret_cast<const unsigned char*>(bgr), data.get(),
                                       static_cast<std::size_t>(size) / 6);
    }
    return true;
}

bool KRImage::computeBGRimageFromYUV422(const unsigned char* out) const {
    if (!isYuv422(*this)) {
        return false;
    }
    conversionPath().bgrFromYuv422(data.get(), writable(out), countPixels(*this) / 2);
    return true;
}

bool KRImage::computeYYYUUUVVVimageFromYUV422(const unsigned char* out) const {
    if (!isYuv422(*this)) {
        return false;
    }
    const std::size_t pixels = countPixels(*this);
    unsigned char* y = writable(out);
    conversionPath().planes444FromYuv422(data.get(), y, y + pixels, y + 2 * pixels, pixels / 2);
    return true;
}

bool KRImage::computeYYYYUUVVimageFromYUV422(const unsigned char* out) const {
    if (!isYuv422(*this)) {
        return false;
    }
    const std::size_t pixels = countPixels(*this);
    unsigned char* y = writable(out);
    conversionPath().planes422FromYuv422(data.get(), y, y + pixels, y + pixels + pixels / 2, pixels / 2);
    return true;
}

} // namespace KR
