// kr completion

#include "tool/command.hpp"

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::completion {

namespace {

// Without candidates, the shell completes file names. Bash splits words at '=' and ':', and replaces only the last part;
// the script puts them together again, and removes the other parts from the candidates.
constexpr const char* kBash = R"sh(_kr() {
    local line word rest=$COMP_LINE current=${COMP_WORDS[COMP_CWORD]} before
    local -a words=()
    for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        if (( ${#words[@]} == 0 )) || [[ $rest == [[:blank:]]* ]]; then
            words+=("$word")
        else
            words[-1]+=$word
        fi
        rest=${rest#"${rest%%[![:blank:]]*}"}
        rest=${rest#"$word"}
    done
    [[ $current == [=:]* ]] && current=
    before=${words[-1]%"$current"}
    before=${before//[\'\"]/}
    words=("${words[@]//[\'\"]/}")
    COMPREPLY=()
    while IFS= read -r line; do
        COMPREPLY+=("$(printf '%q' "${line#"$before"}")")
    done < <("${words[0]}" complete -- "${words[@]:1}" 2>/dev/null)
}
complete -o default -F _kr kr
)sh";

constexpr const char* kZsh = R"sh(#compdef kr
_kr() {
    local -a candidates
    candidates=("${(@f)$("${words[1]}" complete -- "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
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
} // namespace KR::tool::completion
