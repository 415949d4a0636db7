// kr event watch

#include "system/client.hpp"
#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"
#include "tool/watchoptions.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krtext.hpp>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace KR::tool::eventWatch {

namespace {

struct Options {
    Domain domain;
    std::vector<std::string> events;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        arguments.add("EVENTS", events, "names of events").required();
        watch.declare(arguments, "events", "a JSON object per event, a line each");
        domain.declare(arguments);
    }
};

/// Prints events in the order in which they come, without blocking those who bring them. Thread-safe.
class EventPrinter {
public:
    explicit EventPrinter(const WatchOptions& options)
        : left_(options.count), isCounting_(options.count > 0), isJson_(options.json) {}

    void print(const std::string& event, const KRValue& value) {
        const std::int64_t now = getTimeStamp();
        std::string line =
            isJson_
                ? formatJson({{"time_usec", now}, {"event", event}, {"value", toJson(value)}}) + "\n"
                : formatTimeStamp(now) + "  " + escapeText(event) + " " + formatJson(toJson(value)) + "\n";
        const KRLock lock(mutex_);
        if (isCounting_ && left_ == 0) {
            return;
        }
        if (!output_.offer(std::move(line))) {
            ++unread_;
        } else if (isCounting_) {
            --left_;
        }
    }
    void noticeLoss(int count) {
        const KRLock lock(mutex_);
        dropped_ += static_cast<std::uint64_t>(count);
    }
    bool isDone() const {
        const KRLock lock(mutex_);
        return (isCounting_ && left_ == 0) || output_.isBroken();
    }

    /// Writes what waits, and reports losses. \return DataLost if there were any
    ExitCode finish(Interruption& interruption) KR_EXCLUDES(mutex_) {
        const ExitCode code = output_.finish(interruption);
        if (output_.isBroken()) {
            return code;
        }
        const KRLock lock(mutex_);
        const std::uint64_t unread = unread_ + output_.countQueued();
        if (unread > 0) {
            printError("lost " + std::to_string(unread) + " events: standard output was read too slowly");
        }
        if (dropped_ > 0) {
            printError("lost " + std::to_string(dropped_) +
                       " events: they came faster than this process took them");
        }
        return unread + dropped_ > 0 ? ExitCode::DataLost : code;
    }

private:
    static constexpr std::size_t kCapacity = 16 << 20; // bytes

    mutable KRMutex mutex_;
    Output output_{kCapacity};
    int left_ KR_GUARDED_BY(mutex_);
    const bool isCounting_;
    const bool isJson_;
    std::uint64_t unread_ KR_GUARDED_BY(mutex_) = 0;  // did not fit into the output
    std::uint64_t dropped_ KR_GUARDED_BY(mutex_) = 0; // by the memory
};

ExitCode watch(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    KRMemoryProxy memory = findMemory(broker);
    EventPrinter printer(options.watch);
    {
        const auto client = makeClient(
            broker, [&](const std::string& event, const KRValue& value) { printer.print(event, value); },
            [&](const std::string&, int count) { printer.noticeLoss(count); });
        for (const std::string& event : options.events) {
            memory.subscribeToEvent(event, client->getName(), Client::kCallback);
        }
        printNotice("watching; Ctrl-C ends it");
        const auto end = options.watch.getEnd();
        // The broker renews the subscriptions when the memory is restarted.
        constexpr std::chrono::milliseconds kStep{20};
        while (!printer.isDone() && WatchOptions::Clock::now() < end && !interruption.waitFor(kStep)) {
        }
        for (const std::string& event : options.events) {
            try {
                memory.unsubscribeFromEvent(event, client->getName());
            } catch (const KRError&) { // the memory is gone
            }
        }
    }
    return printer.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "event",
    .name = "watch",
    .summary = "Subscribe to events and print a line for each as it comes",
    .example = "  kr event watch KRMotion/MotionDetected\n"
               "  kr event watch Door/Opened --count 1 --json\n"
               "Like any subscription, this one starts the extractor that declared the event.\n"
               "Exit code 3 if events were lost because their reader was too slow.",
    .run = watch,
    .complete = completeEvent,
});

} // namespace
} // namespace KR::tool::eventWatch
