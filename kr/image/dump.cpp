// kr image dump

#include "tool/command.hpp"

#include <krvision/krimage.hpp>
#include <krvision/kroxifile.hpp>

#include <algorithm>
#include <cstdio>
#include <string>

namespace KR::tool::imageDump {

namespace {

struct Options {
    std::string file;

    void declare(Arguments& arguments) { arguments.add("FILE", file, "oxi file").required(); }
};

ExitCode dump(const Options& options) {
    KRImage image = readOxi(options.file);
    constexpr std::size_t kDumped = 16; // bytes of the buffer that toString() reads
    const auto size = std::size_t{1} * image.width * image.height * image.nbLayers;
    if (size < kDumped) {
        const auto padded = KRImage::internalDataZeroInitialized(kDumped);
        std::copy_n(image.data.get(), size, padded.get());
        image.data = padded;
    }
    const std::string text = image.toString() + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "image",
    .name = "dump",
    .summary = "Show the fields of an image as the library keeps them in memory",
    .example = "  kr image dump left.oxi",
    .run = dump,
});

} // namespace
} // namespace KR::tool::imageDump
