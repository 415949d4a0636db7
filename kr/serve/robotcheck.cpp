#include "serve/robotcheck.hpp"

#include "serve/modulelibrary.hpp"
#include "serve/pythonfile.hpp"

#include <krcamera/krvideodevice.hpp>

#include <krplatform/krbroker.hpp>
#include <krplatform/krcamerainfo.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace KR::tool {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

// Controls of a camera that cannot be reached now, as it may not be plugged in, are not known.
std::vector<KRCameraControl> listControls(KRVideoDevice& device) {
    std::vector<KRCameraControl> controls;
    try {
        for (const KRValue& each : device.getControls(0).to<std::vector<KRValue>>()) {
            controls.push_back(KRCameraControl::fromKRValue(each));
        }
    } catch (const KRError&) {
    }
    return controls;
}

std::string listNames(const std::vector<KRCameraControl>& controls) {
    std::string names;
    for (const KRCameraControl& each : controls) {
        names += (names.empty() ? "" : ", ") + each.name;
    }
    return names;
}

std::optional<std::string> findProblem(const std::string& name, int value,
                                       const std::vector<KRCameraControl>& controls) {
    const auto found =
        std::ranges::find_if(controls, [&](const auto& each) { return equalsIgnoringCase(each.name, name); });
    if (found == controls.end()) {
        return "the camera has no control " + name + "; it has " + listNames(controls);
    }
    if (value < found->minimum || value > found->maximum) {
        return "control " + name + " cannot be " + std::to_string(value) + "; it takes " +
               std::to_string(found->minimum) + " to " + std::to_string(found->maximum);
    }
    return std::nullopt;
}

// The file of a source that has one.
std::string getFile(const std::string& source) {
    for (const std::string_view kind : {"file:", "image:", "oxv:"}) {
        if (source.starts_with(kind)) {
            std::string path = source.substr(kind.size());
            return kind == "oxv:" ? path.substr(0, path.find_first_of("#?")) : path;
        }
    }
    return {};
}

void check(const RobotCamera& camera, const boost::shared_ptr<KRBroker>& broker,
           std::vector<RobotProblem>& problems) {
    const std::string file = getFile(camera.source);
    if (!file.empty() && !std::filesystem::exists(file)) {
        problems.push_back({camera.place, file + ": there is no such file"});
    }
    try {
        const auto device =
            createModule<KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{camera.source});
        const auto controls = listControls(*device);
        for (const auto& [name, value] : camera.controls) {
            const auto problem = controls.empty() ? std::nullopt : findProblem(name, value, controls);
            if (problem) {
                problems.push_back({camera.place, *problem});
            }
        }
    } catch (const KRError& error) {
        constexpr std::string_view kNumber = "camera 0: "; // of this check, not of the file
        const std::string& text = error.getDescription();
        problems.push_back({camera.place, text.starts_with(kNumber) ? text.substr(kNumber.size()) : text});
    }
}

void check(RobotModule& module, std::vector<RobotProblem>& problems) {
    const std::string& library = module.file;
    const std::string file = isPythonFile(library) ? library.substr(0, library.rfind(".py") + 3) : library;
    if (!std::filesystem::exists(file)) {
        problems.push_back({module.place, file + ": there is no such file"});
        return;
    }
    if (module.ownProcess) {
        return; // loaded there only
    }
    try {
        const HostedClass moduleClass = loadModuleClass(module.file);
        module.name = module.name.empty() ? moduleClass.defaultName : module.name;
    } catch (const std::runtime_error& error) {
        problems.push_back({module.place, error.what()});
    }
}

void checkNames(const Robot& robot, std::vector<RobotProblem>& problems) {
    std::map<std::string, Place> names{{"KRMemory", {}}, {"KRVideoDevice", {}}};
    for (const RobotModule& module : robot.modules) {
        const auto [taken, isNew] = names.emplace(module.name, module.place);
        if (!module.name.empty() && !isNew) {
            problems.push_back(
                {module.place,
                 "the name " + module.name + " is taken by " +
                     (taken->second.line == 0 ? "a service"
                                              : "the module in line " + std::to_string(taken->second.line))});
        }
    }
}

} // namespace

void checkRobot(Robot& robot, std::vector<RobotProblem>& problems) {
    const auto broker = KRBroker::create("local:?memory=none");
    for (const RobotCamera& camera : robot.cameras) {
        check(camera, broker, problems);
    }
    for (RobotModule& module : robot.modules) {
        check(module, problems);
    }
    checkNames(robot, problems);
}

} // namespace KR::tool
