#include "krjpeg.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <jpeglib.h> // needs <cstdio> before it

namespace KR::web {

namespace {

constexpr int kBlock = 16; // pixels of a side that are encoded together

// To 0 to 255 from 16 to 235, and from 16 to 240 around 128; within half a level. In 16 bits, for vector instructions.
unsigned char expandLuma(unsigned char y) {
    const auto above = static_cast<std::uint16_t>(std::max<std::uint16_t>(y, 16) - 16);
    return static_cast<unsigned char>(
        std::min<std::uint16_t>(static_cast<std::uint16_t>(above * 149 + 64) >> 7, 255));
}
unsigned char expandChroma(unsigned char c) {
    const std::uint16_t bounded = std::max<std::uint16_t>(c, 16);
    return static_cast<unsigned char>(
        std::min<std::uint16_t>(static_cast<std::uint16_t>(bounded * 146 - 2240) >> 7, 255));
}

/// libjpeg leaves by longjmp: no object with a destructor may be constructed between setjmp and there.
struct ErrorHandler {
    jpeg_error_mgr manager; // first: libjpeg has a pointer to it
    std::jmp_buf way;
    std::array<char, JMSG_LENGTH_MAX> message;
};

void leave(j_common_ptr codec) {
    auto* handler = reinterpret_cast<ErrorHandler*>(codec->err);
    codec->err->format_message(codec, handler->message.data());
    std::longjmp(handler->way, 1);
}

void keepQuiet(j_common_ptr /*codec*/, int /*level*/) {}

J_COLOR_SPACE findLayout(int colorSpace) {
    switch (colorSpace) {
    case kLumaColorSpace:
        return JCS_GRAYSCALE;
    case kYUV422ColorSpace:
        return JCS_YCbCr;
    case kRgbColorSpace:
        return JCS_EXT_RGB;
    case kBgrColorSpace:
        return JCS_EXT_BGR;
    case kBgrxColorSpace:
        return JCS_EXT_BGRX;
    default:
        throw std::invalid_argument("colour space " + std::to_string(colorSpace) +
                                    " has no JPEG; 0, 9, 11, 13 and 18 have");
    }
}

} // namespace

struct JpegEncoder::Codec {
    Codec() {
        codec.err = jpeg_std_error(&handler.manager);
        handler.manager.error_exit = leave;
        handler.manager.emit_message = keepQuiet;
        if (setjmp(handler.way) != 0) {
            throw std::runtime_error(handler.message.data());
        }
        jpeg_create_compress(&codec);
    }
    ~Codec() {
        jpeg_destroy_compress(&codec);
        std::free(out);
    }
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;

    /// Splits 16 rows of YUV422 into planes.
    void fillPlanes(const KRImage& image, int top) {
        const int pairs = (image.width + 1) / 2;
        for (int row = 0; row < kBlock; ++row) {
            const unsigned char* from =
                image.data.get() +
                static_cast<std::size_t>(std::min(top + row, image.height - 1)) * image.width * 2;
            unsigned char* luma = planes.data() + static_cast<std::size_t>(row) * stride;
            for (int x = 0; x < image.width; ++x) {
                luma[x] = expandLuma(from[2 * x]);
            }
            std::fill(luma + image.width, luma + stride, luma[image.width - 1]);
        }
        unsigned char* const blue = planes.data() + static_cast<std::size_t>(kBlock) * stride;
        unsigned char* const red = blue + static_cast<std::size_t>(kBlock) / 2 * stride / 2;
        const int wholePairs = image.width / 2;
        for (int row = 0; row < kBlock / 2; ++row) {
            const auto rowOf = [&](int line) {
                return image.data.get() +
                       static_cast<std::size_t>(std::min(top + line, image.height - 1)) * image.width * 2;
            };
            const unsigned char* first = rowOf(2 * row);
            const unsigned char* second = rowOf(2 * row + 1);
            unsigned char* u = blue + static_cast<std::size_t>(row) * stride / 2;
            unsigned char* v = red + static_cast<std::size_t>(row) * stride / 2;
            for (int x = 0; x < wholePairs; ++x) {
                u[x] = expandChroma(static_cast<unsigned char>((first[4 * x + 1] + second[4 * x + 1]) >> 1));
                v[x] = expandChroma(static_cast<unsigned char>((first[4 * x + 3] + second[4 * x + 3]) >> 1));
            }
            for (int x = wholePairs; x < std::max(pairs, stride / 2);
                 ++x) { // an odd width has no V at its end
                u[x] = x > 0 ? u[x - 1] : 128;
                v[x] = x > 0 ? v[x - 1] : 128;
            }
        }
    }

    /// Takes memory that is nearly always enough, so that libjpeg need not take more.
    void prepareOut(const KRImage& image) {
        constexpr unsigned long kHeader = 65536;
        const unsigned long likely =
            static_cast<unsigned long>(image.width) * static_cast<unsigned long>(image.height) + kHeader;
        if (capacity < likely) {
            std::free(out);
            out = static_cast<unsigned char*>(std::malloc(likely));
            capacity = out != nullptr ? likely : 0;
        }
    }

    /// \return whether it worked; otherwise handler.message says why
    bool encode(const KRImage& image, J_COLOR_SPACE layout, int quality) {
        if (setjmp(handler.way) != 0) {
            jpeg_abort_compress(&codec);
            return false;
        }
        unsigned char* const before = out;
        outSize = capacity;
        jpeg_mem_dest(&codec, &out, &outSize);
        codec.image_width = static_cast<JDIMENSION>(image.width);
        codec.image_height = static_cast<JDIMENSION>(image.height);
        codec.input_components = image.nbLayers;
        codec.in_color_space = layout;
        const bool isPlanar = layout == JCS_YCbCr;
        if (isPlanar) {
            codec.input_components = 3;
        }
        jpeg_set_defaults(&codec); // 2x2 pixels have one colour
        jpeg_set_quality(&codec, quality, TRUE);
        codec.raw_data_in = isPlanar ? TRUE : FALSE;
        jpeg_start_compress(&codec, TRUE);
        while (codec.next_scanline < codec.image_height) {
            if (isPlanar) {
                fillPlanes(image, static_cast<int>(codec.next_scanline));
                jpeg_write_raw_data(&codec, components.data(), kBlock);
            } else {
                JSAMPROW row = image.data.get() +
                               static_cast<std::size_t>(codec.next_scanline) * image.width * image.nbLayers;
                jpeg_write_scanlines(&codec, &row, 1);
            }
        }
        jpeg_finish_compress(&codec);
        if (out != before) { // it took more
            std::free(before);
            capacity = outSize;
        }
        return true;
    }

    void preparePlanes(int width) {
        stride = (width + kBlock - 1) / kBlock * kBlock;
        planes.resize(static_cast<std::size_t>(kBlock) * stride * 3 / 2);
        unsigned char* const blue = planes.data() + static_cast<std::size_t>(kBlock) * stride;
        unsigned char* const red = blue + static_cast<std::size_t>(kBlock) / 2 * stride / 2;
        for (int row = 0; row < kBlock; ++row) {
            rows[0][row] = planes.data() + static_cast<std::size_t>(row) * stride;
        }
        for (int row = 0; row < kBlock / 2; ++row) {
            rows[1][row] = blue + static_cast<std::size_t>(row) * stride / 2;
            rows[2][row] = red + static_cast<std::size_t>(row) * stride / 2;
        }
        components = {rows[0].data(), rows[1].data(), rows[2].data()};
    }

    ErrorHandler handler{};
    jpeg_compress_struct codec{};
    unsigned char* out = nullptr; // allocated by libjpeg or here, with malloc()
    unsigned long outSize = 0;
    unsigned long capacity = 0;
    std::vector<unsigned char> planes; // 16 rows of Y, 8 half rows each of U and V
    int stride = 0;                    // bytes of a row of Y
    std::array<std::array<JSAMPROW, kBlock>, 3> rows{};
    std::array<JSAMPARRAY, 3> components{};
};

JpegEncoder::JpegEncoder() : codec_(std::make_unique<Codec>()) {}

JpegEncoder::~JpegEncoder() = default;

void JpegEncoder::append(std::string& bytes, const KRImage& image, int quality) {
    const J_COLOR_SPACE layout = findLayout(image.colorSpace);
    if (image.width < 1 || image.height < 1 || image.width > JPEG_MAX_DIMENSION ||
        image.height > JPEG_MAX_DIMENSION || !image.data ||
        image.nbLayers != getNumLayersInColorSpace(image.colorSpace)) {
        throw std::invalid_argument("an image of " + std::to_string(image.width) + "x" +
                                    std::to_string(image.height) + " with " + std::to_string(image.nbLayers) +
                                    " layers has no JPEG");
    }
    Codec& codec = *codec_;
    codec.prepareOut(image);
    if (layout == JCS_YCbCr) {
        codec.preparePlanes(image.width);
    }
    if (!codec.encode(image, layout, quality)) {
        throw std::runtime_error(std::string("libjpeg: ") + codec.handler.message.data());
    }
    bytes.append(reinterpret_cast<const char*>(codec.out), codec.outSize);
}

} // namespace KR::web
