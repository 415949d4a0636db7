#include "conversion/krconverter.hpp"

#include "conversion/krcolorconversion.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <krplatform/krsharedallocation.hpp>
#include <krvision/krcolorspacenames.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

struct ColorSpace {
    int code;
    GstVideoFormat format;
};

constexpr std::array colorSpaces{
    ColorSpace{kLumaColorSpace, GST_VIDEO_FORMAT_GRAY8}, ColorSpace{kYUV422ColorSpace, GST_VIDEO_FORMAT_YUY2},
    ColorSpace{kRgbColorSpace, GST_VIDEO_FORMAT_RGB},    ColorSpace{kBgrColorSpace, GST_VIDEO_FORMAT_BGR},
    ColorSpace{kBgrxColorSpace, GST_VIDEO_FORMAT_BGRx},
};

constexpr std::size_t maximumIdleConversions = 8;
constexpr std::size_t maximumIdleBuffers = 4;
constexpr std::align_val_t bufferAlignment{64};

const ColorSpace* findColorSpace(int code) noexcept {
    const auto found = std::ranges::find(colorSpaces, code, &ColorSpace::code);
    return found == colorSpaces.end() ? nullptr : found;
}

// Wide images (32:9) keep the aspect ratio of the camera's picture; others are filled by it.
bool isLetterboxed(int resolution) noexcept {
    return resolution >= 13 && resolution <= 17;
}

struct Rectangle {
    int x, y, width, height;
};

// Position of the picture in the image. Left edge and width are even: in YUV422, two pixels share their colour.
Rectangle placePicture(const GstVideoInfo& in, const GstVideoInfo& out, bool letterboxed) {
    Rectangle place{0, 0, out.width, out.height};
    if (!letterboxed) {
        return place;
    }
    const gint64 inWidth = static_cast<gint64>(in.width) * std::max(in.par_n, 1);
    const gint64 inHeight = static_cast<gint64>(in.height) * std::max(in.par_d, 1);
    if (inWidth * out.height >= inHeight * out.width) {
        place.height = static_cast<int>(std::max<gint64>(1, inHeight * out.width / inWidth));
        place.y = (out.height - place.height) / 2;
    } else {
        place.width = static_cast<int>(std::max<gint64>(2, inWidth * out.height / inHeight / 2 * 2));
        place.x = (out.width - place.width) / 4 * 2;
    }
    return place;
}

// Number of input pixels per output pixel and direction. GStreamer's default grows with the scale, and from twelve on
// its rounding errors are visible as stripes.
int countTaps(const GstVideoInfo& in, const Rectangle& place) {
    const double scale =
        std::max(static_cast<double>(in.width) / place.width, static_cast<double>(in.height) / place.height);
    return std::clamp(2 * static_cast<int>(std::ceil(scale)), 2, 6);
}

// Whether KRColorConversion converts the colours. GStreamer's conversion of 8-bit YUV to RGB is off by up to six levels,
// that to another matrix by two, and it ignores a range of 0 to 255 if the matrix stays the same.
bool changesColors(const GstVideoInfo& in, const GstVideoInfo& out) {
    gdouble kr = 0;
    gdouble kb = 0;
    if (!gst_video_color_matrix_get_Kr_Kb(in.colorimetry.matrix, &kr, &kb)) {
        return false;
    }
    if (GST_VIDEO_INFO_IS_RGB(&out)) {
        const bool isYuv = GST_VIDEO_INFO_IS_YUV(&in) || GST_VIDEO_INFO_IS_GRAY(&in);
        return isYuv && GST_VIDEO_INFO_COMP_DEPTH(&in, 0) == 8;
    }
    const bool isFull = in.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255;
    return GST_VIDEO_INFO_IS_YUV(&in) && (isFull || in.colorimetry.matrix != out.colorimetry.matrix);
}

// GStreamer's borders are black in one range of levels only.
void paintBlack(GstVideoFrame& image) {
    const bool isFull = image.info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255; // like RGB
    const auto black = static_cast<unsigned char>(isFull ? 0 : 16);
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&image); ++plane) {
        auto* bytes = static_cast<unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&image, plane));
        const auto size = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&image, plane)) *
                          static_cast<std::size_t>(GST_VIDEO_FRAME_HEIGHT(&image));
        std::fill_n(bytes, size, plane == 0 ? black : static_cast<unsigned char>(128));
        for (std::size_t i = 1; GST_VIDEO_FRAME_FORMAT(&image) == GST_VIDEO_FORMAT_YUY2 && i < size; i += 2) {
            bytes[i] = 128;
        }
    }
}

// A part of an image; shares its memory.
GstVideoFrame crop(const GstVideoFrame& image, const Rectangle& place) {
    GstVideoFrame part = image;
    part.info.width = place.width;
    part.info.height = place.height;
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&part); ++plane) {
        part.data[plane] = static_cast<unsigned char*>(part.data[plane]) +
                           GST_VIDEO_FRAME_PLANE_STRIDE(&part, plane) * place.y +
                           GST_VIDEO_FRAME_COMP_PSTRIDE(&part, 0) * place.x;
    }
    return part;
}

GstVideoConverter* makeConverter(const GstVideoInfo& in, const GstVideoInfo& out, const Rectangle& place) {
    GstVideoInfo from = in;
    // Fields are converted as whole images; both sides must have the same mode.
    GST_VIDEO_INFO_INTERLACE_MODE(&from) = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
    GstVideoInfo to;
    gst_video_info_set_format(&to, GST_VIDEO_INFO_FORMAT(&out), static_cast<guint>(place.width),
                              static_cast<guint>(place.height));
    to.colorimetry = out.colorimetry;
    to.fps_n = from.fps_n; // both sides must have the same rate
    to.fps_d = from.fps_d;
    GstStructure* options = gst_structure_new(
        "options", GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
        GST_VIDEO_RESAMPLER_METHOD_LINEAR, GST_VIDEO_CONVERTER_OPT_RESAMPLER_TAPS, G_TYPE_UINT,
        countTaps(in, place), GST_VIDEO_CONVERTER_OPT_DITHER_METHOD, GST_TYPE_VIDEO_DITHER_METHOD,
        GST_VIDEO_DITHER_NONE, nullptr);
    return gst_video_converter_new(&from, &to, options); // takes the options
}

} // namespace

std::optional<GstVideoInfo> getImageInfo(int resolution, int colorSpace) {
    const ColorSpace* space = findColorSpace(colorSpace);
    if (space == nullptr || !isResolutionSupported(resolution)) {
        return std::nullopt;
    }
    int width = 0;
    int height = 0;
    setSizeFromResolution(resolution, width, height);
    GstVideoInfo info;
    gst_video_info_set_format(&info, space->format, static_cast<guint>(width), static_cast<guint>(height));
    if (!GST_VIDEO_INFO_IS_RGB(&info)) {
        // The same for all sizes, and for luma the same as for YUV422. GStreamer's own default changes to BT.709
        // with the height, and to 0 to 255 without colours.
        gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
    }
    return info;
}

bool isResolutionSupported(int resolution) noexcept {
    return resolution >= 0 && resolution <= 17;
}

bool isColorSpaceSupported(int colorSpace) noexcept {
    return findColorSpace(colorSpace) != nullptr;
}

std::string listColorSpaces() {
    std::string list;
    for (const KRColorSpaceName& space : kColorSpaceNames) {
        list += (list.empty() ? "" : ", ") + std::to_string(space.code) + " (" + space.name + ")";
    }
    return list;
}

/// Converts images of one layout to another. GStreamer scales them; if KRColorConversion converts the colours, GStreamer
/// first brings them into a layout that KRColorConversion reads, unless they have it already.
class KRConverter::Conversion {
public:
    Conversion(const GstVideoInfo& from, int toResolution, int toColorSpace)
        : in(from), resolution(toResolution), colorSpace(toColorSpace),
          out(getImageInfo(resolution, colorSpace).value()),
          place_(placePicture(in, out, isLetterboxed(resolution))) {
        const bool isPairs = GST_VIDEO_INFO_FORMAT(&in) == GST_VIDEO_FORMAT_YUY2;
        const bool isSameSize = !hasBorders() && in.width == out.width && in.height == out.height;
        const bool isRgb = GST_VIDEO_INFO_IS_RGB(&out);
        const bool isTheirLuma = isPairs && isSameSize && GST_VIDEO_INFO_IS_GRAY(&out) &&
                                 in.colorimetry.matrix == out.colorimetry.matrix;
        if (changesColors(in, out) || isTheirLuma) {
            colors_.emplace(in.colorimetry, out);
            if (isPairs && isSameSize) {
                return;
            }
            const bool keepsAllColors =
                isRgb && (!isSameSize || GST_VIDEO_FORMAT_INFO_W_SUB(in.finfo, 1) == 0);
            between_.emplace(keepsAllColors ? GST_VIDEO_FORMAT_Y444 : GST_VIDEO_FORMAT_YUY2, out,
                             in.colorimetry);
        }
        converter_.reset(makeConverter(in, between_ ? between_->frame.info : out, place_));
        if (!converter_) {
            throw std::runtime_error(std::string("images of the format ") + GST_VIDEO_INFO_NAME(&in) +
                                     " cannot be converted");
        }
    }

    void convert(const GstVideoFrame& image, GstVideoFrame& converted) {
        if (converter_) {
            scale(image, between_ ? between_->frame : converted);
        }
        if (colors_) {
            colors_->convert(between_ ? between_->frame : image, converted);
        }
    }

    const GstVideoInfo in;
    const int resolution;
    const int colorSpace;
    const GstVideoInfo out;

private:
    struct Image {
        Image(GstVideoFormat format, const GstVideoInfo& size, const GstVideoColorimetry& colors) {
            GstVideoInfo info;
            gst_video_info_set_format(&info, format, static_cast<guint>(size.width),
                                      static_cast<guint>(size.height));
            info.colorimetry = colors;
            const GstHandle<GstBuffer> buffer(gst_buffer_new_allocate(nullptr, info.size, nullptr));
            if (!buffer || !gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_READWRITE)) {
                throw std::runtime_error("out of memory");
            }
        }
        ~Image() { gst_video_frame_unmap(&frame); }
        Image(const Image&) = delete;
        Image& operator=(const Image&) = delete;

        GstVideoFrame frame; ///< keeps its buffer
    };
    struct Free {
        void operator()(GstVideoConverter* converter) const noexcept { gst_video_converter_free(converter); }
    };

    bool hasBorders() const noexcept { return place_.width < out.width || place_.height < out.height; }

    void scale(const GstVideoFrame& image, GstVideoFrame& scaled) {
        if (hasBorders()) {
            paintBlack(scaled);
        }
        GstVideoFrame picture = crop(scaled, place_);
        gst_video_converter_frame(converter_.get(), &image, &picture);
    }

    const Rectangle place_;
    std::optional<KRColorConversion> colors_; ///< if GStreamer does not convert the colours
    std::optional<Image> between_;            ///< the scaled image, input of colors_
    std::unique_ptr<GstVideoConverter, Free> converter_;
};

/// Memory for converted images. It is reused because touching fresh pages is expensive.
class KRConverter::Buffers : public std::enable_shared_from_this<Buffers> {
public:
    Buffers() { idle_.reserve(maximumIdleBuffers); }
    ~Buffers() {
        for (const auto& [bytes, size] : idle_) {
            free(bytes);
        }
    }
    Buffers(const Buffers&) = delete;
    Buffers& operator=(const Buffers&) = delete;

    /// `size` uninitialised bytes, aligned to 64. They return here when their last owner releases them.
    /// \throws std::bad_alloc
    boost::shared_ptr<unsigned char[]> take(std::size_t size) {
        unsigned char* bytes = takeIdle(size);
        if (bytes == nullptr) {
            bytes = static_cast<unsigned char*>(::operator new[](size, bufferAlignment));
        }
        return {bytes,
                [owner = shared_from_this(), size](unsigned char* used) { owner->giveBack(used, size); }};
    }

private:
    static void free(unsigned char* bytes) noexcept { ::operator delete[](bytes, bufferAlignment); }

    unsigned char* takeIdle(std::size_t size) {
        const KRLock lock(mutex_);
        const auto found = std::ranges::find(idle_, size, &Idle::second);
        if (found == idle_.end()) {
            return nullptr;
        }
        unsigned char* bytes = found->first;
        idle_.erase(found);
        return bytes;
    }

    void giveBack(unsigned char* bytes, std::size_t size) noexcept {
        unsigned char* surplus = nullptr;
        {
            const KRLock lock(mutex_);
            if (idle_.size() == maximumIdleBuffers) {
                surplus = idle_.front().first;
                idle_.erase(idle_.begin());
            }
            idle_.emplace_back(bytes, size);
        }
        if (surplus != nullptr) {
            free(surplus);
        }
    }

    using Idle = std::pair<unsigned char*, std::size_t>;
    KRMutex mutex_;
    std::vector<Idle> idle_ KR_GUARDED_BY(mutex_); ///< longest idle first
};

KRConverter::KRConverter() : buffers_(std::make_shared<Buffers>()) {}
KRConverter::~KRConverter() = default;

KRBinary KRConverter::convert(const GstVideoFrame& image, int resolution, int colorSpace) {
    std::unique_ptr<Conversion> conversion = take(image.info, resolution, colorSpace);
    const std::size_t size = GST_VIDEO_INFO_SIZE(&conversion->out);
    boost::shared_ptr<unsigned char[]> bytes = allocateShared(size); // for clients in other processes
    if (!bytes) {
        bytes = buffers_->take(size);
    }
    const GstHandle<GstBuffer> buffer(gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), bytes.get(),
                                                                  size, 0, size, nullptr, nullptr));
    GstVideoInfo info = conversion->out;
    GstVideoFrame converted;
    if (!gst_video_frame_map(&converted, &info, buffer.get(), GST_MAP_WRITE)) {
        throw std::runtime_error("the memory for a converted image cannot be mapped");
    }
    conversion->convert(image, converted);
    gst_video_frame_unmap(&converted);
    giveBack(std::move(conversion));
    return {std::move(bytes), size};
}

std::unique_ptr<KRConverter::Conversion> KRConverter::take(const GstVideoInfo& in, int resolution,
                                                           int colorSpace) {
    {
        const KRLock lock(mutex_);
        const auto found = std::ranges::find_if(idle_, [&](const std::unique_ptr<Conversion>& idle) {
            return idle->resolution == resolution && idle->colorSpace == colorSpace &&
                   gst_video_info_is_equal(&idle->in, &in);
        });
        if (found != idle_.end()) {
            std::unique_ptr<Conversion> conversion = std::move(*found);
            idle_.erase(found);
            return conversion;
        }
    }
    return std::make_unique<Conversion>(in, resolution, colorSpace);
}

void KRConverter::giveBack(std::unique_ptr<Conversion> conversion) {
    std::unique_ptr<Conversion> surplus;
    const KRLock lock(mutex_);
    if (idle_.size() == maximumIdleConversions) {
        surplus = std::move(idle_.front());
        idle_.erase(idle_.begin());
    }
    idle_.push_back(std::move(conversion));
}

} // namespace KR
