#include "serve/hostingoptions.hpp"

#include "serve/host.hpp"
#include "system/client.hpp"
#include "tool/arguments.hpp"
#include "tool/command.hpp"

#include <krplatform/krsubscription.hpp>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Setting {
    std::string module;
    std::string parameter;
    KRValue value;
};

// "[MODULE.]NAME=VALUE". Names of modules may have dots, those of parameters have none.
Setting parseSetting(const std::string& text, const std::vector<std::string>& modules) {
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw UsageError("--param " + text + " is not NAME=VALUE");
    }
    const std::string name = text.substr(0, equals);
    const auto dot = name.rfind('.');
    const KRValue value = readParameterValue(text.substr(equals + 1));
    if (dot == std::string::npos) {
        if (modules.size() != 1) {
            throw UsageError("--param " + text +
                             (modules.empty()
                                  ? " is for no module: --run hosts one"
                                  : " needs the name of a module, as in " + modules.front() + "." + text));
        }
        return {modules.front(), name, value};
    }
    const std::string module = name.substr(0, dot);
    if (std::ranges::find(modules, module) == modules.end()) {
        std::string hosted;
        for (const std::string& each : modules) {
            hosted += (hosted.empty() ? "; modules are " : ", ") + each;
        }
        throw UsageError("--param " + text + ": no module " + module + " is hosted here" + hosted);
    }
    return {module, name.substr(dot + 1), value};
}

template <class Number>
bool parseNumber(const std::string& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// "MODULE[:PERIOD[:PRECISION]]"
RobotSubscription parseSubscription(const std::string& text) {
    const auto refuse = [&] {
        throw UsageError("--subscribe " + text +
                         " is not MODULE[:PERIOD[:PRECISION]], with a period in milliseconds from 1");
    };
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(':', start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    RobotSubscription wanted{.module = parts[0]};
    if (parts[0].empty() || parts.size() > 3) {
        refuse();
    }
    if (parts.size() > 1) {
        int period = 0;
        if (!parseNumber(parts[1], period) || period < 1) {
            refuse();
        }
        wanted.period = period;
    }
    if (parts.size() > 2 && (!parseNumber(parts[2], wanted.precision) || wanted.precision < 0)) {
        refuse();
    }
    return wanted;
}

} // namespace

void HostingOptions::declare(Arguments& arguments) {
    arguments.add("--param", parameters_, "initial value of a parameter")
        .valueName("[MODULE.]NAME=VALUE")
        .repeatable();
    arguments.add("--param-file", parameterFile_, "file of parameters that kr param save has written");
    arguments
        .add("--subscribe", subscriptions_,
             "subscription to an extractor in any process, until this program ends")
        .valueName("MODULE[:PERIOD[:PRECISION]]")
        .repeatable();
}

std::map<std::string, ParameterValues>
HostingOptions::readParameters(const std::vector<std::string>& modules) const {
    std::map<std::string, ParameterValues> values;
    if (!parameterFile_.empty()) {
        std::string others;
        for (auto& [module, parameters] : readParameterFile(parameterFile_)) {
            if (std::ranges::find(modules, module) != modules.end()) {
                values[module] = std::move(parameters);
            } else {
                others += (others.empty() ? "" : ", ") + module;
            }
        }
        if (values.empty()) {
            throw std::runtime_error(parameterFile_ + ": has no parameters of a module that is hosted here" +
                                     (others.empty() ? "" : ", but those of " + others));
        }
        if (!others.empty()) {
            printError(parameterFile_ + ": left out what is for " + others + ", not hosted here");
        }
    }
    for (const std::string& text : parameters_) {
        Setting setting = parseSetting(text, modules);
        ParameterValues& ofModule = values[setting.module];
        std::erase_if(ofModule, [&](const auto& each) { return each.first == setting.parameter; });
        ofModule.emplace_back(setting.parameter, std::move(setting.value));
    }
    return values;
}

void HostingOptions::giveParameters(KRBroker& broker, const std::vector<std::string>& modules) const {
    for (auto& [module, parameters] : readParameters(modules)) {
        broker.setInitialParameters(module, std::move(parameters));
    }
}

std::vector<RobotSubscription> HostingOptions::readSubscriptions() const {
    std::vector<RobotSubscription> wanted;
    for (const std::string& text : subscriptions_) {
        wanted.push_back(parseSubscription(text));
    }
    return wanted;
}

void HostingOptions::subscribe(const boost::shared_ptr<KRBroker>& broker, Host& host) const {
    const std::string client = makeClientName();
    for (const RobotSubscription& wanted : readSubscriptions()) {
        host.addSubscription(wanted.period ? KRSubscription(broker, wanted.module, client, *wanted.period,
                                                            static_cast<float>(wanted.precision))
                                           : KRSubscription(broker, wanted.module, client));
    }
}

} // namespace KR::tool
