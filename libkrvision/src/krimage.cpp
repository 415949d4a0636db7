#include "krvision/krimage.hpp"

#include "krownedbytes.hpp"
#include "krplatform/krlog.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "krwrappingproduct.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>

namespace KR {

namespace {

// Negative ints arrive here as huge sizes.
std::size_t checkedSize(std::size_t size) {
    if (size > static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max())) {
        throw std::bad_array_new_length();
    }
    return size;
}

} // namespace

KRImage::ROI::ROI(int inX, int inY, int inW, int inH) : ROI(inX, inY, inW, inH, 0.0f, 0.0f, 0.0f, 0.0f) {}

KRImage::ROI::ROI(int inX, int inY, int inW, int inH, float inLeftAngle, float inTopAngle, float inRightAngle,
                  float inBottomAngle)
    : x(inX), y(inY), w(inW), h(inH), leftAngle(inLeftAngle), topAngle(inTopAngle), rightAngle(inRightAngle),
      bottomAngle(inBottomAngle) {}

void KRImage::deleter::operator()(unsigned char* pointer) const noexcept {
    if (!external) {
        delete[] pointer;
    }
}

boost::shared_ptr<unsigned char[]> KRImage::emptyData(bool external) {
    return external ? externalData(nullptr) : internalDataUninitialized(0);
}

boost::shared_ptr<unsigned char[]> KRImage::internalDataZeroInitialized(std::size_t size) {
    return {new unsigned char[checkedSize(size)](), deleter{false, static_cast<std::ptrdiff_t>(size)}};
}

boost::shared_ptr<unsigned char[]> KRImage::internalDataUninitialized(std::size_t size) {
    return {new unsigned char[checkedSize(size)], deleter{false, static_cast<std::ptrdiff_t>(size)}};
}

boost::shared_ptr<unsigned char[]> KRImage::externalData(unsigned char* pointer) {
    return {pointer, deleter{true}};
}

KRImage::KRImage(int resolution, int inColorSpace, bool emptyBuffer, float inLeftAngle, float inTopAngle,
                 float inRightAngle, float inBottomAngle)
    : KRImage(-1, -1, inColorSpace, true, inLeftAngle, inTopAngle, inRightAngle, inBottomAngle) {
    if (!isResolutionValid(resolution)) {
        throw std::invalid_argument("KRImage: invalid resolution");
    }
    setSizeFromResolution(resolution, width, height);
    allocatedResolution = resolution;
    allocatedSize = wrappingProduct(width, height, nbLayers);
    if (!emptyBuffer) {
        data = internalDataZeroInitialized(static_cast<std::size_t>(allocatedSize));
    }
}

KRImage::KRImage(int inWidth, int inHeight, int inColorSpace, bool emptyBuffer, float inLeftAngle,
                 float inTopAngle, float inRightAngle, float inBottomAngle)
    : width(inWidth), height(inHeight), nbLayers(getNumLayersInColorSpace(inColorSpace)),
      colorSpace(inColorSpace), timeStamp(-1), data(emptyData(true)), cameraId(0),
      allocatedSize(wrappingProduct(nbLayers, width, height)),
      allocatedResolution(getResolutionFromSize(width, height)), allocatedLayers(nbLayers),
      leftAngle(inLeftAngle), topAngle(inTopAngle), rightAngle(inRightAngle), bottomAngle(inBottomAngle),
      extraFlag(false) {
    if (!isColorSpaceValid(colorSpace)) {
        throw std::invalid_argument("KRImage: invalid colorspace");
    }
    if (!emptyBuffer) {
        data = internalDataZeroInitialized(static_cast<std::size_t>(allocatedSize));
    }
}

KRImage KRImage::deepCopy() const {
    KRImage copy(*this);
    // After reading a file, an owned buffer may have another size than allocatedSize.
    const std::ptrdiff_t owned = countOwnedBytes(*this);
    const std::ptrdiff_t size = std::max<std::ptrdiff_t>(owned, allocatedSize);
    copy.data = internalDataUninitialized(static_cast<std::size_t>(size));
    if (data && size > 0) {
        std::memcpy(copy.data.get(), data.get(), static_cast<std::size_t>(owned == -1 ? size : owned));
    }
    return copy;
}

bool KRImage::ownsData() const noexcept {
    const auto* found = boost::get_deleter<deleter>(data);
    return data && found != nullptr && !found->external;
}

bool KRImage::setResolution(int resolution) {
    if (!isResolutionValid(resolution)) {
        throw std::invalid_argument("KRImage: invalid resolution");
    }
    // Compares codes, not sizes, although codes 7 and 8 are the smallest sizes: deliberate.
    if (allocatedResolution < resolution && !reallocateDataSize(resolution, allocatedLayers)) {
        return false;
    }
    setSizeFromResolution(resolution, width, height);
    return true;
}

bool KRImage::setColorSpace(int inColorSpace) {
    if (inColorSpace == colorSpace) {
        return true;
    }
    if (!isColorSpaceValid(inColorSpace)) {
        throw std::invalid_argument("KRImage: setColorSpace: invalid color space");
    }
    colorSpace = inColorSpace;
    nbLayers = getNumLayersInColorSpace(inColorSpace);
    return nbLayers <= allocatedLayers || reallocateDataSize(allocatedResolution, nbLayers);
}

bool KRImage::reallocateDataSize(int resolution, int layers) {
    int tableWidth = 0;
    int tableHeight = 0;
    setSizeFromResolution(resolution, tableWidth, tableHeight);
    if (tableWidth == -1) {
        throw std::invalid_argument("KRImage: reallocateDataSize: Weird resolution #" +
                                    std::to_string(resolution));
    }
    const int size = wrappingProduct(tableWidth, layers, tableHeight);
    if (size != allocatedSize) {
        data = internalDataUninitialized(static_cast<std::size_t>(size));
        allocatedSize = size;
        allocatedResolution = resolution;
        allocatedLayers = layers;
    }
    return data != nullptr;
}

KRValue KRImage::toKRValue() const {
    const int size = wrappingProduct(width, height, nbLayers);
    const std::int64_t seconds = timeStamp / 1000000;
    return KRValue::array(width, height, nbLayers, colorSpace, static_cast<int>(seconds),
                          static_cast<int>(timeStamp - seconds * 1000000),
                          KRBinary::copyOf(data.get(), checkedSize(static_cast<std::size_t>(size))), cameraId,
                          leftAngle, topAngle, rightAngle, bottomAngle);
}

KRImage* KRImage::fromKRValue(const KRValue& value) {
    if (!value.isArray() || value.getSize() < 12) {
        logError("KRImage", "KRValue is not an image, cannot convert\n");
        return nullptr;
    }
    const int imageWidth = value[0].to<int>();
    const int imageHeight = value[1].to<int>();
    auto image =
        std::make_unique<KRImage>(imageWidth, imageHeight, value[3].to<int>(), true, value[8].to<float>(),
                                  value[9].to<float>(), value[10].to<float>(), value[11].to<float>());
    image->data = internalDataUninitialized(static_cast<std::size_t>(image->allocatedSize));

    // Trusts the value's layers and the length of its binary: deliberate.
    const int size = wrappingProduct(imageWidth, imageHeight, value[2].to<int>());
    const KRBinary& pixels = value[6].GetBinary();
    int filled = 0;
    if (size > 0) {
        std::memcpy(image->data.get(), pixels.data(), static_cast<std::size_t>(size));
        filled = size;
    }
    if (filled < image->allocatedSize) {
        std::memset(image->data.get() + filled, 0, static_cast<std::size_t>(image->allocatedSize - filled));
    }

    image->timeStamp = value[5].to<int>() + value[4].to<int>() * std::int64_t{1000000};
    image->cameraId = static_cast<signed char>(value[7].to<int>());
    return image.release();
}

std::string KRImage::toString() const {
    std::array<std::int32_t, 4> firstPixel;
    std::memcpy(firstPixel.data(), data.get(), sizeof firstPixel);
    std::ostringstream out;
    out << "this          : " << static_cast<const void*>(this) << std::endl
        << "Width         : " << width << std::endl
        << "Height        : " << height << std::endl
        << "NbLayers      : " << nbLayers << std::endl
        << "ColorSpace    : " << colorSpace << std::endl
        << "TimeStamp     : " << timeStamp << std::endl
        << "CameraID      : " << cameraId << std::endl // the raw character, not its number: deliberate
        << "Left angle    : " << leftAngle << std::endl
        << "Top angle     : " << topAngle << std::endl
        << "Right angle   : " << rightAngle << std::endl
        << "Bottom angle  : " << bottomAngle << std::endl
        << "Frame         : " << std::hex << static_cast<const void*>(data.get())
        << "FirstPixel    : " << firstPixel[0] << " " << firstPixel[1] << " " << firstPixel[2] << " "
        << firstPixel[3] << std::dec << std::endl
        << "AllocatedSize : " << allocatedSize;
    return out.str();
}

} // namespace KR
