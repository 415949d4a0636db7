// kr video doctor

#include "command.hpp"
#include "diagnosis.hpp"
#include "json.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    bool json = false;
};

std::vector<Problem> findProblems(const std::string& file) {
    try {
        KROxvFile recording(file);
        Progress progress(
            recording.hasFrames() ? recording.countCompleteFrames() * recording.getStreams().size() : 0);
        return diagnose(recording, progress);
    } catch (const KRNotOxvError&) {
        return {{0, std::nullopt, std::nullopt, "the file does not begin as an oxv file does"}};
    }
}

void show(const Problem& problem) {
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

ExitCode examine(const Options& options) {
    const std::vector<Problem> problems = findProblems(options.file);
    Json list = Json::array();
    for (const Problem& problem : problems) {
        if (options.json) {
            list.push_back(toJson(problem));
        } else {
            show(problem);
        }
    }
    if (options.json) {
        printJson(list);
    }
    return problems.empty() ? ExitCode::Done : ExitCode::Failed;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("FILE", options->file, "an oxv file")->required();
    app.add_flag("--json", options->json, "Writes an array with an object for each problem");
    return [options] { return examine(*options); };
}

const CommandRegistration
    command({"video", "doctor",
             "Shows everything that is wrong with a recording, a line each; exit code 1 if there "
             "is anything",
             "  kr video doctor corridor.oxv", declare});

} // namespace

} // namespace KR::tool
