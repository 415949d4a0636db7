// KRImage::readFile on any bytes, into an image of each kind, and then the other operations on the image; and the
// checked reader, which must accept nothing that KRImage::readFile refuses.

#include "memoryfile.hpp"

#include <krvision/krimage.hpp>
#include <krvision/kroxifile.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

namespace {

using KR::KRImage;

KRImage makeImage(int width, int height, bool isEmpty) {
    return {width, height, KR::kYUV422ColorSpace, isEmpty, 0.0f, 0.0f, 0.0f, 0.0f};
}

bool read(KRImage& image, const MemoryFile& file) {
    try {
        return image.readFile(file.getPath().c_str());
    } catch (const std::bad_alloc&) {
        return false; // a negative size
    }
}

// After a successful read the image has all its pixels, and every operation works on it.
void use(const KRImage& image, bool mayBeSmall) {
    const MemoryFile out(nullptr, 0);
    if (!image.writeFile(out.getPath().c_str())) {
        std::abort();
    }
    KRImage again = image.deepCopy();
    if (!again.readFile(out.getPath().c_str())) {
        std::abort();
    }
    const auto size =
        static_cast<std::size_t>(static_cast<unsigned>(image.width) * static_cast<unsigned>(image.height) *
                                 static_cast<unsigned>(image.nbLayers));
    if (size > 0 && std::memcmp(again.data.get(), image.data.get(), size) != 0) {
        std::abort();
    }
    image.savePPM("/dev/null");
    image.toKRValue();
    if (!mayBeSmall || size >= 16) {
        image.toString();
    }
}

void readChecked(const MemoryFile& file) {
    if (!KR::isOxiFile(file.getPath())) {
        return;
    }
    try {
        const KR::KROxiHeader header = KR::readOxiHeader(file.getPath());
        const bool isSound = KR::findProblems(header).empty();
        if (isSound && header.getPixelsOffset() + header.countPixelBytes() > header.fileSize) {
            std::abort();
        }
        use(KR::readOxi(file.getPath()), true);
        if (!isSound) {
            std::abort();
        }
    } catch (const std::runtime_error&) {
        return; // a problem of the file
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const MemoryFile file(data, size);
    readChecked(file);

    KRImage owned = makeImage(1, 1, false);
    if (read(owned, file)) {
        use(owned, true);
        if (!read(owned, file)) { // now with the image's geometry
            std::abort();
        }
    }

    KRImage none = makeImage(16, 16, true);
    read(none, file);

    std::vector<unsigned char> pixels(2 * 16 * 16);
    KRImage external = makeImage(16, 16, true);
    external.data = KRImage::externalData(pixels.data());
    if (read(external, file)) {
        use(external, false);
    }
    return 0;
}
