// kr video recover

#include "command.hpp"
#include "json.hpp"
#include "outputfile.hpp"
#include "recovery.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace KR::tool {

namespace {

struct Options {
    std::string in;
    std::string out;
    bool json = false;
};

ExitCode recover(const Options& options) {
    OutputFile out(options.out, options.in);
    KROxvFile recording(options.in);
    const Recovery recovery = tool::recover(recording, out.getPath());
    out.commit();
    if (options.json) {
        printJson({{"file", options.out}, {"kept_frames", recovery.kept}, {"lost_frames", recovery.lost}});
    } else {
        std::printf("kept %llu frames, lost %llu\n%s opens, and each of its frames reads as it does in %s\n",
                    static_cast<unsigned long long>(recovery.kept),
                    static_cast<unsigned long long>(recovery.lost), options.out.c_str(), options.in.c_str());
    }
    if (recording.countAddressableFrames() < recording.countCompleteFrames()) {
        complain("frames beyond 4 GiB are not in " + options.out + "; to get them: kr video convert --from " +
                 std::to_string(recovery.kept) + " " + options.in + " REST.oxv");
    }
    return recovery.lost > 0 ? ExitCode::DataLost : ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("IN", options->in, "an oxv file; it stays as it is")->required();
    app.add_option("OUT", options->out, "what to call the recovered one; replaced if it is there")
        ->required();
    app.add_flag("--json", options->json, "Writes an object");
    return [options] { return recover(*options); };
}

const CommandRegistration command({"video", "recover",
                                   "Makes a recording that was not closed, was cut or has a wrong count into "
                                   "one that opens, with every complete "
                                   "frame; exit code 3 if others were lost",
                                   "  kr video recover crashed.oxv recovered.oxv", declare});

} // namespace

} // namespace KR::tool
