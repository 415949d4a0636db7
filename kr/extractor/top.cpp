// kr extractor top

#include "extractor/overview.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/watchoptions.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <string>

#include <unistd.h>

namespace KR::tool::extractorTop {

namespace {

struct Options {
    Domain domain;
    double interval_s = 1;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        arguments.add("--interval", interval_s, "seconds between two tables")
            .realNumber(0.05, 3600)
            .showDefault();
        watch.declare(arguments, "tables", "a JSON array per table, a line each");
        domain.declare(arguments);
    }
};

constexpr const char* kClearScreen = "\033[H\033[2J";

std::string formatFlag(const std::optional<bool>& flag) {
    return !flag ? "-" : *flag ? "yes" : "no";
}

std::string formatRate(const std::optional<double>& rate) {
    return rate ? format("%.1f", *rate) : "-";
}

std::string formatTable(const std::vector<ExtractorState>& extractors) {
    std::size_t width = 9;
    for (const ExtractorState& extractor : extractors) {
        width = std::max(width, escapeText(extractor.name).size());
        for (const ExtractorSubscriber& subscriber : extractor.subscribers) {
            width = std::max(width, escapeText(subscriber.name).size() + 2);
        }
    }
    const int column = static_cast<int>(width);
    std::string table = format("%-*s  %10s  %9s  %6s  %10s  %7s\n", column, "EXTRACTOR", "PERIOD ms",
                               "PRECISION", "PAUSED", "PROCESSING", "FRAME/s");
    for (const ExtractorState& extractor : extractors) {
        const std::string processing =
            extractor.failure.empty() ? formatFlag(extractor.processing) : "failed";
        table += format("%-*s  %10d  %9g  %6s  %10s  %7s\n", column, escapeText(extractor.name).c_str(),
                        extractor.period, static_cast<double>(extractor.precision),
                        formatFlag(extractor.paused).c_str(), processing.c_str(),
                        formatRate(extractor.frameRate).c_str());
        if (!extractor.failure.empty()) {
            table += "  failed: " + escapeText(extractor.failure) + "\n";
        }
        for (const ExtractorSubscriber& subscriber : extractor.subscribers) {
            table += format("  %-*s  %10d  %9g\n", column - 2, escapeText(subscriber.name).c_str(),
                            subscriber.period, static_cast<double>(subscriber.precision));
        }
    }
    return table;
}

Json toJson(const std::vector<ExtractorState>& extractors) {
    const auto orNull = [](const auto& optional) { return optional ? Json(*optional) : Json(nullptr); };
    Json list = Json::array();
    for (const ExtractorState& extractor : extractors) {
        Json subscribers = Json::array();
        for (const ExtractorSubscriber& subscriber : extractor.subscribers) {
            subscribers.push_back({{"name", subscriber.name},
                                   {"period_ms", subscriber.period},
                                   {"precision", subscriber.precision}});
        }
        list.push_back({{"name", extractor.name},
                        {"period_ms", extractor.period},
                        {"precision", extractor.precision},
                        {"paused", orNull(extractor.paused)},
                        {"processing", orNull(extractor.processing)},
                        {"frames_per_second", orNull(extractor.frameRate)},
                        {"failure", extractor.failure.empty() ? Json(nullptr) : Json(extractor.failure)},
                        {"subscribers", subscribers}});
    }
    return list;
}

ExitCode printTables(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    ExtractorOverview overview(broker);
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
    const auto interval = std::chrono::milliseconds(static_cast<int>(options.interval_s * 1000));
    if (overview.poll().empty()) { // not printed: a rate needs two polls
        printError("there is no extractor on " + options.domain.getUrl());
    }
    Output output;
    const auto end = options.watch.getEnd();
    for (int printed = 0; !options.watch.isEnough(printed) && WatchOptions::Clock::now() < end; ++printed) {
        const auto next = std::min(end, WatchOptions::Clock::now() + interval);
        if (interruption.waitFor(
                std::chrono::ceil<std::chrono::milliseconds>(next - WatchOptions::Clock::now())) ||
            output.isBroken()) {
            break;
        }
        const auto extractors = overview.poll();
        const char* separator = isTerminal ? kClearScreen : printed > 0 ? "\n" : "";
        output.print(options.watch.json ? formatJson(toJson(extractors)) + "\n"
                                        : separator + formatTable(extractors),
                     interruption);
    }
    return output.finish(interruption);
}

const GroupRegistration group("extractor", "Watch extractors and their subscribers");

const VerbRegistration registration(Verb<Options>{
    .group = "extractor",
    .name = "top",
    .summary = "Show the state of all extractors every second",
    .example = "  kr extractor top\n"
               "  kr extractor top --count 1 --json",
    .run = printTables,
});

} // namespace
} // namespace KR::tool::extractorTop
