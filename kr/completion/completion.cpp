// kr completion

#include "tool/command.hpp"

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

// Without candidates, the shell completes file names.
constexpr const char* kBash = R"sh(_kr() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        COMPREPLY+=("$(printf '%q' "$line")")
    done < <("${COMP_WORDS[0]}" complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _kr kr
)sh";

constexpr const char* kZsh = R"sh(#compdef kr
_kr() {
    local -a candidates
    candidates=("${(@f)$("${words[1]}" complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    candidates=("${(@)candidates:#}")
    if (( ${#candidates} )); then
        compadd -a candidates
    else
        _files
    fi
}
compdef _kr kr
)sh";

constexpr const char* kFish = R"sh(function __kr_complete
    set -l words (commandline -opc) (commandline -ct)
    $words[1] complete -- $words[2..-1] 2>/dev/null
end
complete -c kr -a '(__kr_complete)'
)sh";

struct Options {
    std::string shell;

    void declare(Arguments& arguments) {
        arguments.add("SHELL", shell, "bash, zsh or fish").required().oneOf({"bash", "zsh", "fish"});
    }
};

ExitCode printScript(const Options& options) {
    std::fputs(options.shell == "bash" ? kBash : options.shell == "zsh" ? kZsh : kFish, stdout);
    return ExitCode::Done;
}

std::vector<std::string> completeShell(const std::vector<std::string>& words, const std::string&) {
    return words.empty() ? std::vector<std::string>{"bash", "zsh", "fish"} : std::vector<std::string>{};
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "completion",
    .summary = "Print a script that makes a shell complete kr, names of modules and methods included",
    .example = "  source <(kr completion bash)                              in ~/.bashrc\n"
               "  source <(kr completion zsh)                               in ~/.zshrc, after compinit\n"
               "  kr completion fish > ~/.config/fish/completions/kr.fish",
    .run = printScript,
    .complete = completeShell,
});

} // namespace
} // namespace KR::tool
