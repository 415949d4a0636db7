// kr video doctor

#include "tool/command.hpp"
#include "tool/json.hpp"
#include "video/diagnosis.hpp"
#include "video/mcap.hpp"
#include "video/mcaprepair.hpp"

#include <krplatform/krtext.hpp>

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

std::vector<Problem> findProblems(const std::string& file) {
    try {
        KROxvFile recording(file);
        Progress progress(
            recording.hasFrames() ? recording.countCompleteFrames() * recording.getStreams().size() : 0);
        return diagnose(recording, progress);
    } catch (const KRNotOxvError&) {
        return {{0, std::nullopt, std::nullopt, "the file does not begin as an oxv or mcap file does"}};
    }
}

void print(const Problem& problem) {
    std::printf("byte %llu", static_cast<unsigned long long>(problem.offset));
    if (problem.frame) {
        std::printf(", frame %llu", static_cast<unsigned long long>(*problem.frame));
    }
    if (problem.stream) {
        std::printf(", stream %zu", *problem.stream);
    }
    std::printf(": %s\n", problem.text.c_str());
}

Json toJson(const Problem& problem) {
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
    const std::vector<Problem> problems = findProblems(options.file);
    Json list = Json::array();
    for (const Problem& problem : problems) {
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
