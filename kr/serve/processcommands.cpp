#include "serve/processcommands.hpp"

#include "serve/childprocess.hpp"

#include <krplatform/krlogformat.hpp>

#include <array>
#include <ctime>

namespace KR::tool {

namespace {

std::vector<std::string> makeCommand(const std::string& verb, const std::string& broker) {
    return {getProgramPath(), verb,           "--broker",     withoutMemory(broker),
            "--log-level",    getLogLevels(), "--log-format", getLogFormatName(getLogFormat())};
}

void add(std::vector<std::string>& command, const std::string& option, const std::string& value) {
    command.push_back(option);
    command.push_back(value);
}

std::string expandTime(const std::string& pattern) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::localtime_r(&now, &parts);
    std::array<char, 4096> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), pattern.c_str(), &parts);
    return size == 0 ? pattern : std::string(text.data(), size);
}

} // namespace

std::string withoutMemory(const std::string& broker) {
    constexpr std::string_view kHere = "memory=here";
    std::string url = broker;
    const std::size_t at = url.find(kHere);
    return at == std::string::npos ? url : url.replace(at, kHere.size(), "memory=none");
}

std::vector<std::string> makeRunCommand(const RobotModule& module, const std::string& broker) {
    std::vector<std::string> command = makeCommand("run", broker);
    command.push_back(module.file);
    add(command, "--name", module.name);
    for (const auto& [name, value] : module.parameters) {
        add(command, "--param", name + "=" + value.dump());
    }
    return command;
}

std::vector<std::string> makeRecordCommand(const RobotRecording& recording, const std::string& broker) {
    std::vector<std::string> command = makeCommand("record", broker);
    command.push_back(expandTime(recording.file));
    if (recording.all) {
        command.push_back("--all");
    }
    for (const int camera : recording.cameras) {
        add(command, "--camera", std::to_string(camera));
    }
    for (const std::string& prefix : recording.memory) {
        add(command, "--memory", prefix);
    }
    for (const std::string& event : recording.events) {
        add(command, "--event", event);
    }
    add(command, "--compression", recording.compression);
    const auto addNumber = [&](const char* option, const std::optional<int>& number) {
        if (number) {
            add(command, option, std::to_string(*number));
        }
    };
    addNumber("--split-size", recording.splitSize_MB);
    addNumber("--split-duration", recording.splitDuration_s);
    addNumber("--max-files", recording.maxFiles);
    return command;
}

} // namespace KR::tool
