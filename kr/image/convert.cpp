// kr image convert

#include "image/imagefile.hpp"
#include "image/pictureconversion.hpp"
#include "tool/colorspace.hpp"
#include "tool/command.hpp"
#include "tool/number.hpp"
#include "tool/outputfile.hpp"

#include <krvision/kroxifile.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <CLI/CLI.hpp>

#include <string>

namespace KR::tool {

namespace {

struct Options {
    std::string in;
    std::string out;
    std::string colorSpace;
    int quality = 90;

    void declare(CLI::App& app) {
        app.add_option("IN", in, "oxi, ppm, pgm, png or jpeg file")->required();
        app.add_option("OUT", out, "file that ends in .oxi, .ppm, .png or .jpg; an existing one is replaced")
            ->required();
        app.add_option("--color-space", colorSpace,
                       "colour space of an oxi file: " + listColorSpaces() +
                           " (default: yuv422, or luma for a grey picture)");
        app.add_option("--quality", quality, "quality of a jpeg, 1 to 100")
            ->transform(wholeNumber(1, 100))
            ->capture_default_str();
    }
};

int chooseColorSpace(const Options& options, const Picture& picture) {
    if (options.colorSpace.empty()) {
        return picture.isGrey ? kLumaColorSpace : kYUV422ColorSpace;
    }
    return parseColorSpace(options.colorSpace);
}

// Keeps time stamp, camera and angles.
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
    requireImageExtension(options.out);
    const bool isToOxi = getExtension(options.out) == ".oxi";
    if (!isToOxi && !options.colorSpace.empty()) {
        throw UsageError("--color-space is for oxi files only");
    }
    OutputFile out(options.out, options.in);
    if (isToOxi) {
        writeImage(readAsImage(options), out.getPath());
    } else {
        writePicture(readAsPicture(options.in), out.getPath(), options.quality);
    }
    out.commit();
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "image",
    .name = "convert",
    .summary = "Convert an image file to a picture, or back",
    .example = "  kr image convert left.oxi left.png\n"
               "  kr image convert photo.jpg photo.oxi --color-space bgr",
    .run = convert,
});

} // namespace
} // namespace KR::tool
