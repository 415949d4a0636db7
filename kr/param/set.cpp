// kr param set

#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"

#include <string>

namespace KR::tool::paramSet {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string name;
    std::string value;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.add("NAME", name, "name of the parameter").required();
        arguments.add("VALUE", value, "JSON; anything else is a string").required();
        domain.declare(arguments);
    }
};

ExitCode set(const Options& options) {
    const KRValue value = readParameterValue(options.value);
    const auto broker = options.domain.connect();
    waitForModule(*broker, options.module);
    broker->getProxy(options.module)->call("setParameterValue", options.name, value);
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "set",
    .summary = "Set a parameter of a module",
    .example = "  kr param set KRMotion threshold 0.01\n"
               "  kr param set KRMotion resolution 640x480\n"
               "  kr param set KRMotion pause true\n"
               "A string that looks like a number needs quotes: '\"3\"'.\n"
               "Exit code 1 if the value is out of range, or the module refuses it.",
    .run = set,
    .complete = completeModuleAndParameter,
});

} // namespace
} // namespace KR::tool::paramSet
