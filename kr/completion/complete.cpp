// kr complete: what the completion scripts of kr completion ask

#include "command.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

const CommandRegistration registration({
    .group = "",
    .name = "complete",
    .summary = "Lists what the last of some words of a command line may become",
    .example = "  kr complete -- module li",
    .declare =
        [](CLI::App& verb) {
            auto words = std::make_shared<std::vector<std::string>>();
            verb.add_option("WORDS", *words,
                            "The command line behind kr; the last word may be incomplete, or \"\"");
            verb.group(""); // not for people
            return [words] {
                std::string prefix;
                if (!words->empty()) {
                    prefix = words->back();
                    words->pop_back();
                }
                for (const std::string& candidate : completeCommandLine(*words, prefix)) {
                    std::printf("%s\n", candidate.c_str());
                }
                return ExitCode::Done;
            };
        },
});

} // namespace
} // namespace KR::tool
