#include "param/liveparameters.hpp"

#include "system/domain.hpp"
#include "system/internal.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"

#include <krplatform/krerror.hpp>

#include <algorithm>
#include <stdexcept>

namespace KR::tool {

ListedParameters readParameters(KRBroker& broker, const std::string& module, bool& failed) {
    if (!module.empty()) {
        waitForModule(broker, module);
        return {{module, getParameterList(*broker.getProxy(module))}};
    }
    ListedParameters modules;
    for (const std::string& each : broker.getModuleList()) {
        if (isInternalModule(each)) {
            continue;
        }
        try {
            auto parameters = getParameterList(*broker.getProxy(each));
            if (!parameters.empty()) {
                modules.emplace_back(each, std::move(parameters));
            }
        } catch (const KRError& error) {
            printError(each + " does not list its parameters: " + describe(error));
            failed = true;
        }
    }
    return modules;
}

KRParameterInfo readParameter(KRBroker& broker, const std::string& module, const std::string& name) {
    waitForModule(broker, module);
    auto parameters = getParameterList(*broker.getProxy(module));
    const auto found = std::ranges::find(parameters, name, &KRParameterInfo::name);
    if (found == parameters.end()) {
        std::string known;
        for (const KRParameterInfo& each : parameters) {
            known += (known.empty() ? "; parameters are " : ", ") + each.name;
        }
        throw std::runtime_error(module + " has no parameter " + name + known);
    }
    return std::move(*found);
}

} // namespace KR::tool
