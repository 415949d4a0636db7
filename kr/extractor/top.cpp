// kr extractor top

#include "command.hpp"
#include "domain.hpp"
#include "interruption.hpp"
#include "json.hpp"
#include "number.hpp"
#include "overview.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <unistd.h>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    double interval = 1;
    int count = 0;
    bool json = false;
};

constexpr const char* kClearScreen = "\033[H\033[2J";

std::string describe(const std::optional<bool>& state) {
    return !state ? "-" : *state ? "yes" : "no";
}

std::string formatRate(const std::optional<double>& rate) {
    if (!rate) {
        return "-";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", *rate);
    return text;
}

void show(const std::vector<ExtractorState>& extractors) {
    std::size_t width = 9;
    for (const ExtractorState& extractor : extractors) {
        width = std::max(width, extractor.name.size());
        for (const ExtractorSubscriber& subscriber : extractor.subscribers) {
            width = std::max(width, subscriber.name.size() + 2);
        }
    }
    const int column = static_cast<int>(width);
    std::printf("%-*s  %10s  %9s  %6s  %10s  %7s\n", column, "EXTRACTOR", "PERIOD ms", "PRECISION", "PAUSED",
                "PROCESSING", "FRAME/s");
    for (const ExtractorState& extractor : extractors) {
        std::printf("%-*s  %10d  %9g  %6s  %10s  %7s\n", column, extractor.name.c_str(), extractor.period,
                    static_cast<double>(extractor.precision), describe(extractor.paused).c_str(),
                    describe(extractor.processing).c_str(), formatRate(extractor.frameRate).c_str());
        for (const ExtractorSubscriber& subscriber : extractor.subscribers) {
            std::printf("  %-*s  %10d  %9g\n", column - 2, subscriber.name.c_str(), subscriber.period,
                        static_cast<double>(subscriber.precision));
        }
    }
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
                        {"subscribers", subscribers}});
    }
    return list;
}

ExitCode act(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    ExtractorOverview overview(broker);
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
    const auto interval = std::chrono::milliseconds(static_cast<int>(options.interval * 1000));
    if (overview.look().empty()) {
        complain("there is no extractor on " + options.domain.getUrl());
    }
    // The first look is only there to compare with: a rate needs two.
    for (int shown = 0; options.count == 0 || shown < options.count; ++shown) {
        if (interruption.waitFor(interval) || std::ferror(stdout) != 0) {
            break;
        }
        const auto extractors = overview.look();
        if (options.json) {
            printJson(toJson(extractors));
        } else {
            std::fputs(isTerminal ? kClearScreen : shown > 0 ? "\n" : "", stdout);
            show(extractors);
        }
        std::fflush(stdout);
    }
    return ExitCode::Done;
}

const GroupRegistration group("extractor", "The extractors and who subscribes to them");

const CommandRegistration registration({
    .group = "extractor",
    .name = "top",
    .summary = "Shows what all extractors do, again and again until Ctrl-C",
    .example = "  kr extractor top\n"
               "  kr extractor top --count 1 --json",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("--interval", options->interval, "Seconds from one look to the next")
                ->check(realNumber(0.05, 3600))
                ->capture_default_str();
            verb.add_option("--count", options->count, "Ends after so many looks")->transform(wholeNumber(1));
            verb.add_flag("--json", options->json, "Shows each look as a JSON array");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
