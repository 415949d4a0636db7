// kr event watch

#include "client.hpp"
#include "command.hpp"
#include "interruption.hpp"
#include "json.hpp"
#include "livenames.hpp"
#include "memory.hpp"
#include "number.hpp"
#include "valuejson.hpp"

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::vector<std::string> events;
    int count = 0;
};

/// Lines on standard output from several threads.
class Printer {
public:
    explicit Printer(int count) : left_(count), isCounting_(count > 0) {}

    void print(const std::string& event, const KRValue& value) {
        const std::string text = toJson(value).dump(-1, ' ', false, Json::error_handler_t::replace);
        const std::lock_guard lock(mutex_);
        if (isDone_) {
            return;
        }
        std::printf("%s %s\n", event.c_str(), text.c_str());
        std::fflush(stdout);
        isDone_ = (isCounting_ && --left_ == 0) || std::ferror(stdout) != 0;
    }
    bool isDone() const { return isDone_; }

private:
    std::mutex mutex_;
    int left_; // guarded by mutex_
    const bool isCounting_;
    std::atomic<bool> isDone_ = false; // written with mutex_ held
};

ExitCode act(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    KRMemoryProxy memory = findMemory(broker);
    Printer printer(options.count);
    const auto client = makeClient(
        broker, [&](const std::string& event, const KRValue& value) { printer.print(event, value); });
    for (const std::string& event : options.events) {
        memory.subscribeToEvent(event, client->getName(), Client::kCallback);
    }
    complain("watching; Ctrl-C ends it");
    // The broker subscribes again where a memory was restarted.
    constexpr std::chrono::milliseconds kStep{20};
    while (!printer.isDone() && !interruption.waitFor(kStep)) {
    }
    for (const std::string& event : options.events) {
        try {
            memory.unsubscribeFromEvent(event, client->getName());
        } catch (const KRError&) { // it has gone
        }
    }
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "event",
    .name = "watch",
    .summary = "Subscribes to events and prints a line for each, until Ctrl-C",
    .example =
        "  kr event watch KRMotion/MotionDetected\n"
        "  kr event watch Door/Opened --count 1\n"
        "Like any subscriber it subscribes to the extractor that declared the event, which starts with it.",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("EVENTS", options->events, "Names of events")->required();
            verb.add_option("--count", options->count, "Ends after so many")->transform(wholeNumber(1));
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeEvent,
});

} // namespace
} // namespace KR::tool
