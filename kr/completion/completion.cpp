// kr completion

#include "command.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

// Where kr has nothing to offer, the shell completes file names.
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

const CommandRegistration registration({
    .group = "",
    .name = "completion",
    .summary = "Prints a script that makes a shell complete kr, names of modules and methods included",
    .example = "  source <(kr completion bash)                              in ~/.bashrc\n"
               "  source <(kr completion zsh)                               in ~/.zshrc, after compinit\n"
               "  kr completion fish > ~/.config/fish/completions/kr.fish",
    .declare =
        [](CLI::App& verb) {
            auto shell = std::make_shared<std::string>();
            verb.add_option("SHELL", *shell, "bash, zsh or fish")
                ->required()
                ->check(CLI::IsMember({"bash", "zsh", "fish"}));
            return [shell] {
                std::fputs(*shell == "bash" ? kBash : *shell == "zsh" ? kZsh : kFish, stdout);
                return ExitCode::Done;
            };
        },
    .complete = [](const std::vector<std::string>& words, const std::string&) -> std::vector<std::string> {
        if (!words.empty()) {
            return {};
        }
        return {"bash", "zsh", "fish"};
    },
});

} // namespace
} // namespace KR::tool
