// kr call

#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/json.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krproxy.hpp>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool::call {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string method;
    std::function<std::vector<std::string>()> getArguments;
    bool check = false;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.add("METHOD", method, "name of the method; kr module info lists them").required();
        getArguments = arguments.acceptMore(); // an argument that takes several values would split "[1, 2]"
        arguments.addFlag("--check", check, "exit code 1 if a setter returns false");
        domain.declare(arguments);
    }
};

// A bool travels as an int, so only the method's description distinguishes a refusal (false) from a number (0).
bool isRefusal(const KRProxy& proxy, const std::string& method, const KRValue& result) {
    if (!method.starts_with("set") || !result.isInt() || result.to<int>() != 0) {
        return false;
    }
    const auto methods = proxy.getMethodList();
    return std::any_of(methods.begin(), methods.end(), [&](const KRMethodDescription& each) {
        return each.name == method && each.resultType == KRArgumentType::Bool;
    });
}

ExitCode call(const Options& options) {
    std::vector<KRValue> arguments;
    for (const std::string& argument : options.getArguments()) {
        if (argument.starts_with("--")) {
            throw UsageError("there is no option " + argument + "; a string of that kind needs quotes: '\"" +
                             argument + "\"'");
        }
        arguments.push_back(readValue(argument));
    }
    const auto broker = options.domain.connect();
    waitForModule(*broker, options.module);
    const auto proxy = broker->getProxy(options.module);
    try {
        const KRValue result = proxy->callValues(options.method, arguments);
        if (result.isValid()) {
            printJson(toJson(result));
        }
        if (!isRefusal(*proxy, options.method, result)) {
            return ExitCode::Done;
        }
    } catch (const KRError& error) {
        throw std::runtime_error(describeFailedCall(options.module, options.method, error));
    }
    printError(options.module + "." + options.method + ": refused; the log of the module may say why");
    return options.check ? ExitCode::Failed : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "call",
    .summary = "Call a method of a module and print its result as JSON",
    .example = "  kr call KRMotion getCurrentPeriod\n"
               "  kr call KRMotion subscribe me 100 1.0\n"
               "  kr call KRMotion setResolution 2 --check\n"
               "  kr call KRMemory insertData greeting '[\"hello\", 3, 0.5]'\n"
               "The arguments follow the method, JSON each: 3, 0.5, true, '\"text\"', '[1, 2]',\n"
               "'{\"base64\": \"AAE=\"}'. A word that is not JSON is a string.",
    .run = call,
    .complete = completeModuleAndMethod,
});

} // namespace
} // namespace KR::tool::call
