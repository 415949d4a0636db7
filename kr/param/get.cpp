// kr param get

#include "param/liveparameters.hpp"
#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"

#include <string>

namespace KR::tool::paramGet {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string name;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.add("NAME", name, "name of the parameter").required();
        domain.declare(arguments);
    }
};

ExitCode get(const Options& options) {
    const auto broker = options.domain.connect();
    const KRParameterInfo parameter = readParameter(*broker, options.module, options.name);
    printJson(toJson(parameter, parameter.value));
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "get",
    .summary = "Print the value of a parameter as JSON",
    .example = "  kr param get KRMotion threshold",
    .run = get,
    .complete = completeModuleAndParameter,
});

} // namespace
} // namespace KR::tool::paramGet
