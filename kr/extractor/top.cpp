// kr extractor top

#include "extractor/overview.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <string>

#include <unistd.h>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    double interval_s = 1;
    int count = 0;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("--interval", interval_s, "seconds between two tables")
            .realNumber(0.05, 3600)
            .showDefault();
        arguments.add("--count", count, "number of tables to print before it ends").wholeNumber(1);
        arguments.addFlag("--json", json, "output each table as a JSON array");
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
    for (int printed = 0; options.count == 0 || printed < options.count; ++printed) {
        if (interruption.waitFor(interval) || output.isBroken()) {
            break;
        }
        const auto extractors = overview.poll();
        const char* separator = isTerminal ? kClearScreen : printed > 0 ? "\n" : "";
        output.print(options.json ? formatJson(toJson(extractors), 2) + "\n"
                                  : separator + formatTable(extractors),
                     interruption);
    }
    return output.finish(interruption);
}

const GroupRegistration group("extractor", "Extractors and their subscribers");

const VerbRegistration registration(Verb<Options>{
    .group = "extractor",
    .name = "top",
    .summary = "Show the state of all extractors every second, until Ctrl-C",
    .example = "  kr extractor top\n"
               "  kr extractor top --count 1 --json",
    .run = printTables,
});

} // namespace
} // namespace KR::tool
