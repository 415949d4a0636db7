#include "param/parameterfile.hpp"

#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/file.hpp"
#include "tool/filewriter.hpp"
#include "tool/outputfile.hpp"

#include <array>
#include <stdexcept>

namespace KR::tool {

namespace {

std::string readText(const std::string& path) {
    constexpr std::size_t kLargest = 16 << 20; // bytes; a larger file is something else
    std::string text;
    const File file = openFile(path, "rb");
    std::array<char, 65536> part;
    while (const std::size_t size = std::fread(part.data(), 1, part.size(), file.get())) {
        text.append(part.data(), size);
        if (text.size() > kLargest) {
            throw std::runtime_error("is too large for a parameter file");
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw std::runtime_error("cannot be read");
    }
    return text;
}

ParameterValues toParameterValues(const std::string& module, const Json& json) {
    if (!json.is_object()) {
        throw std::runtime_error("\"" + module + "\" needs an object of parameters");
    }
    ParameterValues values;
    for (const auto& [name, value] : json.items()) {
        try {
            values.emplace_back(name, toValue(value));
        } catch (const UsageError& error) {
            throw std::runtime_error(module + "." + name + ": " + error.what());
        }
    }
    return values;
}

} // namespace

KRValue readParameterValue(const std::string& text) {
    const Json json = Json::parse(text, nullptr, false);
    return json.is_discarded() ? KRValue(text) : toValue(json);
}

Json toJson(const KRParameterInfo& parameter, const KRValue& value) {
    if (parameter.type == KRParameterInfo::Type::Bool && value.isInt()) {
        return value.to<bool>();
    }
    return toJson(value);
}

Json toJson(const std::string& module, const KRParameterInfo& parameter) {
    Json json{{"module", module},
              {"name", parameter.name},
              {"type", parameter.getTypeName()},
              {"value", toJson(parameter, parameter.value)},
              {"default", toJson(parameter, parameter.defaultValue)},
              {"unit", parameter.unit},
              {"saved", parameter.saved},
              {"description", parameter.description}};
    if (parameter.minimum.isValid()) {
        json["minimum"] = toJson(parameter.minimum);
        json["maximum"] = toJson(parameter.maximum);
    }
    if (!parameter.choices.empty()) {
        json["choices"] = parameter.choices;
    }
    return json;
}

ModuleParameters readParameterFile(const std::string& path) {
    try {
        const Json json = Json::parse(readText(path), nullptr, false);
        if (!json.is_object()) {
            throw std::runtime_error(
                "is not a parameter file, {\"MODULE\": {\"PARAMETER\": VALUE}}; kr param save writes one");
        }
        ModuleParameters modules;
        for (const auto& [module, parameters] : json.items()) {
            modules.emplace_back(module, toParameterValues(module, parameters));
        }
        return modules;
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

void writeParameterFile(const std::string& path,
                        const std::vector<std::pair<std::string, std::vector<KRParameterInfo>>>& modules) {
    Json json = Json::object();
    for (const auto& [module, parameters] : modules) {
        Json values = Json::object();
        for (const KRParameterInfo& parameter : parameters) {
            if (parameter.saved && parameter.value.isValid()) {
                values[parameter.name] = toJson(parameter, parameter.value);
            }
        }
        json[module] = std::move(values);
    }
    OutputFile output(path, "");
    FileWriter file(output.getPath());
    const std::string text = formatJson(json, 2) + "\n";
    file.write(text.data(), text.size());
    file.close();
    output.commit();
}

} // namespace KR::tool
