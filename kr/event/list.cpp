// kr event list

#include "system/memory.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>
#include <string>

namespace KR::tool::eventList {

namespace {

Json readEvents(const KRMemoryProxy& memory) {
    Json events = Json::array();
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
        events.push_back({{"event", event}, {"subscribers", entries}});
    }
    return events;
}

void print(const Json& event) {
    const auto escaped = [](const Json& text) { return escapeText(text.get_ref<const std::string&>()); };
    std::printf("%s\n", escaped(event["event"]).c_str());
    for (const Json& subscriber : event["subscribers"]) {
        std::printf("    %s.%s: %d delivered, %d lost\n", escaped(subscriber["client"]).c_str(),
                    escaped(subscriber["callback"]).c_str(), subscriber["delivered"].get<int>(),
                    subscriber["lost"].get<int>());
    }
}

ExitCode list(const ListOptions& options) {
    const Json events = readEvents(findMemory(options.domain.connect()));
    if (options.json) {
        printJson(events);
        return ExitCode::Done;
    }
    for (const Json& event : events) {
        print(event);
    }
    return ExitCode::Done;
}

const GroupRegistration group("event", "List, watch and raise events of modules");

const VerbRegistration registration(Verb<ListOptions>{
    .group = "event",
    .name = "list",
    .summary = "List the events and their subscribers",
    .example = "  kr event list",
    .run = list,
});

} // namespace
} // namespace KR::tool::eventList
