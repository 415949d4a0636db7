#pragma once

#include <krplatform/krbroker.hpp>
#include <krplatform/krparameter.hpp>

#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// Modules with their parameters.
using ListedParameters = std::vector<std::pair<std::string, std::vector<KRParameterInfo>>>;

/// The parameters of a module, or of all modules that have some if its name is "". Modules among all that do not answer
/// are reported.
/// \param failed  set if a module among all did not answer
/// \throws std::runtime_error there is no module of this name \throws KRError from the module
ListedParameters readParameters(KRBroker& broker, const std::string& module, bool& failed);

/// One parameter of a module. \throws std::runtime_error there is no such module or parameter
KRParameterInfo readParameter(KRBroker& broker, const std::string& module, const std::string& name);

} // namespace KR::tool
