#include "system/livenames.hpp"

#include "system/domain.hpp"
#include "system/internal.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krparameter.hpp>

#include <algorithm>
#include <chrono>

namespace KR::tool {

namespace {

constexpr const char* kMemory = "KRMemory";
constexpr std::chrono::milliseconds kPatience{1500}; // somebody sits at the keyboard

} // namespace

std::vector<std::string> completeModule(const std::vector<std::string>& words, const std::string& url) {
    if (!words.empty()) {
        return {};
    }
    auto modules = connectTo(url)->getModuleList();
    std::erase_if(modules, isInternalModule);
    return modules;
}

std::vector<std::string> completeModuleAndMethod(const std::vector<std::string>& words,
                                                 const std::string& url) {
    if (words.size() != 1) {
        return completeModule(words, url);
    }
    const auto broker = connectTo(url);
    std::vector<std::string> names;
    if (broker->getSession().waitForService(words[0], kPatience)) {
        for (const KRMethodDescription& method : broker->getProxy(words[0])->getMethodList()) {
            const bool isNew = std::find(names.begin(), names.end(), method.name) == names.end();
            if (isNew && !isInternalMethod(method.name)) { // overloads have one name
                names.push_back(method.name);
            }
        }
    }
    return names;
}

std::vector<std::string> completeModuleAndParameter(const std::vector<std::string>& words,
                                                    const std::string& url) {
    if (words.empty() || words.size() > 2) {
        return completeModule(words, url);
    }
    const auto broker = connectTo(url);
    std::vector<std::string> candidates;
    if (!broker->getSession().waitForService(words[0], kPatience)) {
        return candidates;
    }
    for (const KRParameterInfo& parameter : getParameterList(*broker->getProxy(words[0]))) {
        if (words.size() == 1) {
            candidates.push_back(parameter.name);
        } else if (parameter.name == words[1]) {
            candidates = parameter.type == KRParameterInfo::Type::Bool
                             ? std::vector<std::string>{"true", "false"}
                             : parameter.choices;
        }
    }
    return candidates;
}

std::vector<std::string> completeMemoryKey(const std::vector<std::string>& words, const std::string& url) {
    const auto broker = connectTo(url);
    if (!words.empty() || !broker->getSession().waitForService(kMemory, kPatience)) {
        return {};
    }
    return KRMemoryProxy(broker).getDataList();
}

std::vector<std::string> completeEvent(const std::vector<std::string>&, const std::string& url) {
    const auto broker = connectTo(url);
    if (!broker->getSession().waitForService(kMemory, kPatience)) {
        return {};
    }
    return KRMemoryProxy(broker).getEventList();
}

} // namespace KR::tool
