#include "serve/robotfile.hpp"

#include "serve/yamlsection.hpp"
#include "tool/command.hpp"
#include "tool/file.hpp"

#include <krdds/krdds.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krtext.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr std::size_t kLargestFile = 1 << 20; // bytes
constexpr const char* kNoRos =
    "this build has no bridge to ROS 2; a recording (record) in MCAP holds images as ROS 2 messages";

std::string readWholeFile(const std::string& path) {
    std::string text;
    const File file = openFile(path, "rb");
    std::array<char, 65536> part;
    while (const std::size_t size = std::fread(part.data(), 1, part.size(), file.get())) {
        text.append(part.data(), size);
        if (text.size() > kLargestFile) {
            throw std::runtime_error("is larger than 1 MiB");
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw std::runtime_error("cannot be read");
    }
    return text;
}

bool isSize(const std::string& text) {
    for (int code = 0; code <= 17; ++code) {
        int width = 0;
        int height = 0;
        setSizeFromResolution(code, width, height);
        if (text == std::to_string(width) + "x" + std::to_string(height)) {
            return true;
        }
    }
    return false;
}

class Reader {
public:
    Reader(std::string path, std::vector<RobotProblem>& problems)
        : folder_(std::filesystem::absolute(path).parent_path()), problems_(problems) {}

    Robot read(const YAML::Node& root);

private:
    std::string resolve(const std::string& path) const {
        return (folder_ / path).lexically_normal().string();
    }
    RobotCamera readCamera(const YAML::Node& node);
    RobotModule readModule(const YAML::Node& node);
    RobotSubscription readSubscription(const YAML::Node& node);
    RobotRecording readRecording(const YAML::Node& node);
    RobotWeb readWeb(const YAML::Node& node);
    void readLog(const YAML::Node& node, Robot& robot);
    void readControls(YamlSection& section, RobotCamera& camera);
    void report(const YAML::Node& node, const std::string& text) {
        problems_.push_back({getPlace(node), text});
    }

    const std::filesystem::path folder_;
    std::vector<RobotProblem>& problems_;
};

RobotCamera Reader::readCamera(const YAML::Node& node) {
    RobotCamera camera;
    camera.place = getPlace(node);
    if (node.IsScalar()) {
        camera.source = resolveSource(folder_, node.Scalar());
        return camera;
    }
    YamlSection section(node, "a camera", getRobotKeys("camera"), problems_);
    if (section.require("source")) {
        section.read("source", camera.source);
        camera.source = resolveSource(folder_, camera.source);
    }
    section.read("size", camera.size);
    if (!camera.size.empty() && !isSize(camera.size)) {
        section.report(section.find("size"),
                       "size " + escapeText(camera.size, 100) +
                           " is not supported; docs/cameras.md lists the sizes, such as 640x480");
    }
    readControls(section, camera);
    return camera;
}

void Reader::readControls(YamlSection& section, RobotCamera& camera) {
    std::vector<std::pair<std::string, Json>> controls;
    section.read("controls", controls);
    for (const auto& [name, value] : controls) {
        if (value.is_number_integer() || value.is_boolean()) {
            camera.controls.emplace_back(name, value.is_boolean() ? static_cast<int>(value.get<bool>())
                                                                  : value.get<int>());
        } else {
            const YAML::Node all = section.find("controls");
            section.report(all[name], "control " + escapeText(name, 100) + " needs a whole number, not " +
                                          escapeText(value.dump(), 100));
        }
    }
}

RobotModule Reader::readModule(const YAML::Node& node) {
    RobotModule module;
    module.place = getPlace(node);
    if (node.IsScalar()) {
        module.file = resolve(node.Scalar());
        return module;
    }
    YamlSection section(node, "a module", getRobotKeys("module"), problems_);
    if (section.require("library")) {
        section.read("library", module.file);
        module.file = resolve(module.file);
    }
    section.read("name", module.name);
    std::string process = "same";
    section.readChoice("process", process, {"same", "own"});
    module.ownProcess = process == "own";
    if (node.IsMap() && module.ownProcess && module.name.empty()) {
        section.report(node, "a module in its own process needs a name");
    }
    section.read("restart", module.restart);
    section.read("parameters", module.parameters);
    return module;
}

RobotSubscription Reader::readSubscription(const YAML::Node& node) {
    RobotSubscription subscription;
    subscription.place = getPlace(node);
    if (node.IsScalar()) {
        subscription.module = node.Scalar();
        return subscription;
    }
    YamlSection section(node, "a subscription", getRobotKeys("subscription"), problems_);
    if (section.require("module")) {
        section.read("module", subscription.module);
    }
    section.read("period", subscription.period, 1);
    section.read("precision", subscription.precision, 0);
    if (section.find("precision").IsDefined() && !section.find("period").IsDefined()) {
        section.report(node, "a subscription with a precision needs a period");
    }
    return subscription;
}

RobotRecording Reader::readRecording(const YAML::Node& node) {
    RobotRecording recording;
    recording.place = getPlace(node);
    if (node.IsScalar()) {
        recording.file = resolve(node.Scalar());
        recording.all = true;
        return recording;
    }
    YamlSection section(node, "record", getRobotKeys("record"), problems_);
    if (section.require("file")) {
        section.read("file", recording.file);
        if (!recording.file.ends_with(".mcap")) {
            section.report(section.find("file"),
                           "file of a recording needs a name that ends in .mcap, not \"" +
                               escapeText(recording.file, 100) + "\"");
        }
        recording.file = resolve(recording.file);
    }
    section.read("all", recording.all);
    section.read("cameras", recording.cameras, 0, 127);
    section.read("memory", recording.memory);
    section.read("events", recording.events);
    section.readChoice("compression", recording.compression, {"none", "lz4", "zstd"});
    section.read("split-size", recording.splitSize_MB, 1, 1'000'000'000);
    section.read("split-duration", recording.splitDuration_s, 1, 100'000'000);
    section.read("max-files", recording.maxFiles, 1);
    if (node.IsMap() && !recording.all && recording.cameras.empty() && recording.memory.empty() &&
        recording.events.empty()) {
        section.report(node, "record needs something to record: all, cameras, memory or events");
    }
    return recording;
}

RobotWeb Reader::readWeb(const YAML::Node& node) {
    RobotWeb web;
    web.place = getPlace(node);
    if (node.IsScalar()) {
        web.listen = node.Scalar();
        return web;
    }
    YamlSection section(node, "web", getRobotKeys("web"), problems_);
    section.read("listen", web.listen);
    section.read("token", web.token);
    web.token = web.token.empty() ? "" : resolve(web.token);
    section.read("open", web.open);
    section.read("read-only", web.readOnly);
    section.read("allow-origin", web.allowedOrigins);
    return web;
}

void Reader::readLog(const YAML::Node& node, Robot& robot) {
    YamlSection section(node, "log", getRobotKeys("log"), problems_);
    section.readChoice("format", robot.logFormat, {"text", "json", "journal"});
    section.read("level", robot.logLevel);
    try {
        if (!robot.logLevel.empty()) {
            checkLogLevels(robot.logLevel);
        }
    } catch (const std::invalid_argument& error) {
        section.report(section.find("level"), error.what());
    }
}

Robot Reader::read(const YAML::Node& root) {
    Robot robot;
    if (root.IsNull()) {
        return robot;
    }
    YamlSection section(root, "the file", getRobotKeys(""), problems_);
    section.read("broker", robot.broker);
    if (const YAML::Node broker = section.find("broker"); broker.IsDefined()) {
        robot.brokerPlace = getPlace(broker);
        try {
            parseDDSAddress(robot.broker);
        } catch (const KRError& error) {
            section.report(broker, error.getDescription());
        }
    }
    if (const YAML::Node log = section.find("log"); log.IsDefined()) {
        readLog(log, robot);
    }
    if (const YAML::Node cameras = section.find("cameras"); cameras.IsDefined()) {
        robot.cameras.clear();
        visitList(cameras, "cameras", problems_,
                  [&](const YAML::Node& node) { robot.cameras.push_back(readCamera(node)); });
    }
    visitList(section.find("modules"), "modules", problems_,
              [&](const YAML::Node& node) { robot.modules.push_back(readModule(node)); });
    visitList(section.find("subscriptions"), "subscriptions", problems_,
              [&](const YAML::Node& node) { robot.subscriptions.push_back(readSubscription(node)); });
    section.read("memory", robot.memory);
    if (const YAML::Node record = section.find("record"); record.IsDefined() && !record.IsNull()) {
        robot.recording = readRecording(record);
    }
    if (const YAML::Node web = section.find("web"); web.IsDefined() && !web.IsNull()) {
        robot.web = readWeb(web);
    }
    if (const YAML::Node ros = section.find("ros2"); ros.IsDefined()) {
        section.report(ros, std::string("ros2: ") + kNoRos);
    }
    return robot;
}

} // namespace

const std::vector<std::string>& getRobotKeys(std::string_view section) {
    static const std::map<std::string, std::vector<std::string>, std::less<>> kKeys{
        {"", {"broker", "log", "cameras", "modules", "subscriptions", "memory", "record", "web", "ros2"}},
        {"log", {"level", "format"}},
        {"web", {"listen", "token", "open", "read-only", "allow-origin"}},
        {"camera", {"source", "size", "controls"}},
        {"module", {"library", "name", "process", "restart", "parameters"}},
        {"subscription", {"module", "period", "precision"}},
        {"record",
         {"file", "all", "cameras", "memory", "events", "compression", "split-size", "split-duration",
          "max-files"}},
    };
    return kKeys.find(section)->second;
}

// Only these kinds of sources name a file.
std::string resolveSource(const std::filesystem::path& folder, const std::string& source) {
    for (const std::string_view kind : {"file:", "image:", "oxv:"}) {
        if (source.starts_with(kind) && source.size() > kind.size()) {
            return std::string(kind) + (folder / source.substr(kind.size())).lexically_normal().string();
        }
    }
    return source;
}

std::string formatProblems(const std::string& path, std::vector<RobotProblem> problems) {
    std::ranges::stable_sort(
        problems, {}, [](const RobotProblem& each) { return std::pair(each.place.line, each.place.column); });
    std::string text;
    for (const RobotProblem& each : problems) {
        text += (text.empty() ? "" : "\n") + path;
        if (each.place.line > 0) {
            text += ":" + std::to_string(each.place.line) + ":" + std::to_string(each.place.column);
        }
        text += ": " + escapeText(each.text);
    }
    return text;
}

Robot readRobotFile(const std::string& path, std::vector<RobotProblem>& problems) {
    try {
        const std::string text = readWholeFile(path);
        const std::vector<YAML::Node> documents = YAML::LoadAll(text);
        if (documents.size() > 1) {
            problems.push_back(
                {getPlace(documents[1]), "the file has a second document; only one is supported"});
        }
        return Reader(path, problems).read(documents.empty() ? YAML::Node() : documents.front());
    } catch (const YAML::Exception& error) {
        problems.push_back(
            {error.mark.is_null() ? Place{} : Place{error.mark.line + 1, error.mark.column + 1},
             "is not YAML: " + error.msg});
        return {};
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

} // namespace KR::tool
