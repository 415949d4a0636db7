#pragma once

#include "tool/json.hpp"

#include <krplatform/krparameter.hpp>
#include <krplatform/krvalue.hpp>

#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// Names and values of parameters.
using ParameterValues = std::vector<std::pair<std::string, KRValue>>;
/// The same by module.
using ModuleParameters = std::vector<std::pair<std::string, ParameterValues>>;

/// Reads the value of a parameter from the command line: JSON, or else a text. Unlike a value elsewhere, 640x480 needs no
/// quotes. \throws UsageError a number that does not fit 32 bits
KRValue readParameterValue(const std::string& text);

/// JSON of a value: true and false for a bool.
Json toJson(const KRParameterInfo& parameter, const KRValue& value);
/// JSON of all that is known of a parameter.
Json toJson(const std::string& module, const KRParameterInfo& parameter);

/// Reads what writeParameterFile() has written, or somebody by hand: a JSON object of modules, each an object of
/// parameters. \throws std::runtime_error with the path: it cannot be read; it is something else
ModuleParameters readParameterFile(const std::string& path);
/// Writes the values that belong into a file. \throws std::runtime_error with the path and the reason
void writeParameterFile(const std::string& path,
                        const std::vector<std::pair<std::string, std::vector<KRParameterInfo>>>& modules);

} // namespace KR::tool
