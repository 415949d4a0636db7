// kr serve

#include "camera/cameras.hpp"
#include "serve/host.hpp"
#include "serve/hostingoptions.hpp"
#include "serve/modulelibrary.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"

#ifdef KR_WITH_WEB
#include "web/weboptions.hpp"

#include <krweb/krweb.hpp>
#endif

#include <krcamera/krvideodevice.hpp>

#include <krplatform/krlog.hpp>

#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    SourceOptions cameras;
    std::vector<std::string> libraries;
    HostingOptions hosting;
#ifdef KR_WITH_WEB
    WebOptions web;
#endif

    void declare(Arguments& arguments) {
        cameras.declare(arguments, "0=test");
        arguments.add("--run", libraries, "module library or Python file[:class] to host too")
            .valueName("[NAME=]MODULE")
            .repeatable();
        hosting.declare(arguments);
#ifdef KR_WITH_WEB
        web.declareForServe(arguments);
#endif
        domain.declare(arguments);
    }
};

ExitCode serve(const Options& options) {
    Interruption interruption;
    setLogLevel(KRLogLevel::Info);
    const auto sources = options.cameras.readSources();
    options.hosting.checkSubscriptions();
    std::vector<std::string> modules;
    for (const std::string& library : options.libraries) {
        const NamedLibrary named = splitNamedLibrary(library);
        const HostedClass moduleClass = loadModuleClass(named.path);
        modules.push_back(named.name.empty() ? moduleClass.defaultName : named.name);
    }
    const auto broker = options.domain.connect();
    options.hosting.giveParameters(*broker, modules);
    Host host;
    host.addService(createModule<KRVideoDevice>(broker, "KRVideoDevice", sources));
    if (!options.domain.saysWhereMemoryIs()) {
        broker->startMemory(); // after the cameras: whoever finds the memory starts, and finds them too
    }
    for (const std::string& library : options.libraries) {
        const NamedLibrary named = splitNamedLibrary(library);
        host.add(
            library, [&] { return createModuleOf(named.path, broker, named.name); }, interruption);
    }
    options.hosting.subscribe(broker, host);
#ifdef KR_WITH_WEB
    const auto web =
        options.web.start(broker, options.domain.getUrl()); // ends after the modules that it calls
#endif
    printError("serving on " + options.domain.getUrl() + "; Ctrl-C ends it");
    const ExitCode code = host.waitFor(interruption);
    host.takeDown();
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "serve",
    .summary = "Run the camera service, the memory and modules for all brokers of the domain",
    .example =
        "  kr serve --camera 0=test:ball --camera 1=file:clip.mp4 --run ./krmotion.so\n"
        "  kr serve --run DoorMotion=./krmotion.so --broker 'dds:?domain=3'\n"
        "  kr serve --run ./krmotion.so --param-file robot.json --subscribe KRMotion:100:1.0\n"
        "A module that fails or exits by itself is reported, and the exit code is 1 then; the others go on.",
    .run = serve,
});

} // namespace
} // namespace KR::tool
