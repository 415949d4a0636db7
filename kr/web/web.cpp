// kr web

#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"
#include "web/weboptions.hpp"

#include <krweb/krweb.hpp>

#include <chrono>
#include <csignal>
#include <future>

#include <unistd.h>

namespace KR::tool::web {

namespace {

constexpr std::chrono::seconds kTimeToStop{3}; // for modules that are being called

struct Options {
    Domain domain;
    WebOptions web;

    void declare(Arguments& arguments) {
        web.declare(arguments);
        domain.declare(arguments);
    }
};

ExitCode serveWeb(const Options& options) {
    Interruption interruption;
    std::signal(SIGPIPE, SIG_IGN);
    const auto broker = options.domain.connect();
    auto server = options.web.start(broker, options.domain.getUrl());
    while (!interruption.waitFor(std::chrono::hours(1))) {
    }
    auto stopped = std::async(std::launch::async, [&] { server.reset(); });
    if (stopped.wait_for(kTimeToStop) != std::future_status::ready) {
        printError("a module does not answer");
        ::_exit(static_cast<int>(ExitCode::Done)); // nothing wakes the threads that wait for it
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "web",
    .summary = "Show cameras, extractors, values and events in a browser",
    .example =
        "  kr web\n"
        "  kr web --listen 0.0.0.0:8765 --token /etc/krvision/web-token --read-only\n"
        "  curl -o now.jpg 'http://127.0.0.1:8765/camera/0.jpg?resolution=320x240'\n"
        "Viewers that speak the Foxglove WebSocket protocol connect to the same address. See docs/web.md.",
    .run = serveWeb,
});

} // namespace
} // namespace KR::tool::web
