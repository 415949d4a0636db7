#pragma once

#include "serve/robotfile.hpp"
#include "tool/json.hpp"

#include <yaml-cpp/yaml.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// Position of a node.
Place getPlace(const YAML::Node& node);

/// A node as JSON: plain scalars by the core schema of YAML 1.2, quoted ones as strings.
/// \throws std::invalid_argument a key of a map is not a scalar; nested more than 64 deep
Json readJson(const YAML::Node& node);

/// Reads the values of a map and reports problems: unknown keys with the nearest known one, duplicate keys, values of the
/// wrong type. Each getter leaves its variable unchanged if the key is missing.
class YamlSection {
public:
    /// \param title  for messages: "a camera"
    /// \param keys  the known ones; must outlive this
    YamlSection(const YAML::Node& node, std::string title, const std::vector<std::string>& keys,
                std::vector<RobotProblem>& problems);

    /// The value of a key; not defined without it.
    YAML::Node find(const std::string& key) const;

    void read(const std::string& key, std::string& value);
    void read(const std::string& key, bool& value);
    void read(const std::string& key, std::optional<int>& value, int minimum,
              int maximum = std::numeric_limits<int>::max());
    void read(const std::string& key, double& value, double minimum);
    void readChoice(const std::string& key, std::string& value, const std::vector<std::string>& choices);
    void read(const std::string& key, std::vector<std::string>& values);
    void read(const std::string& key, std::vector<int>& values, int minimum, int maximum);
    /// Any values by name.
    void read(const std::string& key, std::vector<std::pair<std::string, Json>>& values);

    /// Reports a missing key. \return whether it is present
    bool require(const std::string& key);
    void report(const YAML::Node& node, const std::string& text);

private:
    std::optional<int> readInt(const YAML::Node& node, const std::string& what, int minimum, int maximum);
    std::optional<std::string> readText(const YAML::Node& node, const std::string& what);

    const YAML::Node node_;
    const std::string title_;
    std::vector<RobotProblem>& problems_;
};

/// Calls `visit` with each entry of a list. Reports a node that is not a list.
template <class Visit>
void visitList(const YAML::Node& node, const std::string& key, std::vector<RobotProblem>& problems,
               Visit visit) {
    if (!node.IsDefined() || node.IsNull()) {
        return;
    }
    if (!node.IsSequence()) {
        problems.push_back(
            {getPlace(node), key + " needs a list: a line that begins with \"- \" for each entry"});
        return;
    }
    for (const YAML::Node& entry : node) {
        visit(entry);
    }
}

} // namespace KR::tool
