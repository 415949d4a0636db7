#include "krvision/kroxifile.hpp"

#include "krfile.hpp"
#include "krheaderfields.hpp"
#include "krvision/krdefaultangles.hpp"
#include "krvision/krimage.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <stdexcept>

namespace KR {

namespace {

struct FirstBytes {
    std::array<unsigned char, oxi::kHeaderSize1> bytes = {};
    std::size_t count = 0; // bytes beyond are 0
    std::uint64_t fileSize = 0;

    std::size_t getHeaderSize() const noexcept {
        const unsigned char* at = bytes.data();
        return oxi::getHeaderSize(takeField<std::uint32_t>(at));
    }
};

FirstBytes readFirstBytes(const std::string& path) {
    KRFile file;
    FirstBytes first;
    first.fileSize = file.openRegular(path);
    first.count = file.readAt(first.bytes.data(), first.bytes.size(), 0);
    return first;
}

} // namespace

KROxiHeader KROxiHeader::decode(const unsigned char* bytes) noexcept {
    KROxiHeader header;
    header.version = takeField<std::uint32_t>(bytes) == oxi::kVersion1 ? 1 : 0;
    header.width = takeField<std::int32_t>(bytes);
    header.height = takeField<std::int32_t>(bytes);
    header.layers = takeField<std::int32_t>(bytes);
    header.colorSpace = takeField<std::int32_t>(bytes);
    header.timeStamp = takeField<std::int64_t>(bytes);
    header.cameraId = static_cast<std::int8_t>(takeField<std::int32_t>(bytes));
    header.angles = kDefaultAngles;
    if (header.version == 1) {
        for (float& angle : header.angles) {
            angle = takeField<float>(bytes);
        }
    }
    return header;
}

std::array<unsigned char, oxi::kHeaderSize1> KROxiHeader::encode() const noexcept {
    std::array<unsigned char, oxi::kHeaderSize1> bytes;
    unsigned char* at = bytes.data();
    putField(at, oxi::kVersion1);
    putField(at, width);
    putField(at, height);
    putField(at, layers);
    putField(at, colorSpace);
    putField(at, timeStamp);
    putField<std::int32_t>(at, cameraId);
    for (const float angle : angles) {
        putField(at, angle);
    }
    return bytes;
}

std::uint64_t KROxiHeader::getPixelsOffset() const noexcept {
    return version == 1 ? oxi::kHeaderSize1 : oxi::kHeaderSize0;
}

std::uint64_t KROxiHeader::countPixelBytes() const noexcept {
    if (width <= 0 || height <= 0 || layers <= 0) {
        return 0;
    }
    constexpr std::uint64_t kMost = 0x7FFFFFFF; // an image's size is an int
    const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    const auto layerCount = static_cast<std::uint64_t>(layers);
    return pixels > kMost || pixels * layerCount > kMost ? 0 : pixels * layerCount;
}

bool isOxiFile(const std::string& path) {
    return readFirstBytes(path).getHeaderSize() > 0;
}

KROxiHeader readOxiHeader(const std::string& path) {
    const FirstBytes first = readFirstBytes(path);
    const std::size_t size = first.getHeaderSize();
    if (size == 0) {
        throw std::runtime_error(path + ": not an oxi file");
    }
    if (first.count < size) {
        throw std::runtime_error(path + ": ends within its header, after " + std::to_string(first.count) +
                                 " bytes");
    }
    KROxiHeader header = KROxiHeader::decode(first.bytes.data());
    header.fileSize = first.fileSize;
    return header;
}

std::vector<std::string> findProblems(const KROxiHeader& header) {
    std::vector<std::string> problems;
    const std::uint64_t expected = header.countPixelBytes();
    if (expected == 0) {
        problems.push_back("no image has " + std::to_string(header.width) + "x" +
                           std::to_string(header.height) + " pixels of " + std::to_string(header.layers) +
                           " bytes");
    } else if (header.fileSize < header.getPixelsOffset() + expected) {
        problems.push_back("the file ends within the pixels: it has " + std::to_string(header.fileSize) +
                           " bytes and needs " + std::to_string(header.getPixelsOffset() + expected));
    }
    if (!isColorSpaceValid(header.colorSpace)) {
        problems.push_back("colour space " + std::to_string(header.colorSpace) + " does not exist");
    } else if (header.layers != getNumLayersInColorSpace(header.colorSpace)) {
        problems.push_back("a pixel in colour space " + std::to_string(header.colorSpace) + " has " +
                           std::to_string(getNumLayersInColorSpace(header.colorSpace)) + " bytes, not " +
                           std::to_string(header.layers));
    }
    return problems;
}

KRImage readOxi(const std::string& path) {
    const std::vector<std::string> problems = findProblems(readOxiHeader(path));
    if (!problems.empty()) {
        throw std::runtime_error(path + ": " + problems.front());
    }
    KRImage image(0, 0, kLumaColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    if (!image.readFile(path.c_str())) {
        throw std::runtime_error(path + ": cannot be read");
    }
    return image;
}

} // namespace KR
