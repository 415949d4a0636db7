// kr new

#include "new/project.hpp"
#include "tool/command.hpp"

#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool::newProject {

namespace {

struct Options {
    std::string name;
    bool isPython = false;
    bool isExtractor = false;
    bool isModule = false;

    void declare(Arguments& arguments) {
        arguments.add("NAME", name, "name of the module, such as red-ball, and of the folder").required();
        arguments.addFlag("--python", isPython, "project in Python instead of C++");
        arguments.addFlag("--extractor", isExtractor, "module that processes images of a camera (default)");
        arguments.addFlag("--module", isModule, "module that others call");
    }
};

ExitCode writeNewProject(const Options& options) {
    if (options.isExtractor && options.isModule) {
        throw UsageError("--extractor and --module exclude each other");
    }
    ProjectNames names;
    try {
        names = makeProjectNames(options.name, options.isPython);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
    const std::string kind = options.isModule ? "module" : "extractor";
    if (options.isPython) {
        writeProject(options.name, {"python", "python-" + kind}, names);
    } else {
        writeProject(options.name, {"cpp", kind}, names);
    }
    printError("module " + names.module + " is in " + options.name + "/; its README.md says what to type");
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "new",
    .summary = "Create the project of a new module in a folder of its name",
    .example = "  kr new red-ball && cd red-ball && .ci/test\n"
               "  kr new red-ball --python\n"
               "  kr new counter --module",
    .run = writeNewProject,
});

} // namespace
} // namespace KR::tool::newProject
