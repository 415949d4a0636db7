// kr camera list

#include "camera/cameras.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>

namespace KR::tool::cameraList {

namespace {

struct Options {
    ServiceOptions service;
    bool json = false;

    void declare(Arguments& arguments) {
        service.declare(arguments);
        arguments.addFlag("--json", json, "output as a JSON array with an object per camera");
    }
};

ExitCode list(const Options& options) {
    Cameras cameras(options.service);
    Json json = Json::array();
    for (const KRCameraInfo& camera : cameras.getService().getCameraList()) {
        if (options.json) {
            json.push_back({{"camera", camera.camera}, {"model", camera.model}, {"source", camera.source}});
        } else {
            std::printf("%3d  %s\n", camera.camera, escapeText(camera.source).c_str());
        }
    }
    if (options.json) {
        printJson(json);
    }
    return ExitCode::Done;
}

const GroupRegistration group("camera", "Look at cameras, set their controls and record them");

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "list",
    .summary = "List the cameras",
    .example = "  kr camera list\n"
               "  kr camera list --broker 'dds:?domain=3'",
    .run = list,
});

} // namespace
} // namespace KR::tool::cameraList
