// kr run

#include "serve/host.hpp"
#include "serve/hostingoptions.hpp"
#include "serve/modulelibrary.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"

#include <krplatform/krlog.hpp>

#include <string>

namespace KR::tool::serveRun {

namespace {

struct Options {
    Domain domain;
    std::string path;
    std::string name;
    HostingOptions hosting;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", path, "library that contains KR_REGISTER_MODULE, or Python file[:class]")
            .required();
        arguments.add("--name", name, "name of the module (default: that of its class)");
        hosting.declare(arguments);
        domain.declare(arguments);
    }
};

ExitCode runModule(const Options& options) {
    Interruption interruption;
    setLogLevel(KRLogLevel::Info);
    options.hosting.readSubscriptions();                           // only to report errors
    const HostedClass moduleClass = loadModuleClass(options.path); // reports a bad file before connecting
    const auto broker = options.domain.connect();
    options.hosting.giveParameters(*broker, {options.name.empty() ? moduleClass.defaultName : options.name});
    Host host;
    host.add(
        options.path, [&] { return createModuleOf(options.path, broker, options.name); }, interruption);
    options.hosting.subscribe(broker, host);
    printNotice("module " + host.getModules().front()->getName() + " runs; Ctrl-C ends it");
    const ExitCode code = host.waitFor(interruption);
    host.takeDown();
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "run",
    .summary = "Host a module library in its own process",
    .example = "  kr run ./krmotion.so\n"
               "  kr run ./krmotion.so --name DoorMotion --broker 'dds:?peers=robot1'\n"
               "  kr run ./krmotion.so --param threshold=0.01 --param camera=1 --subscribe KRMotion:100:1.0\n"
               "Exit code 1 if the module fails or exits by itself.",
    .run = runModule,
});

} // namespace
} // namespace KR::tool::serveRun
