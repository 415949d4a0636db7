// kr image convert

#include "image/coloroptions.hpp"
#include "image/imagefile.hpp"
#include "tool/colorspace.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"

#include <krvision/kroxifile.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <string>

namespace KR::tool::imageConvert {

namespace {

struct Options {
    std::string in;
    std::string out;
    std::string colorSpace;
    int quality = 90;
    ColorOptions colors;

    void declare(Arguments& arguments) {
        arguments.add("IN", in, "oxi, ppm, pgm, png or jpeg file").required();
        arguments.add("OUT", out, "file that ends in .oxi, .ppm, .png or .jpg; an existing one is replaced")
            .required();
        declareColorSpace(arguments, colorSpace,
                          "colour space of an oxi file (default: yuv422, or luma for a grey picture)");
        arguments.add("--quality", quality, "quality of a jpeg, 1 to 100").wholeNumber(1, 100).showDefault();
        colors.declare(arguments);
    }
};

int chooseColorSpace(const Options& options, const Picture& picture) {
    if (options.colorSpace.empty()) {
        return picture.isGrey ? kLumaColorSpace : kYUV422ColorSpace;
    }
    return parseColorSpace(options.colorSpace);
}

// Keeps time stamp, camera and angles.
KRImage changeColorSpace(const KRImage& from, int colorSpace, Colors colors) {
    KRImage image = makeImage(makePicture(from, colors), colorSpace, colors);
    image.timeStamp = from.timeStamp;
    image.cameraId = from.cameraId;
    image.leftAngle = from.leftAngle;
    image.topAngle = from.topAngle;
    image.rightAngle = from.rightAngle;
    image.bottomAngle = from.bottomAngle;
    return image;
}

KRImage readAsImage(const Options& options) {
    const Colors colors = options.colors.getColors();
    if (!isOxiFile(options.in)) {
        const Picture picture = readPicture(options.in);
        return makeImage(picture, chooseColorSpace(options, picture), colors);
    }
    const KRImage image = readOxi(options.in);
    return options.colorSpace.empty() ? image
                                      : changeColorSpace(image, chooseColorSpace(options, {}), colors);
}

Picture readAsPicture(const std::string& path, Colors colors) {
    return isOxiFile(path) ? makePicture(readOxi(path), colors) : readPicture(path);
}

ExitCode convert(const Options& options) {
    requireImageExtension(options.out);
    const bool isToOxi = getExtension(options.out) == ".oxi";
    if (!isToOxi && !options.colorSpace.empty()) {
        throw UsageError("--color-space is for oxi files only");
    }
    OutputFile out(options.out, options.in);
    if (isToOxi) {
        writeImage(readAsImage(options), out.getPath(), options.colors.getColors());
    } else {
        writePicture(readAsPicture(options.in, options.colors.getColors()), out.getPath(), options.quality);
    }
    out.commit();
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "image",
    .name = "convert",
    .summary = "Convert an image file to a picture, or back",
    .example = "  kr image convert left.oxi left.png\n"
               "  kr image convert left.oxi seen.png --as-modules-see\n"
               "  kr image convert photo.jpg photo.oxi --color-space bgr",
    .run = convert,
});

} // namespace
} // namespace KR::tool::imageConvert
