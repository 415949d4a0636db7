// kr camera controls

#include "camera/cameras.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace KR::tool::cameraControls {

namespace {

struct Options {
    CameraOptions camera;
    std::vector<std::string> settings;
    bool json = false;

    void declare(Arguments& arguments) {
        camera.declare(arguments);
        arguments
            .add("--set", settings,
                 "value of a control, by its number or name, to set before they are listed; may be repeated")
            .valueName("ID=VALUE")
            .repeatable();
        arguments.addFlag("--json", json, "output as a JSON array with an object per control");
    }
};

// A decimal number, or a hexadecimal one after 0x.
std::optional<int> readInt(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, text.starts_with("0x") ? 16 : 10);
    if (text.empty() || *end != '\0' || errno != 0 || number > INT_MAX || number < INT_MIN) {
        return std::nullopt;
    }
    return static_cast<int>(number);
}

// Finds a control by its number or name.
const KRCameraControl& findControl(const std::vector<KRCameraControl>& controls, const std::string& text,
                                   const std::string& setting) {
    const std::optional<int> id = readInt(text);
    const auto found = std::ranges::find_if(controls, [&](const KRCameraControl& control) {
        return control.name == text || (id && control.id == *id);
    });
    if (found == controls.end()) {
        std::string names;
        for (const KRCameraControl& control : controls) {
            names += (names.empty() ? "" : ", ") + control.name;
        }
        throw UsageError("--set " + setting + ": the camera has no control \"" + text + "\"; it has " +
                         (names.empty() ? "none" : names));
    }
    return *found;
}

void apply(KRVideoDeviceProxy& service, const Subscription& subscription, const Options& options) {
    const std::vector<KRCameraControl> controls = service.getControls(options.camera.number);
    for (const std::string& setting : options.settings) {
        const std::size_t equals = setting.rfind('=');
        const std::optional<int> value =
            equals == std::string::npos ? std::nullopt : readInt(setting.substr(equals + 1));
        if (!value) {
            throw UsageError("--set " + setting +
                             ": expected ID=VALUE, such as 0x00980900=20 or brightness=20");
        }
        const KRCameraControl& control = findControl(controls, setting.substr(0, equals), setting);
        if (!service.setCameraParameter(subscription.getId(), control.id, *value)) {
            throw std::runtime_error("the camera refuses " + setting + "; " + control.name + " goes from " +
                                     std::to_string(control.minimum) + " to " +
                                     std::to_string(control.maximum));
        }
    }
}

void print(const KRCameraControl& control) {
    std::printf("0x%08x  %-32s %11d to %-11d step %-5d default %-11d value %d\n",
                static_cast<unsigned>(control.id), escapeText(control.name).c_str(), control.minimum,
                control.maximum, control.step, control.defaultValue, control.value);
}

ExitCode listControls(const Options& options) {
    Cameras cameras(options.camera);
    KRVideoDeviceProxy& service = cameras.getService();
    std::unique_ptr<Subscription> subscription; // a camera must be open to set its controls
    if (!options.settings.empty()) {
        subscription =
            std::make_unique<Subscription>(service, options.camera.number, kVGA, kYUV422ColorSpace);
        apply(service, *subscription, options);
    }
    Json json = Json::array();
    for (const KRCameraControl& control : service.getControls(options.camera.number)) {
        if (options.json) {
            json.push_back({{"id", control.id},
                            {"name", control.name},
                            {"minimum", control.minimum},
                            {"maximum", control.maximum},
                            {"step", control.step},
                            {"default", control.defaultValue},
                            {"value", control.value}});
        } else {
            print(control);
        }
    }
    if (options.json) {
        printJson(json);
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "controls",
    .summary = "List the controls of a camera, and set them",
    .example = "  kr camera controls 0\n"
               "  kr camera controls 0 --set brightness=140 --camera 0=v4l2:/dev/video0",
    .run = listControls,
});

} // namespace
} // namespace KR::tool::cameraControls
