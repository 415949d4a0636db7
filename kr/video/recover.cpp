// kr video recover

#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/outputfile.hpp"
#include "video/mcap.hpp"
#include "video/mcaprepair.hpp"
#include "video/recovery.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>
#include <memory>

namespace KR::tool::videoRecover {

namespace {

struct Options {
    std::string in;
    std::string out;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("IN", in, "oxv or mcap file; it is not changed").required();
        arguments.add("OUT", out, "recovered file; an existing one is replaced").required();
        arguments.addFlag("--json", json, "output as a JSON object");
    }
};

ExitCode recoverMcapFile(const Options& options, OutputFile& out) {
    McapRecovery recovery;
    {
        Progress progress(0);
        recovery = recoverMcap(options.in, out.getPath(), options.out, progress);
    }
    out.commit();
    if (options.json) {
        printJson({{"file", options.out},
                   {"kept_messages", recovery.messages},
                   {"kept_attachments", recovery.attachments},
                   {"losses", recovery.losses}});
    } else {
        std::printf("kept %llu messages and %llu attachments\n",
                    static_cast<unsigned long long>(recovery.messages),
                    static_cast<unsigned long long>(recovery.attachments));
    }
    for (const std::string& loss : recovery.losses) {
        printError(options.in + ": " + escapeText(loss));
    }
    return recovery.losses.empty() ? ExitCode::Done : ExitCode::DataLost;
}

ExitCode recoverFile(const Options& options) {
    OutputFile out(options.out, options.in);
    if (isMcap(options.in)) {
        return recoverMcapFile(options, out);
    }
    KROxvFile recording(options.in);
    const Recovery recovery = tool::recover(recording, out.getPath());
    out.commit();
    if (options.json) {
        printJson({{"file", options.out}, {"kept_frames", recovery.kept}, {"lost_frames", recovery.lost}});
    } else {
        std::printf("kept %llu frames, lost %llu\n%s opens, and its frames are those of %s\n",
                    static_cast<unsigned long long>(recovery.kept),
                    static_cast<unsigned long long>(recovery.lost), options.out.c_str(), options.in.c_str());
    }
    if (recording.countAddressableFrames() < recording.countCompleteFrames()) {
        printError("frames beyond 4 GiB are not in " + options.out +
                   "; to save them: kr video convert --from " + std::to_string(recovery.kept) + " " +
                   options.in + " REST.oxv");
    }
    return recovery.lost > 0 ? ExitCode::DataLost : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "recover",
    .summary = "Recover the intact part of a recording that was cut or not closed",
    .example = "  kr video recover crashed.oxv recovered.oxv\n"
               "  kr video recover crashed.mcap recovered.mcap\n"
               "Also corrects a wrong count. Exit code 3 if frames were lost.",
    .run = recoverFile,
});

} // namespace
} // namespace KR::tool::videoRecover
