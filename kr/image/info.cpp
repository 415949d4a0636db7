// kr image info

#include "colorspace.hpp"
#include "command.hpp"
#include "json.hpp"
#include "picture.hpp"
#include "timestamp.hpp"

#include <krvision/kroxifile.hpp>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    std::vector<std::string> files;
    bool json = false;
};

void show(const std::string& file, const KROxiHeader& oxi) {
    std::printf("%s\n", file.c_str());
    std::printf("  format        oxi, version %d\n", oxi.version);
    std::printf("  size          %dx%d pixels of %d bytes\n", oxi.width, oxi.height, oxi.layers);
    std::printf("  colour space  %s\n", describeColorSpace(oxi.colorSpace).c_str());
    std::printf("  taken         %s\n", formatTimeStamp(oxi.timeStamp).c_str());
    std::printf("  camera        %d\n", oxi.cameraId);
    if (oxi.version == 1) {
        std::printf("  angles        left %g, top %g, right %g, bottom %g rad\n",
                    static_cast<double>(oxi.angles[0]), static_cast<double>(oxi.angles[1]),
                    static_cast<double>(oxi.angles[2]), static_cast<double>(oxi.angles[3]));
    }
    std::printf("  on disk       %llu bytes\n", static_cast<unsigned long long>(oxi.fileSize));
}

Json toJson(const std::string& file, const KROxiHeader& oxi, const std::vector<std::string>& problems) {
    Json json = {{"file", file},
                 {"format", "oxi"},
                 {"version", oxi.version},
                 {"width", oxi.width},
                 {"height", oxi.height},
                 {"layers", oxi.layers},
                 {"color_space", oxi.colorSpace},
                 {"time_usec", oxi.timeStamp},
                 {"camera", oxi.cameraId}};
    if (oxi.version == 1) {
        json["angles_rad"] = {{"left", oxi.angles[0]},
                              {"top", oxi.angles[1]},
                              {"right", oxi.angles[2]},
                              {"bottom", oxi.angles[3]}};
    }
    json["file_bytes"] = oxi.fileSize;
    json["problems"] = problems;
    return json;
}

Json toJson(const std::string& file, const Picture& picture) {
    return {{"file", file},
            {"format", picture.format},
            {"width", picture.width},
            {"height", picture.height},
            {"grey", picture.isGrey},
            {"file_bytes", std::filesystem::file_size(file)},
            {"problems", Json::array()}};
}

void show(const std::string& file, const Picture& picture) {
    std::printf("%s\n", file.c_str());
    std::printf("  format        %s%s\n", picture.format, picture.isGrey ? ", grey" : "");
    std::printf("  size          %dx%d pixels\n", picture.width, picture.height);
    std::printf("  on disk       %llu bytes\n",
                static_cast<unsigned long long>(std::filesystem::file_size(file)));
}

/// Shows one file, or adds it to the list.
/// \return whether nothing is wrong with it
bool showFile(const std::string& file, Json* list) {
    if (!isOxiFile(file)) {
        const Picture picture =
            readPicture(file); // all of it: that is the only way to know that it can be read
        if (list != nullptr) {
            list->push_back(toJson(file, picture));
        } else {
            show(file, picture);
        }
        return true;
    }
    const KROxiHeader oxi = readOxiHeader(file);
    const std::vector<std::string> problems = findProblems(oxi);
    if (list != nullptr) {
        list->push_back(toJson(file, oxi, problems));
    } else {
        show(file, oxi);
    }
    for (const std::string& problem : problems) {
        complain(file + ": " + problem);
    }
    return problems.empty();
}

ExitCode showFiles(const Options& options) {
    Json list = Json::array();
    ExitCode code = ExitCode::Done;
    for (const std::string& file : options.files) {
        try {
            if (!showFile(file, options.json ? &list : nullptr)) {
                code = ExitCode::Failed;
            }
        } catch (const std::exception& error) {
            complain(error.what());
            code = ExitCode::Failed;
        }
    }
    if (options.json) {
        printJson(list);
    }
    return code;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("FILE", options->files, "oxi, ppm, pgm, png or jpeg files")->required();
    app.add_flag("--json", options->json, "Writes an array with an object for each file");
    return [options] { return showFiles(*options); };
}

const GroupRegistration group("image", "Image files");
const CommandRegistration command({"image", "info", "Shows what image files say of themselves",
                                   "  kr image info left.oxi right.png", declare});

} // namespace

} // namespace KR::tool
