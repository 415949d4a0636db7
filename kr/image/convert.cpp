// kr image convert

#include "colorspace.hpp"
#include "command.hpp"
#include "number.hpp"
#include "outputfile.hpp"
#include "pictureconversion.hpp"

#include <krvision/kroxifile.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    std::string in;
    std::string out;
    std::string colorSpace;
    int quality = 90;
};

int chooseColorSpace(const Options& options, const Picture& picture) {
    if (options.colorSpace.empty()) {
        return picture.isGrey ? kLumaColorSpace : kYUV422ColorSpace;
    }
    const auto found = findColorSpace(options.colorSpace);
    if (!found) {
        throw UsageError("there is no colour space " + options.colorSpace + "; known are " +
                         listColorSpaces());
    }
    return *found;
}

// The picture as an image with the time stamp, camera and angles of the image that it was made of.
KRImage changeColorSpace(const KRImage& from, int colorSpace) {
    KRImage image = makeImage(makePicture(from), colorSpace);
    image.timeStamp = from.timeStamp;
    image.cameraId = from.cameraId;
    image.leftAngle = from.leftAngle;
    image.topAngle = from.topAngle;
    image.rightAngle = from.rightAngle;
    image.bottomAngle = from.bottomAngle;
    return image;
}

KRImage readAsImage(const Options& options) {
    if (!isOxiFile(options.in)) {
        const Picture picture = readPicture(options.in);
        return makeImage(picture, chooseColorSpace(options, picture));
    }
    const KRImage image = readOxi(options.in);
    return options.colorSpace.empty() ? image : changeColorSpace(image, chooseColorSpace(options, {}));
}

Picture readAsPicture(const std::string& path) {
    return isOxiFile(path) ? makePicture(readOxi(path)) : readPicture(path);
}

ExitCode convert(const Options& options) {
    const std::string extension = getExtension(options.out);
    if (extension != ".oxi" && !isPictureExtension(extension)) {
        throw UsageError(options.out + ": the extension says the format: .oxi, .ppm, .png or .jpg");
    }
    if (extension != ".oxi" && !options.colorSpace.empty()) {
        throw UsageError("--color-space is for oxi files only");
    }
    OutputFile out(options.out, options.in);
    if (extension == ".oxi") {
        if (!readAsImage(options).writeFile(out.getPath().c_str())) {
            throw std::runtime_error(options.out + ": cannot be written");
        }
    } else {
        writePicture(readAsPicture(options.in), out.getPath(), options.quality);
    }
    out.commit();
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("IN", options->in, "an oxi, ppm, pgm, png or jpeg file")->required();
    app.add_option("OUT", options->out,
                   "a name that ends in .oxi, .ppm, .png or .jpg; replaced if it is there")
        ->required();
    app.add_option("--color-space", options->colorSpace,
                   "of an oxi file: " + listColorSpaces() +
                       ". YUV422 if it is not told, luma for a grey picture");
    app.add_option("--quality", options->quality, "of a jpeg, 1 to 100; 90 if it is not told")
        ->transform(wholeNumber(1, 100));
    return [options] { return convert(*options); };
}

const CommandRegistration command({"image", "convert", "Converts an image file to a picture, or back",
                                   "  kr image convert left.oxi left.png\n"
                                   "  kr image convert photo.jpg photo.oxi --color-space bgr",
                                   declare});

} // namespace

} // namespace KR::tool
