#pragma once

// Images of KRVision as matrices of OpenCV, and back. Header-only: KRVision itself does not need OpenCV; users of
// this header link opencv_core.

#include <krplatform/krerror.hpp>
#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <opencv2/core.hpp>

#include <boost/smart_ptr/make_shared_object.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>
#include <memory>
#include <string>

namespace KR {

/// The type of a matrix for images of a colour space: CV_8UC1 for luma, CV_8UC2 for YUV422 (Y U and Y V by turns),
/// CV_8UC3 for RGB and BGR, CV_8UC4 for BGRx, CV_16UC1 for one 16-bit sample per pixel; -1 if OpenCV has none.
inline int getMatType(int colorSpace) noexcept {
    const int layers = getNumLayersInColorSpace(colorSpace);
    const int channels = getNumChannelsInColorSpace(colorSpace);
    if (channels > 0 && layers == channels) {
        return CV_MAKETYPE(CV_8U, channels);
    }
    return channels == 1 && layers == 2 ? CV_16UC1 : -1;
}

namespace detail {

/// Releases the handle on an image's buffer with the last matrix that uses it.
class KRImageMatAllocator : public cv::MatAllocator {
public:
    static cv::UMatData* hold(const boost::shared_ptr<unsigned char[]>& data, std::size_t size) {
        static const KRImageMatAllocator allocator;
        auto holder = std::make_unique<boost::shared_ptr<unsigned char[]>>(data);
        auto* const held = new cv::UMatData(&allocator);
        held->data = held->origdata = data.get();
        held->size = size;
        held->userdata = holder.release();
        return held;
    }
    // What a matrix needs beyond the image is OpenCV's to allocate.
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step,
                           cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
    }
    bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
    }
    void deallocate(cv::UMatData* held) const override {
        if (held != nullptr && held->refcount == 0 && held->urefcount == 0) {
            delete static_cast<boost::shared_ptr<unsigned char[]>*>(held->userdata);
            delete held;
        }
    }
};

} // namespace detail

/// An image as a matrix of `height` rows and `width` columns on the image's own pixels: nothing is copied, and
/// writes to one are visible in the other.
///
/// The matrix keeps an owned buffer alive. An external one must outlive it. The hook xProcessImage() may keep the matrix,
/// as it may keep a copy of the image. Reentrant.
/// \throws KRError  a colour space for which getMatType() is -1; a size that is not positive; layers that are not those
/// of the colour space; no buffer, or an owned one that is too small
inline cv::Mat toMat(const KRImage& image) {
    const auto refuse = [&](const std::string& what) {
        throw KRError("KRImage", "toMat",
                      "an image of " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                          " pixels in colour space " + std::to_string(image.colorSpace) + " " + what);
    };
    const int type = getMatType(image.colorSpace);
    if (type == -1) {
        refuse("has no matrix type in OpenCV; convert it to luma, YUV422, RGB, BGR or BGRx");
    }
    if (image.width <= 0 || image.height <= 0) {
        refuse("has no pixels");
    }
    if (image.nbLayers != getNumLayersInColorSpace(image.colorSpace)) {
        refuse("has " + std::to_string(image.nbLayers) + " bytes per pixel; the colour space has " +
               std::to_string(getNumLayersInColorSpace(image.colorSpace)));
    }
    if (!image.data) {
        refuse("has no buffer");
    }
    const std::size_t size = static_cast<std::size_t>(image.width) * image.height * image.nbLayers;
    const auto* const deleter = boost::get_deleter<KRImage::deleter>(image.data);
    if (deleter != nullptr && !deleter->external && deleter->size >= 0 &&
        static_cast<std::size_t>(deleter->size) < size) {
        refuse("needs a buffer of " + std::to_string(size) + " bytes, not " + std::to_string(deleter->size));
    }
    cv::Mat mat(image.height, image.width, type, image.data.get());
    mat.u = detail::KRImageMatAllocator::hold(image.data, size);
    mat.addref();
    return mat;
}

/// A region of interest of an image as a rectangle of OpenCV.
inline cv::Rect toRect(const KRImage::ROI& roi) {
    return {roi.x, roi.y, roi.w, roi.h};
}

/// The part of an image inside a region, as toMat(image): no copy, with the rows of the whole image between.
/// \throws KRError  as toMat(image); a region that is empty or not inside the image; one of a YUV422 image that begins at
/// an odd column, where pixels have lost their U
inline cv::Mat toMat(const KRImage& image, const KRImage::ROI& roi) {
    const cv::Mat whole = toMat(image);
    const bool isInside = roi.x >= 0 && roi.y >= 0 && roi.w > 0 && roi.h > 0 && roi.w <= image.width &&
                          roi.h <= image.height && roi.x <= image.width - roi.w &&
                          roi.y <= image.height - roi.h;
    const std::string region = "the region of " + std::to_string(roi.w) + "x" + std::to_string(roi.h) +
                               " pixels at " + std::to_string(roi.x) + ", " + std::to_string(roi.y);
    if (!isInside) {
        throw KRError("KRImage", "toMat",
                      region + " is not inside the image of " + std::to_string(image.width) + "x" +
                          std::to_string(image.height));
    }
    if (image.colorSpace == kYUV422ColorSpace && roi.x % 2 != 0) {
        throw KRError("KRImage", "toMat",
                      region + " cuts a pair of YUV422 pixels; it must begin at an even column");
    }
    return whole(toRect(roi));
}

/// A matrix as an image on the matrix's own pixels: nothing is copied, and writes to one are visible in the other.
///
/// The image keeps the matrix alive; its operations treat the buffer as external. If the matrix uses memory of the
/// caller, that must outlive the image. Time stamp, camera and field of view are those of a new image: -1, 0, and 0
/// for all angles. Reentrant.
/// \param colorSpace  what the channels are
/// \throws KRError  a matrix that is empty or has more than two dimensions; a type that is not that of the colour space;
/// rows with gaps, as those of a region: use mat.clone()
inline KRImage toImage(const cv::Mat& mat, int colorSpace) {
    const auto refuse = [](const std::string& what) { throw KRError("KRImage", "toImage", what); };
    if (mat.dims != 2 || mat.empty()) {
        refuse("a matrix of " + std::to_string(mat.dims) + " dimensions and " + std::to_string(mat.total()) +
               " elements is no image; an image has rows and columns");
    }
    const int type = getMatType(colorSpace);
    if (type == -1 || mat.type() != type) {
        refuse("a matrix of type " + cv::typeToString(mat.type()) + " is no image of colour space " +
               std::to_string(colorSpace) + ", which " +
               (type == -1 ? "OpenCV has no type for" : "needs " + cv::typeToString(type)));
    }
    if (!mat.isContinuous()) {
        refuse("rows of " + std::to_string(static_cast<std::size_t>(mat.cols) * mat.elemSize()) +
               " bytes lie " + std::to_string(mat.step[0]) +
               " bytes apart; an image has no gaps between rows: clone() the matrix");
    }
    if (mat.total() * mat.elemSize() > 0x7fffffffU) {
        refuse("a matrix of " + std::to_string(mat.total() * mat.elemSize()) +
               " bytes is no image, which has at most 2147483647");
    }
    KRImage image(mat.cols, mat.rows, colorSpace, true, 0, 0, 0, 0);
    const auto holder = boost::make_shared<cv::Mat>(mat);
    image.data = boost::shared_ptr<unsigned char[]>(holder, mat.data);
    return image;
}

} // namespace KR
