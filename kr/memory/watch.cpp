// kr memory watch

#include "command.hpp"
#include "interruption.hpp"
#include "json.hpp"
#include "livenames.hpp"
#include "memory.hpp"
#include "number.hpp"
#include "valuejson.hpp"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    int interval = 200;
};

void show(const std::string& key, const Json& value) {
    std::printf("%s %s\n", key.c_str(), value.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

ExitCode act(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    const KRMemoryProxy memory = findMemory(broker);
    std::map<std::string, KRValue> shown;
    bool isAnswering = true;
    do {
        try {
            std::map<std::string, KRValue> now;
            for (const std::string& key : memory.getDataList(options.prefix)) {
                try {
                    now[key] = memory.getData(key);
                } catch (const KRError&) { // it was removed meanwhile
                }
            }
            for (const auto& [key, value] : now) {
                const auto before = shown.find(key);
                if (before == shown.end() || !(before->second == value)) {
                    show(key, toJson(value));
                }
            }
            shown = std::move(now);
            isAnswering = true;
        } catch (const KRError& error) { // the memory may be restarted
            if (isAnswering) {
                complain(error.getDescription());
            }
            isAnswering = false;
        }
        std::fflush(stdout);
    } while (std::ferror(stdout) == 0 && !interruption.waitFor(std::chrono::milliseconds(options.interval)));
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "memory",
    .name = "watch",
    .summary = "Prints values as they change, a line each, until Ctrl-C",
    .example =
        "  kr memory watch KRMotion/\n"
        "Values that change and change back within an interval are not seen; kr event watch misses nothing.",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("PREFIX", options->prefix,
                            "What the keys begin with; without it all are watched");
            verb.add_option("--interval", options->interval, "Milliseconds from one look to the next")
                ->transform(wholeNumber(10, 3600000))
                ->capture_default_str();
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
