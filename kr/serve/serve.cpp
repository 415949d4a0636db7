// kr serve

#include "cameras.hpp"
#include "command.hpp"
#include "domain.hpp"
#include "host.hpp"
#include "interruption.hpp"
#include "modulelibrary.hpp"

#include <krcamera/krvideodevice.hpp>

#include <krplatform/krlog.hpp>

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    CameraOptions cameras;
    std::vector<std::string> libraries;
};

ExitCode act(const Options& options) {
    Interruption interruption;
    setLogLevel(KRLogLevel::Info);
    const auto sources = options.cameras.readSources();
    for (const std::string& library : options.libraries) {
        loadModuleClass(splitNamedLibrary(library).path);
    }
    const auto broker = options.domain.connectWithMemory();
    Host host;
    host.addService(createModule<KRVideoDevice>(broker, "KRVideoDevice", sources));
    for (const std::string& library : options.libraries) {
        const NamedLibrary named = splitNamedLibrary(library);
        host.add(
            library, [&] { return createModuleOf(named.path, broker, named.name); }, interruption);
    }
    complain("serving on " + options.domain.getUrl() + "; Ctrl-C ends it");
    host.waitFor(interruption);
    host.takeDown();
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "",
    .name = "serve",
    .summary = "Runs the memory, the camera service and modules for all brokers of the domain",
    .example = "  kr serve --camera 0=test:ball --camera 1=file:clip.mp4 --run ./krmotion.so\n"
               "  kr serve --run DoorMotion=./krmotion.so --broker 'dds:?domain=3'",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            options->cameras.declare(verb);
            verb.add_option("--run", options->libraries, "Hosts a module library too")
                ->type_name("[NAME=]MODULE.so")
                ->expected(1)
                ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
