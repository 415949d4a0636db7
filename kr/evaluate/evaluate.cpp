// kr evaluate

#include "evaluate/comparison.hpp"
#include "evaluate/evaluation.hpp"
#include "evaluate/resultfile.hpp"
#include "serve/modulelibrary.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"
#include "tool/outputfile.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <limits>
#include <stdexcept>

namespace KR::tool::evaluateRecording {

namespace {

struct Options {
    std::string moduleFile;
    std::string recording;
    std::string name;
    std::string out;
    std::string against;
    double tolerance = 0;
    std::string subscription;
    std::vector<std::string> settings;
    std::vector<std::vector<std::string>> calls;

    void declare(Arguments& arguments) {
        arguments
            .add("MODULE", moduleFile, "library that contains KR_REGISTER_MODULE, or Python file[:class]")
            .required();
        arguments.add("RECORDING", recording, "oxv or mcap file").required();
        arguments.add("--out", out, "file for the results that ends in .jsonl or .mcap");
        arguments.add("--against", against, ".jsonl file with the results to expect");
        arguments
            .add("--tolerance", tolerance, "difference up to which two numbers are the same for --against")
            .realNumber(0, std::numeric_limits<double>::max())
            .showDefault();
        arguments.add("--set", settings, "setting of the module: resolution=1 calls setResolution 1")
            .valueName("NAME=VALUE")
            .repeatable();
        arguments.add("--call", calls, "method of the module to call before it starts, and its arguments")
            .valueName("METHOD ARGS...");
        arguments
            .add("--subscribe", subscription,
                 "period in milliseconds and precision to subscribe with (default: the module's)")
            .valueName("PERIOD,PRECISION");
        arguments.add("--name", name, "name of the module (default: that of its class)");
    }
};

std::pair<int, float> readSubscription(const std::string& text) {
    int period = 0;
    float precision = 0;
    const char* const end = text.data() + text.size();
    const auto [comma, error] = std::from_chars(text.data(), end, period);
    bool isRight = error == std::errc() && comma != end && *comma == ',';
    if (isRight) {
        const auto [rest, failed] = std::from_chars(comma + 1, end, precision);
        isRight = failed == std::errc() && rest == end;
    }
    if (!isRight) {
        throw UsageError("--subscribe " + text + ": expected PERIOD,PRECISION, such as 100,0.5");
    }
    return {period, precision};
}

// "resolution=1" as a call of setResolution.
std::vector<std::string> readSetting(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw UsageError("--set " + text + ": expected NAME=VALUE, such as resolution=1");
    }
    std::string method = "set" + text.substr(0, equals);
    method[3] = static_cast<char>(std::toupper(static_cast<unsigned char>(method[3])));
    return {method, text.substr(equals + 1)};
}

void print(const EvaluationOutcome& outcome) {
    std::printf("images        %llu\n", static_cast<unsigned long long>(outcome.images));
    if (outcome.seconds > 0) {
        std::printf("images/s      %.1f\n", static_cast<double>(outcome.images) / outcome.seconds);
    }
    std::vector<float> times = outcome.processing_ms;
    if (!times.empty()) {
        std::ranges::sort(times);
        const auto quantile = [&](std::size_t percent) { return times[(times.size() - 1) * percent / 100]; };
        std::printf("processing    median %.3f ms, 99 %% within %.3f ms, maximum %.3f ms\n", quantile(50),
                    quantile(99), times.back());
    }
    std::printf("results       %llu values, %llu events\n", static_cast<unsigned long long>(outcome.values),
                static_cast<unsigned long long>(outcome.events));
}

// \return whether there are differences
bool print(const Comparison& comparison, const std::string& path) {
    for (const std::string& line : comparison.getShown()) {
        std::printf("%s\n", line.c_str());
    }
    const auto differences = static_cast<unsigned long long>(comparison.countDifferences());
    if (differences > Comparison::kMostShown) {
        std::printf("and %llu more\n", differences - Comparison::kMostShown);
    }
    if (differences == 0) {
        std::printf("no difference from %s\n", escapeText(path).c_str());
    } else {
        std::printf("%llu values in %llu frames differ from %s\n", differences,
                    static_cast<unsigned long long>(comparison.countFrames()), escapeText(path).c_str());
    }
    return differences > 0;
}

EvaluationSettings readSettings(const Options& options) {
    EvaluationSettings settings;
    for (const std::string& setting : options.settings) {
        settings.calls.push_back(readSetting(setting));
    }
    settings.calls.insert(settings.calls.end(), options.calls.begin(), options.calls.end());
    if (!options.subscription.empty()) {
        settings.subscription = readSubscription(options.subscription);
    }
    return settings;
}

ExitCode evaluateModule(const Options& options) {
    Interruption interruption;
    const EvaluationSettings settings = readSettings(options);
    const std::string extension = getExtension(options.out);
    if (!options.out.empty() && extension != ".jsonl" && extension != ".mcap") {
        throw UsageError("--out " + options.out + ": the extension selects the format: .jsonl or .mcap");
    }
    loadModuleClass(options.moduleFile);
    const auto recording = openRecordedImages(options.recording);
    std::optional<OutputFile> out;
    std::unique_ptr<ResultSink> file;
    std::optional<Comparison> comparison;
    std::vector<ResultSink*> sinks;
    if (!options.against.empty()) {
        comparison.emplace(options.against, options.tolerance);
        sinks.push_back(&*comparison);
    }
    if (!options.out.empty()) {
        out.emplace(options.out, options.recording);
        file = makeResultFile(out->getPath());
        sinks.push_back(file.get());
    }
    EvaluationOutcome outcome;
    {
        Progress progress(recording->getCameras().size() == 1 ? recording->getCameras()[0].images : 0);
        outcome = evaluate(
            *recording,
            [&](const auto& broker) { return createModuleOf(options.moduleFile, broker, options.name); },
            settings, sinks, progress, interruption);
    }
    // Keeps the results so far, even if the module has failed.
    if (file) {
        file->finish();
        out->commit();
    }
    print(outcome);
    ExitCode code = outcome.losses.empty() ? ExitCode::Done : ExitCode::DataLost;
    for (const std::string& loss : outcome.losses) {
        printError(options.recording + ": " + loss);
    }
    if (!outcome.failure.empty()) {
        printError(outcome.failure);
        return ExitCode::Failed;
    }
    if (comparison) {
        comparison->finish();
        code = print(*comparison, options.against) ? ExitCode::Failed : code;
    }
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "evaluate",
    .summary = "Run a module on a recording, as fast as it can, and write or compare its results",
    .example = "  kr evaluate ./krmotion.so corridor.oxv --out corridor.jsonl\n"
               "  kr evaluate ./krmotion.so corridor.oxv --against corridor.jsonl --tolerance 0.001\n"
               "  kr evaluate ./krmotion.so corridor.mcap --set resolution=2 --subscribe 100,0.5\n"
               "The module gets each image of the recording once. Exit code 1 if the module fails or results "
               "differ,\n"
               "3 if parts of the recording cannot be read.",
    .run = evaluateModule,
});

} // namespace
} // namespace KR::tool::evaluateRecording
