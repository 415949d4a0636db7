// kr video doctor

#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/progress.hpp"
#include "video/mcap.hpp"
#include "video/mcaprepair.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/kroxvrepair.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace KR::tool::videoDoctor {

namespace {

struct Options {
    std::string file;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv or mcap file").required();
        arguments.addFlag("--json", json, "output as a JSON array with an object per problem");
    }
};

std::vector<KROxvProblem> diagnose(const std::string& file) {
    try {
        const KROxvFile recording(file);
        Progress progress(
            recording.hasFrames() ? recording.countCompleteFrames() * recording.getStreams().size() : 0);
        std::vector<KROxvProblem> problems = findProblems(recording, [&] { progress.advance(); });
        const std::uint64_t addressable = recording.countAddressableFrames();
        const std::uint64_t unreachable = recording.countCompleteFrames() - addressable;
        if (unreachable > 0) {
            problems.push_back({recording.getOffset(addressable), addressable, 0,
                                std::to_string(unreachable) + (unreachable == 1 ? " frame" : " frames") +
                                    " from here on lie beyond 4 GiB, where readers do not find them; "
                                    "kr video convert does"});
            std::ranges::stable_sort(problems, {}, &KROxvProblem::offset);
        }
        return problems;
    } catch (const KRNotOxvError&) {
        return {{0, std::nullopt, std::nullopt, "the file does not begin as an oxv or mcap file does"}};
    }
}

void print(const KROxvProblem& problem) {
    std::printf("byte %llu", static_cast<unsigned long long>(problem.offset));
    if (problem.frame) {
        std::printf(", frame %llu", static_cast<unsigned long long>(*problem.frame));
    }
    if (problem.stream) {
        std::printf(", stream %zu", *problem.stream);
    }
    std::printf(": %s\n", problem.text.c_str());
}

Json toJson(const KROxvProblem& problem) {
    Json json = {
        {"byte", problem.offset}, {"frame", nullptr}, {"stream", nullptr}, {"problem", problem.text}};
    if (problem.frame) {
        json["frame"] = *problem.frame;
    }
    if (problem.stream) {
        json["stream"] = *problem.stream;
    }
    return json;
}

ExitCode examineMcap(const Options& options) {
    std::vector<std::string> problems;
    {
        Progress progress(0);
        problems = diagnoseMcap(options.file, progress);
    }
    Json list = Json::array();
    for (const std::string& problem : problems) {
        if (options.json) {
            list.push_back(
                {{"byte", nullptr}, {"frame", nullptr}, {"stream", nullptr}, {"problem", problem}});
        } else {
            std::printf("%s\n", escapeText(problem).c_str());
        }
    }
    if (options.json) {
        printJson(list);
    }
    return problems.empty() ? ExitCode::Done : ExitCode::Failed;
}

ExitCode examine(const Options& options) {
    if (isMcap(options.file)) {
        return examineMcap(options);
    }
    const std::vector<KROxvProblem> problems = diagnose(options.file);
    Json list = Json::array();
    for (const KROxvProblem& problem : problems) {
        if (options.json) {
            list.push_back(toJson(problem));
        } else {
            print(problem);
        }
    }
    if (options.json) {
        printJson(list);
    }
    return problems.empty() ? ExitCode::Done : ExitCode::Failed;
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "doctor",
    .summary = "List all problems of a recording, one per line",
    .example = "  kr video doctor corridor.oxv\n"
               "Exit code 1 if there is a problem.",
    .run = examine,
});

} // namespace
} // namespace KR::tool::videoDoctor
