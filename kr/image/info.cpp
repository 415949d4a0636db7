// kr image info

#include "image/picture.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/timestamp.hpp"

#include <krvision/krcolorspacenames.hpp>
#include <krvision/kroxifile.hpp>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool::imageInfo {

namespace {

struct Options {
    std::vector<std::string> files;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("FILE", files, "oxi, ppm, pgm, png or jpeg files").required();
        arguments.addFlag("--json", json, "output as a JSON array with an object per file");
    }
};

void print(const std::string& file, const KROxiHeader& oxi) {
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

Json toJson(const std::string& file, const PictureHeader& picture) {
    return {{"file", file},
            {"format", picture.format},
            {"width", picture.width},
            {"height", picture.height},
            {"grey", picture.isGrey},
            {"file_bytes", std::filesystem::file_size(file)},
            {"problems", Json::array()}};
}

void print(const std::string& file, const PictureHeader& picture) {
    std::printf("%s\n", file.c_str());
    std::printf("  format        %s%s\n", picture.format, picture.isGrey ? ", grey" : "");
    std::printf("  size          %dx%d pixels\n", picture.width, picture.height);
    std::printf("  on disk       %llu bytes\n",
                static_cast<unsigned long long>(std::filesystem::file_size(file)));
}

/// Prints one file, or adds it to the list.
/// \return whether it has no problems
bool inspect(const std::string& file, Json* list) {
    if (!isOxiFile(file)) {
        const PictureHeader picture = readPictureHeader(file);
        if (list != nullptr) {
            list->push_back(toJson(file, picture));
        } else {
            print(file, picture);
        }
        return true;
    }
    const KROxiHeader oxi = readOxiHeader(file);
    const std::vector<std::string> problems = findProblems(oxi);
    if (list != nullptr) {
        list->push_back(toJson(file, oxi, problems));
    } else {
        print(file, oxi);
    }
    for (const std::string& problem : problems) {
        printError(file + ": " + problem);
    }
    return problems.empty();
}

ExitCode inspectAll(const Options& options) {
    Json list = Json::array();
    ExitCode code = ExitCode::Done;
    for (const std::string& file : options.files) {
        try {
            if (!inspect(file, options.json ? &list : nullptr)) {
                code = ExitCode::Failed;
            }
        } catch (const std::exception& error) {
            printError(error.what());
            code = ExitCode::Failed;
        }
    }
    if (options.json) {
        printJson(list);
    }
    return code;
}

const GroupRegistration group("image", "Convert and inspect image files");

const VerbRegistration registration(Verb<Options>{
    .group = "image",
    .name = "info",
    .summary = "Show the headers of image files, and problems",
    .example = "  kr image info left.oxi right.png\n"
               "The pixels are not decoded. Exit code 1 if a file has a problem.",
    .run = inspectAll,
});

} // namespace
} // namespace KR::tool::imageInfo
