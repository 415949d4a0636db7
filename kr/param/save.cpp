// kr param save

#include "param/liveparameters.hpp"
#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"

#include <string>
#include <vector>

namespace KR::tool::paramSave {

namespace {

struct Options {
    Domain domain;
    std::string file;
    std::vector<std::string> modules;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "file to write").required();
        arguments.add("MODULES", modules, "names of modules; all modules without any");
        domain.declare(arguments);
    }
};

ExitCode save(const Options& options) {
    const auto broker = options.domain.connect();
    bool failed = false;
    ListedParameters modules;
    if (options.modules.empty()) {
        modules = readParameters(*broker, "", failed);
    }
    for (const std::string& module : options.modules) {
        modules.push_back(readParameters(*broker, module, failed).front());
    }
    writeParameterFile(options.file, modules);
    return failed ? ExitCode::DataLost : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "save",
    .summary = "Write the parameters of modules to a file",
    .example =
        "  kr param save robot.json\n"
        "  kr param save motion.json KRMotion\n"
        "kr param load, and kr run and kr serve with --param-file, read it. Temporary states, such as a "
        "pause,\n"
        "are left out. Exit code 3 if a module did not answer.",
    .run = save,
});

} // namespace
} // namespace KR::tool::paramSave
