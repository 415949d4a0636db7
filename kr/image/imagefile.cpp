#include "image/imagefile.hpp"

#include "tool/command.hpp"
#include "tool/outputfile.hpp"

#include <stdexcept>

namespace KR::tool {

void requireImageExtension(const std::string& path) {
    const std::string extension = getExtension(path);
    if (extension != ".oxi" && !isPictureExtension(extension)) {
        throw UsageError(path + ": the extension selects the format: .oxi, .ppm, .png or .jpg");
    }
}

void writeImage(const KRImage& image, const std::string& path, Colors colors) {
    if (getExtension(path) != ".oxi") {
        writePicture(makePicture(image, colors), path);
    } else if (!image.writeFile(path.c_str())) {
        throw std::runtime_error(getFinalName(path) + ": cannot be written");
    }
}

} // namespace KR::tool
