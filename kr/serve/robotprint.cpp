#include "serve/robot.hpp"

#include "serve/yamlsection.hpp"

#include <yaml-cpp/yaml.h>

namespace KR::tool {

namespace {

// Whether the text without quotes would be read as this text.
bool isPlain(const std::string& text) {
    try {
        const Json read = readJson(YAML::Load("- " + text));
        return read.is_array() && read.size() == 1 && read[0] == text;
    } catch (const std::exception&) { // YAML::Exception, std::invalid_argument
        return false;
    }
}

void emit(YAML::Emitter& out, const std::string& text) {
    out << (isPlain(text) ? YAML::Auto : YAML::DoubleQuoted) << text;
}

void emit(YAML::Emitter& out, const Json& value) {
    if (value.is_string()) {
        emit(out, value.get_ref<const std::string&>());
    } else if (value.is_array()) {
        out << YAML::Flow << YAML::BeginSeq;
        for (const Json& each : value) {
            emit(out, each);
        }
        out << YAML::EndSeq;
    } else if (value.is_object()) {
        out << YAML::Flow << YAML::BeginMap;
        for (const auto& [key, each] : value.items()) {
            out << YAML::Key;
            emit(out, key);
            out << YAML::Value;
            emit(out, each);
        }
        out << YAML::EndMap;
    } else if (value.is_null()) {
        out << YAML::Null;
    } else {
        out << value.dump(); // true, 3, 0.25: plain
    }
}

void emitEntry(YAML::Emitter& out, const std::string& key, const Json& value) {
    out << YAML::Key;
    emit(out, key);
    out << YAML::Value;
    emit(out, value);
}

/// The entries of a section, without those that have their default value.
class Entries {
public:
    void add(const std::string& key, const Json& value, const Json& without = "") {
        if (value != without) {
            entries_.emplace_back(key, value);
        }
    }
    void add(const std::string& key, const std::vector<std::pair<std::string, Json>>& values) {
        Json object = Json::object();
        for (const auto& [name, value] : values) {
            object[name] = value;
        }
        add(key, object, Json::object());
    }
    template <class Number>
    void add(const std::string& key, const std::optional<Number>& number) {
        if (number) {
            entries_.emplace_back(key, *number);
        }
    }
    void emitTo(YAML::Emitter& out) const {
        out << YAML::BeginMap;
        for (const auto& [key, value] : entries_) {
            if (value.is_object() && !value.empty()) {
                out << YAML::Key << key << YAML::Value << YAML::BeginMap;
                for (const auto& [name, each] : value.items()) {
                    emitEntry(out, name, each);
                }
                out << YAML::EndMap;
            } else {
                emitEntry(out, key, value);
            }
        }
        out << YAML::EndMap;
    }
    bool isEmpty() const noexcept { return entries_.empty(); }

private:
    std::vector<std::pair<std::string, Json>> entries_;
};

Entries list(const RobotCamera& camera) {
    Entries entries;
    entries.add("source", camera.source, nullptr);
    entries.add("size", camera.size);
    std::vector<std::pair<std::string, Json>> controls(camera.controls.begin(), camera.controls.end());
    entries.add("controls", controls);
    return entries;
}

Entries list(const RobotModule& module) {
    Entries entries;
    entries.add("library", module.file);
    entries.add("name", module.name);
    entries.add("process", module.ownProcess ? "own" : "same", "same");
    entries.add("restart", module.restart, true);
    entries.add("parameters", module.parameters);
    return entries;
}

Entries list(const RobotSubscription& subscription) {
    Entries entries;
    entries.add("module", subscription.module);
    entries.add("period", subscription.period);
    entries.add("precision", subscription.precision, 0.0);
    return entries;
}

Entries list(const RobotRecording& recording) {
    Entries entries;
    entries.add("file", recording.file);
    entries.add("all", recording.all, false);
    entries.add("cameras", recording.cameras, Json::array());
    entries.add("memory", recording.memory, Json::array());
    entries.add("events", recording.events, Json::array());
    entries.add("compression", recording.compression, "none");
    entries.add("split-size", recording.splitSize_MB);
    entries.add("split-duration", recording.splitDuration_s);
    entries.add("max-files", recording.maxFiles);
    return entries;
}

Entries list(const RobotWeb& web) {
    Entries entries;
    entries.add("listen", web.listen);
    entries.add("token", web.token);
    entries.add("open", web.open, false);
    entries.add("read-only", web.readOnly, false);
    entries.add("allow-origin", web.allowedOrigins, Json::array());
    return entries;
}

void emitSection(YAML::Emitter& out, const std::string& key, const Entries& entries) {
    if (!entries.isEmpty()) {
        out << YAML::Key << key << YAML::Value;
        entries.emitTo(out);
    }
}

template <class Element>
void emitList(YAML::Emitter& out, const std::string& key, const std::vector<Element>& elements) {
    if (elements.empty()) {
        return;
    }
    out << YAML::Key << key << YAML::Value << YAML::BeginSeq;
    for (const Element& each : elements) {
        list(each).emitTo(out);
    }
    out << YAML::EndSeq;
}

} // namespace

std::string formatRobot(const Robot& robot) {
    YAML::Emitter out;
    out << YAML::BeginMap;
    emitEntry(out, "broker", robot.broker);
    Entries log;
    log.add("level", robot.logLevel);
    log.add("format", robot.logFormat);
    emitSection(out, "log", log);
    emitList(out, "cameras", robot.cameras);
    emitList(out, "modules", robot.modules);
    emitList(out, "subscriptions", robot.subscriptions);
    Entries memory;
    for (const auto& [key, value] : robot.memory) {
        memory.add(key, value, Json::object());
    }
    emitSection(out, "memory", memory);
    if (robot.recording) {
        emitSection(out, "record", list(*robot.recording));
    }
    if (robot.web) {
        out << YAML::Key << "web" << YAML::Value;
        list(*robot.web).emitTo(out);
    }
    out << YAML::EndMap;
    return std::string(out.c_str()) + "\n";
}

} // namespace KR::tool
