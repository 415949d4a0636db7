#include "krvision/krimage.hpp"

#include "krownedbytes.hpp"
#include "krplatform/krlog.hpp"
#include "krppm.hpp"
#include "krvision/kroxifile.hpp"
#include "krwrappingproduct.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/stat.h>

namespace KR {

namespace {

// More bytes than any resolution needs in any colour space.
constexpr int kUnusualSize = 2560 * 1920 * 12;

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

bool readBytes(std::FILE* file, void* to, std::size_t size) {
    return size == 0 || std::fread(to, 1, size, file) == size; // no bytes: `to` may be null
}

bool writeBytes(std::FILE* file, const void* from, std::size_t size) {
    return size == 0 || std::fwrite(from, 1, size, file) == size;
}

bool close(File& file) {
    return std::fclose(file.release()) == 0;
}

// Unbuffered: the pixels are transferred in one piece, straight from or to the image.
File openUnbuffered(const char* path, const char* mode) {
    File file(std::fopen(path, mode));
    if (file) {
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
    }
    return file;
}

// Whether the file may be that long; true for pipes and devices, whose size is unknown.
bool mayHold(std::FILE* file, std::int64_t size) {
    struct stat status;
    return ::fstat(::fileno(file), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size >= size;
}

// Writes `count` groups of pixels, each `In` bytes in the buffer and `Out` bytes in the file, in large blocks.
template <std::size_t In, std::size_t Out, class Convert>
bool writeConverted(std::FILE* file, const unsigned char* in, std::size_t count, Convert convert) {
    constexpr std::size_t kGroups = 4096;
    std::array<unsigned char, kGroups * Out> block;
    while (count > 0) {
        const std::size_t groups = std::min(count, kGroups);
        unsigned char* out = block.data();
        for (std::size_t i = 0; i < groups; ++i, in += In, out += Out) {
            convert(in, out);
        }
        if (!writeBytes(file, block.data(), groups * Out)) {
            return false;
        }
        count -= groups;
    }
    return true;
}

// Luma and chroma are written as red, green and blue: deliberate.
bool writeYuv422(std::FILE* file, const unsigned char* data, std::size_t pixels) {
    const bool written =
        writeConverted<4, 6>(file, data, pixels / 2, [](const unsigned char* yuv, unsigned char* out) {
            const unsigned char y0 = yuv[0], u = yuv[1], y1 = yuv[2], v = yuv[3];
            out[0] = y0;
            out[1] = u;
            out[2] = v;
            out[3] = y1;
            out[4] = u;
            out[5] = v;
        });
    if (!written || pixels % 2 == 0) {
        return written;
    }
    // An unpaired last pixel uses its only chroma byte for both.
    const unsigned char* last = data + 2 * (pixels - 1);
    const std::array<unsigned char, 3> pixel = {last[0], last[1], last[1]};
    return writeBytes(file, pixel.data(), pixel.size());
}

} // namespace

bool KRImage::writeFile(const char* path) const {
    const int size = wrappingProduct(width, height, nbLayers);
    if (!hasBytes(*this, size)) {
        return false;
    }
    File file = openUnbuffered(path, "wb");
    if (!file) {
        return false;
    }
    KROxiHeader fields;
    fields.width = width;
    fields.height = height;
    fields.layers = nbLayers;
    fields.colorSpace = colorSpace;
    fields.timeStamp = timeStamp;
    fields.cameraId = cameraId;
    fields.angles = {leftAngle, topAngle, rightAngle, bottomAngle};
    const auto header = fields.encode();
    return writeBytes(file.get(), header.data(), header.size()) &&
           writeBytes(file.get(), data.get(), static_cast<std::size_t>(size)) && close(file);
}

bool KRImage::readFile(const char* path) {
    File file = openUnbuffered(path, "rb");
    std::array<unsigned char, oxi::kHeaderSize1> bytes;
    std::uint32_t version = 0;
    if (!file || !readBytes(file.get(), bytes.data(), sizeof version)) {
        return false;
    }
    std::memcpy(&version, bytes.data(), sizeof version);
    const std::size_t headerSize = oxi::getHeaderSize(version);
    if (headerSize == 0) {
        logError("vision.krimage", "readFile: Error while reading image: not an .oxi format\n");
        return false;
    }
    if (!readBytes(file.get(), bytes.data() + sizeof version, headerSize - sizeof version)) {
        return false;
    }
    const KROxiHeader header = KROxiHeader::decode(bytes.data());
    const int size = wrappingProduct(header.width, header.height, header.layers);

    if (header.width == width && header.height == height && header.layers == nbLayers) {
        // Only the pixels change, the rest of the header is dropped: deliberate.
        if (!hasBytes(*this, size)) {
            return false;
        }
    } else {
        if (!ownsData()) {
            logError("vision.krimage", "readFile: external buffer not compatible.\n");
            return false;
        }
        if (size > kUnusualSize && !mayHold(file.get(), static_cast<std::int64_t>(headerSize) + size)) {
            return false;
        }
        data = internalDataUninitialized(static_cast<std::size_t>(size));
        width = header.width;
        height = header.height;
        nbLayers = header.layers;
        colorSpace = header.colorSpace;
        timeStamp = header.timeStamp;
        cameraId = header.cameraId;
        leftAngle = header.angles[0];
        topAngle = header.angles[1];
        rightAngle = header.angles[2];
        bottomAngle = header.angles[3];
    }
    return readBytes(file.get(), data.get(), static_cast<std::size_t>(size)) && close(file);
}

int KRImage::savePPM(const char* path) const {
    File file(std::fopen(path, "wb"));
    if (!file) {
        return -1;
    }
    const int result = writePpm(*this, file.get());
    if (result != 1) {
        return result;
    }
    return close(file) ? 1 : -6;
}

int writePpm(const KRImage& image, std::FILE* file) {
    if (std::fprintf(file, "P6\n%d %d\n %d\n", image.width, image.height, 255) < 1) {
        return -2;
    }
    const int pixels = wrappingProduct(image.width, image.height);
    const int size = wrappingProduct(image.width, image.height, image.nbLayers);
    const unsigned char* data = image.data.get();
    if (image.nbLayers == 3) {
        const bool written = hasBytes(image, size) && writeBytes(file, data, static_cast<std::size_t>(size));
        return written ? 1 : -3;
    }
    if (image.nbLayers == 2 && pixels > 0) {
        return hasBytes(image, size) && writeYuv422(file, data, static_cast<std::size_t>(pixels)) ? 1 : -4;
    }
    if (image.nbLayers == 1 && pixels > 0) {
        const bool written =
            hasBytes(image, size) && writeConverted<1, 3>(file, data, static_cast<std::size_t>(pixels),
                                                          [](const unsigned char* grey, unsigned char* out) {
                                                              out[0] = out[1] = out[2] = *grey;
                                                          });
        return written ? 1 : -5;
    }
    return 1;
}

} // namespace KR
