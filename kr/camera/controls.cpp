// kr camera controls

#include "cameras.hpp"
#include "command.hpp"
#include "json.hpp"
#include "number.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace KR::tool {

namespace {

struct Options {
    ServiceOptions cameras;
    int camera = 0;
    std::vector<std::string> settings;
    bool json = false;
};

// A whole number, or one in hexadecimal digits behind 0x.
std::optional<int> readInt(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, text.starts_with("0x") ? 16 : 10);
    if (text.empty() || *end != '\0' || errno != 0 || number > INT_MAX || number < INT_MIN) {
        return std::nullopt;
    }
    return static_cast<int>(number);
}

// A control by its number or its name.
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
    const std::vector<KRCameraControl> controls = service.getControls(options.camera);
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

void show(const KRCameraControl& control) {
    std::printf("0x%08x  %-32s %11d to %-11d step %-5d default %-11d value %d\n",
                static_cast<unsigned>(control.id), control.name.c_str(), control.minimum, control.maximum,
                control.step, control.defaultValue, control.value);
}

ExitCode showControls(const Options& options) {
    Cameras cameras(options.cameras);
    cameras.require(options.camera);
    KRVideoDeviceProxy& service = cameras.getService();
    std::unique_ptr<Subscription> subscription; // controls are set on a camera that is open
    if (!options.settings.empty()) {
        subscription = std::make_unique<Subscription>(service, options.camera, 2, 9);
        apply(service, *subscription, options);
    }
    Json json = Json::array();
    for (const KRCameraControl& control : service.getControls(options.camera)) {
        if (options.json) {
            json.push_back({{"id", control.id},
                            {"name", control.name},
                            {"minimum", control.minimum},
                            {"maximum", control.maximum},
                            {"step", control.step},
                            {"default", control.defaultValue},
                            {"value", control.value}});
        } else {
            show(control);
        }
    }
    if (options.json) {
        printJson(json);
    }
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("N", options->camera, "which camera")->required()->transform(wholeNumber(0));
    app.add_option("--set", options->settings,
                   "ID=VALUE: sets a control, by its number or its name, before they are listed. May be "
                   "given several "
                   "times")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    options->cameras.declare(app);
    app.add_flag("--json", options->json, "Writes an array with an object for each control");
    return [options] { return showControls(*options); };
}

const CommandRegistration command({"camera", "controls", "Lists what can be set about a picture, and sets it",
                                   "  kr camera controls 0 --camera 0=v4l2:/dev/video0 --set brightness=140",
                                   declare});

} // namespace

} // namespace KR::tool
