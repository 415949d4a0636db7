#include "tool/registry.hpp"

#include <CLI/CLI.hpp>

#include <exception>

namespace KR::tool {

namespace {

/// What the words of an incomplete command line mean.
struct ParsedWords {
    const CLI::App* at = nullptr;            ///< the program, the group or the verb that was named last
    const Command* command = nullptr;        ///< the verb; null until it is named
    std::vector<std::string> arguments = {}; ///< of the verb, without options
    std::string group = {};                  ///< named last; ""
    std::string broker = "dds:";
    const CLI::Option* option = nullptr; ///< whose value the next word is; null: it is none
    bool isKnown = true;                 ///< false: there is no such group or verb
};

ParsedWords parse(const CLI::App& app, const std::vector<std::string>& words) {
    ParsedWords parsed;
    parsed.at = &app;
    std::string& group = parsed.group;
    const CLI::Option* wanted = nullptr; // the option whose value comes next
    for (const std::string& word : words) {
        if (wanted != nullptr) {
            if (wanted->check_lname("broker")) {
                parsed.broker = word;
            }
            wanted = nullptr;
        } else if (word.starts_with("-")) {
            const auto equals = word.find('=');
            const CLI::Option* option = parsed.at->get_option_no_throw(word.substr(0, equals));
            if (option != nullptr && equals != std::string::npos && option->check_lname("broker")) {
                parsed.broker = word.substr(equals + 1);
            } else if (option != nullptr && equals == std::string::npos && option->get_expected_max() > 0) {
                wanted = option;
            }
        } else if (parsed.command != nullptr) {
            parsed.arguments.push_back(word);
        } else {
            const auto named =
                parsed.at->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
            const auto& verbs = getGroups()[group].commands;
            if (named.empty()) {
                const auto withoutVerb = verbs.find("");
                parsed.isKnown = withoutVerb != verbs.end();
                if (!parsed.isKnown) {
                    return parsed;
                }
                parsed.command = &withoutVerb->second;
                parsed.arguments.push_back(word);
                continue;
            }
            const auto found = verbs.find(word);
            if (found != verbs.end()) {
                parsed.command = &found->second;
            } else {
                group = word;
            }
            parsed.at = named.front();
        }
    }
    parsed.option = wanted;
    return parsed;
}

template <class Complete>
std::vector<std::string> completeSafely(Complete complete) {
    try {
        return complete();
    } catch (const std::exception&) { // nobody answers who would know
        return {};
    }
}

} // namespace

std::vector<std::string> completeCommandLine(const std::vector<std::string>& words,
                                             const std::string& prefix) {
    CLI::App app;
    std::function<ExitCode()> chosen;
    ValueCompleters completers;
    declareAll(app, chosen, completers);
    const ParsedWords parsed = parse(app, words);
    std::vector<std::string> candidates;
    if (!parsed.isKnown) {
        return candidates;
    }
    const auto equals = prefix.find('=');
    const bool isJoined = parsed.option == nullptr && prefix.starts_with("--") && equals != std::string::npos;
    const CLI::Option* const valueOf =
        isJoined ? parsed.at->get_option_no_throw(prefix.substr(0, equals)) : parsed.option;
    if (isJoined || valueOf != nullptr) { // a value that nobody can know is a file, which the shell completes
        const auto completer = completers.find(valueOf);
        if (completer != completers.end()) {
            candidates = completeSafely([&] { return completer->second(parsed.broker); });
        }
        if (isJoined) {
            for (std::string& candidate : candidates) {
                candidate.insert(0, prefix, 0, equals + 1);
            }
        }
    } else if (prefix.starts_with("-")) {
        for (const CLI::Option* option : parsed.at->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                candidates.push_back("--" + name);
            }
        }
    } else if (parsed.command == nullptr) {
        for (const CLI::App* next : parsed.at->get_subcommands([](const CLI::App*) { return true; })) {
            if (!next->get_group().empty()) { // hidden verbs have none
                candidates.push_back(next->get_name());
            }
        }
        const auto& verbs = getGroups()[parsed.group].commands;
        const auto withoutVerb = verbs.find("");
        if (withoutVerb != verbs.end() && withoutVerb->second.complete) {
            for (std::string& each :
                 completeSafely([&] { return withoutVerb->second.complete({}, parsed.broker); })) {
                candidates.push_back(std::move(each));
            }
        }
    } else if (parsed.command->complete) {
        candidates =
            completeSafely([&] { return parsed.command->complete(parsed.arguments, parsed.broker); });
    }
    std::erase_if(candidates, [&](const std::string& candidate) { return !candidate.starts_with(prefix); });
    return candidates;
}

} // namespace KR::tool
