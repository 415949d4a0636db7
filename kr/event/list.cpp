// kr event list

#include "command.hpp"
#include "json.hpp"
#include "memory.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    bool json = false;
};

ExitCode act(const Options& options) {
    const KRMemoryProxy memory = findMemory(options.domain.connect());
    Json list = Json::array();
    for (const std::string& event : memory.getEventList()) {
        const KRValue subscribers = memory.getEventSubscribers(event);
        Json entries = Json::array();
        for (std::size_t i = 0; i < subscribers.getSize(); ++i) {
            const KRValue& subscriber = subscribers[i];
            entries.push_back({{"client", subscriber[0].to<std::string>()},
                               {"callback", subscriber[1].to<std::string>()},
                               {"delivered", subscriber[2].to<int>()},
                               {"lost", subscriber[3].to<int>()}});
        }
        list.push_back({{"event", event}, {"subscribers", entries}});
    }
    if (options.json) {
        printJson(list);
        return ExitCode::Done;
    }
    for (const Json& entry : list) {
        std::printf("%s\n", entry["event"].get<std::string>().c_str());
        for (const Json& subscriber : entry["subscribers"]) {
            std::printf("    %s.%s: %d delivered, %d lost\n", subscriber["client"].get<std::string>().c_str(),
                        subscriber["callback"].get<std::string>().c_str(), subscriber["delivered"].get<int>(),
                        subscriber["lost"].get<int>());
        }
    }
    return ExitCode::Done;
}

const GroupRegistration group("event", "The events that modules raise");

const CommandRegistration registration({
    .group = "event",
    .name = "list",
    .summary = "Lists the events and who subscribes to them",
    .example = "  kr event list",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_flag("--json", options->json, "Lists them as JSON");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
