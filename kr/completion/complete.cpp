// kr complete: called by the scripts of kr completion

#include "tool/command.hpp"

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::completionComplete {

namespace {

struct Options {
    std::vector<std::string> words;

    void declare(Arguments& arguments) {
        arguments.add("WORDS", words, "words after kr; the last one may be incomplete, or \"\"");
        arguments.hide();
    }
};

ExitCode complete(const Options& options) {
    std::vector<std::string> words = options.words;
    std::string prefix;
    if (!words.empty()) {
        prefix = words.back();
        words.pop_back();
    }
    for (const std::string& candidate : completeCommandLine(words, prefix)) {
        std::printf("%s\n", candidate.c_str());
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "complete",
    .summary = "List the completions of the last word of a command line",
    .example = "  kr complete -- module li",
    .run = complete,
});

} // namespace
} // namespace KR::tool::completionComplete
