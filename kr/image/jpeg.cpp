#include "image/picture.hpp"

#include "tool/file.hpp"

#include <array>
#include <csetjmp>
#include <filesystem>

#include <jpeglib.h> // needs <cstdio> before it

namespace KR::tool {

namespace {

/// libjpeg leaves by longjmp: no object with a destructor may be constructed between setjmp and there.
struct ErrorHandler {
    jpeg_error_mgr manager; // first: libjpeg has a pointer to it
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

// Warnings mean corrupt data: the picture fails with the first one.
void keepFirstWarning(j_common_ptr codec, int level) {
    if (level < 0 && codec->err->num_warnings++ == 0) {
        codec->err->format_message(codec, reinterpret_cast<ErrorHandler*>(codec->err)->message.data());
    }
}

jpeg_error_mgr* prepare(ErrorHandler& handler) {
    handler.message = {};
    handler.isFatal = false;
    jpeg_error_mgr* manager = jpeg_std_error(&handler.manager);
    manager->error_exit = leave;
    manager->emit_message = keepFirstWarning;
    return manager;
}

bool readHeader(jpeg_decompress_struct& codec, ErrorHandler& handler, std::FILE* file) {
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

/// A jpeg file whose header has been read. Not movable: libjpeg keeps pointers.
class JpegReader {
public:
    explicit JpegReader(const std::string& path) : file_(openFile(path, "rb")) {
        codec_.err = prepare(handler_);
        if (!readHeader(codec_, handler_, file_.get())) {
            jpeg_destroy_decompress(&codec_);
            throw std::runtime_error(handler_.message.data());
        }
        size_ = std::filesystem::file_size(path);
    }
    ~JpegReader() { jpeg_destroy_decompress(&codec_); }
    JpegReader(const JpegReader&) = delete;
    JpegReader& operator=(const JpegReader&) = delete;

    PictureHeader getHeader() const {
        PictureHeader header;
        header.format = "jpeg";
        header.isGrey = codec_.jpeg_color_space == JCS_GRAYSCALE;
        setSize(header, codec_.image_width, codec_.image_height);
        // Huffman codes take a bit or more per block of 8x8 pixels; arithmetic ones, rare, a fraction of that.
        const std::uint64_t pixelsPerByte = std::uint64_t{64} * 8 * (codec_.arith_code != 0 ? 64 : 1);
        if (std::uint64_t{codec_.image_width} * codec_.image_height / pixelsPerByte > size_) {
            throw std::runtime_error("has " + std::to_string(size_) + " bytes, too few for " +
                                     std::to_string(header.width) + "x" + std::to_string(header.height) +
                                     " pixels");
        }
        return header;
    }

    /// Checks that the file has an end, without decoding it. Call it last.
    void requireEnd() {
        // libjpeg has stopped before the pixels, in which FF D9 means the end. A preview in the header may have its own.
        const long behind = static_cast<long>(codec_.src->bytes_in_buffer);
        std::fseek(file_.get(), -behind, SEEK_CUR);
        for (int previous = 0, byte = 0; (byte = std::fgetc(file_.get())) != EOF; previous = byte) {
            if (previous == 0xFF && byte == JPEG_EOI) {
                return;
            }
        }
        throw std::runtime_error("ends within the pixels");
    }

    void decodeTo(unsigned char* rgb) {
        if (!decode(codec_, handler_, rgb)) {
            throw std::runtime_error(handler_.message.data());
        }
    }

private:
    const File file_;
    std::uint64_t size_ = 0;
    ErrorHandler handler_;
    jpeg_decompress_struct codec_ = {};
};

} // namespace

PictureHeader readJpegHeader(const std::string& path) {
    JpegReader reader(path);
    const PictureHeader header = reader.getHeader();
    reader.requireEnd();
    return header;
}

Picture readJpeg(const std::string& path) {
    JpegReader reader(path);
    Picture picture;
    static_cast<PictureHeader&>(picture) = reader.getHeader();
    allocatePixels(picture);
    reader.decodeTo(picture.rgb.data());
    return picture;
}

void writeJpeg(const Picture& picture, const std::string& path, int quality) {
    File file = openFile(path, "wb");
    ErrorHandler handler;
    jpeg_compress_struct codec = {};
    codec.err = prepare(handler);
    const bool isWritten = encode(codec, handler, file.get(), picture, quality);
    jpeg_destroy_compress(&codec);
    if (!isWritten) {
        throw std::runtime_error(handler.message.data());
    }
    closeFile(std::move(file));
}

} // namespace KR::tool
