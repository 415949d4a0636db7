// kr run

#include "command.hpp"
#include "domain.hpp"
#include "host.hpp"
#include "interruption.hpp"
#include "modulelibrary.hpp"

#include <krplatform/krlog.hpp>

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string path;
    std::string name;
};

ExitCode act(const Options& options) {
    Interruption interruption;
    setLogLevel(KRLogLevel::Info);
    loadModuleClass(options.path); // a wrong file is no reason to look for brokers
    const auto broker = options.domain.connect();
    Host host;
    host.add(
        options.path, [&] { return createModuleOf(options.path, broker, options.name); }, interruption);
    complain("module " + host.getModules().front()->getName() + " runs; Ctrl-C ends it");
    host.waitFor(interruption);
    host.takeDown();
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "",
    .name = "run",
    .summary = "Hosts a module library in a process of its own",
    .example = "  kr run ./krmotion.so\n"
               "  kr run ./krmotion.so --name DoorMotion --broker 'dds:?peers=robot1'",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("MODULE", options->path, "Library with KR_REGISTER_MODULE in it")->required();
            verb.add_option("--name", options->name,
                            "Name of the module, instead of the one its class gives it");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
