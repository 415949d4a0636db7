// kr image dump

#include "command.hpp"

#include <krvision/krimage.hpp>
#include <krvision/kroxifile.hpp>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

namespace {

ExitCode dump(const std::string& file) {
    KRImage image = readOxi(file);
    constexpr std::size_t kDumped = 16; // bytes of the buffer
    const auto size = static_cast<std::size_t>(image.width * image.height * image.nbLayers);
    if (size < kDumped) {
        const auto padded = KRImage::internalDataZeroInitialized(kDumped);
        std::copy_n(image.data.get(), size, padded.get());
        image.data = padded;
    }
    const std::string text = image.toString() + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto file = std::make_shared<std::string>();
    app.add_option("FILE", *file, "an oxi file")->required();
    return [file] { return dump(*file); };
}

const CommandRegistration command({"image", "dump",
                                   "Shows the fields of an image as the library keeps them in memory",
                                   "  kr image dump left.oxi", declare});

} // namespace

} // namespace KR::tool
