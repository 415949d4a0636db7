// kr camera list

#include "cameras.hpp"
#include "command.hpp"
#include "json.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace KR::tool {

namespace {

struct Options {
    ServiceOptions cameras;
    bool json = false;
};

ExitCode list(const Options& options) {
    Cameras cameras(options.cameras);
    Json json = Json::array();
    for (const KRCameraInfo& camera : cameras.getService().getCameraList()) {
        if (options.json) {
            json.push_back({{"camera", camera.camera}, {"model", camera.model}, {"source", camera.source}});
        } else {
            std::printf("%3d  %s\n", camera.camera, camera.source.c_str());
        }
    }
    if (options.json) {
        printJson(json);
    }
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    options->cameras.declare(app);
    app.add_flag("--json", options->json, "Writes an array with an object for each camera");
    return [options] { return list(*options); };
}

const GroupRegistration group("camera", "Cameras");
const CommandRegistration command({"camera", "list", "Lists the cameras",
                                   "  kr camera list --camera 0=test --camera 1=v4l2:/dev/video0", declare});

} // namespace

} // namespace KR::tool
