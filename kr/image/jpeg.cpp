#include "picture.hpp"

#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <jpeglib.h> // needs <cstdio> before it

namespace KR::tool {

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// The library's way out is a jump; no object with a destructor may be made between where that goes to and where it
/// comes from.
struct ErrorHandler {
    jpeg_error_mgr manager; // first: the library knows of nothing else
    std::jmp_buf way;
    std::array<char, JMSG_LENGTH_MAX> message;
    bool isFatal;
};

void leave(j_common_ptr codec) {
    auto* handler = reinterpret_cast<ErrorHandler*>(codec->err);
    codec->err->format_message(codec, handler->message.data());
    handler->isFatal = true;
    std::longjmp(handler->way, 1);
}

// Warnings are of broken data: the first of them is what the picture fails with.
void takeNotice(j_common_ptr codec, int level) {
    if (level < 0 && codec->err->num_warnings++ == 0) {
        codec->err->format_message(codec, reinterpret_cast<ErrorHandler*>(codec->err)->message.data());
    }
}

jpeg_error_mgr* prepare(ErrorHandler& handler) {
    handler.message = {};
    handler.isFatal = false;
    jpeg_error_mgr* manager = jpeg_std_error(&handler.manager);
    manager->error_exit = leave;
    manager->emit_message = takeNotice;
    return manager;
}

File open(const std::string& path, const char* mode) {
    File file(std::fopen(path.c_str(), mode));
    if (!file) {
        throw std::runtime_error(std::strerror(errno));
    }
    return file;
}

bool start(jpeg_decompress_struct& codec, ErrorHandler& handler, std::FILE* file) {
    if (setjmp(handler.way) != 0) {
        return false;
    }
    jpeg_create_decompress(&codec);
    jpeg_stdio_src(&codec, file);
    jpeg_read_header(&codec, TRUE);
    return true;
}

bool decode(jpeg_decompress_struct& codec, ErrorHandler& handler, unsigned char* rgb) {
    if (setjmp(handler.way) != 0) {
        return false;
    }
    codec.out_color_space = JCS_RGB;
    jpeg_start_decompress(&codec);
    while (codec.output_scanline < codec.output_height) {
        JSAMPROW row = rgb + std::size_t{3} * codec.output_width * codec.output_scanline;
        jpeg_read_scanlines(&codec, &row, 1);
    }
    jpeg_finish_decompress(&codec);
    return codec.err->num_warnings == 0;
}

bool encode(jpeg_compress_struct& codec, ErrorHandler& handler, std::FILE* file, const Picture& picture,
            int quality) {
    if (setjmp(handler.way) != 0) {
        return false;
    }
    jpeg_create_compress(&codec);
    jpeg_stdio_dest(&codec, file);
    codec.image_width = static_cast<JDIMENSION>(picture.width);
    codec.image_height = static_cast<JDIMENSION>(picture.height);
    codec.input_components = 3;
    codec.in_color_space = JCS_RGB;
    jpeg_set_defaults(&codec);
    jpeg_set_colorspace(&codec, picture.isGrey ? JCS_GRAYSCALE : JCS_YCbCr);
    jpeg_set_quality(&codec, quality, TRUE);
    codec.comp_info[0].h_samp_factor = 1; // a colour for every pixel
    codec.comp_info[0].v_samp_factor = 1;
    jpeg_start_compress(&codec, TRUE);
    while (codec.next_scanline < codec.image_height) {
        JSAMPROW row = const_cast<unsigned char*>(picture.rgb.data()) +
                       std::size_t{3} * codec.image_width * codec.next_scanline;
        jpeg_write_scanlines(&codec, &row, 1);
    }
    jpeg_finish_compress(&codec);
    return true;
}

} // namespace

Picture readJpeg(const std::string& path) {
    const File file = open(path, "rb");
    Picture picture;
    picture.format = "jpeg";
    ErrorHandler handler;
    jpeg_decompress_struct codec = {};
    codec.err = prepare(handler);
    bool isRead = start(codec, handler, file.get());
    try {
        if (isRead) {
            picture.isGrey = codec.jpeg_color_space == JCS_GRAYSCALE;
            resize(picture, codec.image_width, codec.image_height);
            isRead = decode(codec, handler, picture.rgb.data());
        }
    } catch (...) {
        jpeg_destroy_decompress(&codec);
        throw;
    }
    jpeg_destroy_decompress(&codec);
    if (!isRead) {
        throw std::runtime_error(handler.message.data());
    }
    return picture;
}

void writeJpeg(const Picture& picture, const std::string& path, int quality) {
    File file = open(path, "wb");
    ErrorHandler handler;
    jpeg_compress_struct codec = {};
    codec.err = prepare(handler);
    const bool isWritten = encode(codec, handler, file.get(), picture, quality);
    jpeg_destroy_compress(&codec);
    if (!isWritten) {
        throw std::runtime_error(handler.message.data());
    }
    if (std::fclose(file.release()) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
}

} // namespace KR::tool
