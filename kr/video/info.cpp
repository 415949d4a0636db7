// kr video info

#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/progress.hpp"
#include "tool/timestamp.hpp"
#include "video/mcap.hpp"
#include "video/mcapinfo.hpp"
#include "video/timeline.hpp"

#include <krvision/krcolorspacenames.hpp>
#include <krvision/kroxvfile.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace KR::tool::videoInfo {

namespace {

struct Options {
    std::string file;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv or mcap file").required();
        arguments.addFlag("--json", json, "output as a JSON object with all gaps and jumps");
    }
};

struct StreamInfo {
    KROxvStream stream;
    Timeline timeline;
};

using Unsigned = unsigned long long;

double toMilliseconds(std::int64_t time_usec) {
    return static_cast<double>(time_usec) / 1000.0;
}

// Size of the file if no frame were missing.
std::uint64_t countExpectedBytes(const KROxvFile& recording) {
    return recording.getOffset(recording.countExpectedFrames());
}

std::vector<std::int64_t> readTimeStamps(const KROxvFile& recording, std::size_t stream, Progress& progress) {
    std::vector<std::int64_t> timeStamps;
    const std::uint64_t frames = recording.countCompleteFrames();
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        timeStamps.push_back(recording.readChunkHeader(frame, stream).timeStamp);
        progress.advance();
    }
    return timeStamps;
}

// A bad recording may have many; --json has them all.
constexpr std::size_t kMostPrinted = 10;

template <class Event, class Print>
void printSome(const char* what, const std::vector<Event>& events, Print printOne) {
    std::printf("    %-16s%zu\n", what, events.size());
    for (std::size_t i = 0; i < std::min(events.size(), kMostPrinted); ++i) {
        printOne(events[i]);
    }
    if (events.size() > kMostPrinted) {
        std::printf("      and %zu more\n", events.size() - kMostPrinted);
    }
}

void print(std::size_t number, const StreamInfo& info) {
    const KROxvStream& stream = info.stream;
    const Timeline& time = info.timeline;
    std::printf("  stream %zu\n", number);
    std::printf("    size            %ux%u pixels\n", stream.width, stream.height);
    std::printf("    colour space    %s, depth %u\n", describeColorSpace(stream.colorSpace).c_str(),
                stream.depth);
    if (time.frames == 0) {
        return;
    }
    std::printf("    begins          %s\n", formatTimeStamp(time.first).c_str());
    std::printf("    ends            %s\n", formatTimeStamp(time.last).c_str());
    std::printf("    duration        %.3f s\n", static_cast<double>(time.getDuration()) / 1e6);
    if (time.getRate() > 0) {
        std::printf("    rate            %.2f frames/s, usual interval %.1f ms\n", time.getRate(),
                    toMilliseconds(time.usualInterval));
    }
    printSome("gaps", time.gaps, [](const Timeline::Gap& gap) {
        std::printf("      before frame %llu: %.1f ms, %llu frames missing\n",
                    static_cast<Unsigned>(gap.frame), toMilliseconds(gap.length),
                    static_cast<Unsigned>(gap.missingFrames));
    });
    printSome("backward jumps", time.jumps, [](const Timeline::Jump& jump) {
        std::printf("      at frame %llu: by %.1f ms\n", static_cast<Unsigned>(jump.frame),
                    toMilliseconds(jump.length));
    });
}

void print(const KROxvFile& recording, const std::vector<StreamInfo>& streams) {
    const std::uint64_t expected = countExpectedBytes(recording);
    std::printf("%s\n", recording.getPath().c_str());
    std::printf("  format            oxv, version %d\n", recording.getVersion());
    std::printf("  frames            %llu", static_cast<Unsigned>(recording.countCompleteFrames()));
    if (!recording.isClosed()) {
        std::printf("; the recording was never closed\n");
    } else if (recording.getAnnouncedCount() != recording.countCompleteFrames()) {
        std::printf("; the header says %u\n", recording.getAnnouncedCount());
    } else {
        std::printf("\n");
    }
    std::printf("  on disk           %llu bytes, ", static_cast<Unsigned>(recording.getFileSize()));
    if (expected == recording.getFileSize()) {
        std::printf("as expected\n");
    } else {
        std::printf("expected %llu\n", static_cast<Unsigned>(expected));
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        print(i, streams[i]);
    }
}

Json toJson(const StreamInfo& info) {
    Json gaps = Json::array(), jumps = Json::array();
    for (const Timeline::Gap& gap : info.timeline.gaps) {
        gaps.push_back(
            {{"frame", gap.frame}, {"length_usec", gap.length}, {"missing_frames", gap.missingFrames}});
    }
    for (const Timeline::Jump& jump : info.timeline.jumps) {
        jumps.push_back({{"frame", jump.frame}, {"length_usec", jump.length}});
    }
    return {{"width", info.stream.width},
            {"height", info.stream.height},
            {"color_space", info.stream.colorSpace},
            {"depth", info.stream.depth},
            {"chunk_bytes", info.stream.chunkSize},
            {"first_time_usec", info.timeline.first},
            {"last_time_usec", info.timeline.last},
            {"duration_usec", info.timeline.getDuration()},
            {"frames_per_second", info.timeline.getRate()},
            {"usual_interval_usec", info.timeline.usualInterval},
            {"gaps", gaps},
            {"backward_jumps", jumps}};
}

Json toJson(const KROxvFile& recording, const std::vector<StreamInfo>& streams) {
    Json list = Json::array();
    for (const StreamInfo& stream : streams) {
        list.push_back(toJson(stream));
    }
    Json json = {{"file", recording.getPath()},
                 {"format", "oxv"},
                 {"version", recording.getVersion()},
                 {"frames", recording.countCompleteFrames()},
                 {"closed", recording.isClosed()},
                 {"announced_frames", nullptr},
                 {"file_bytes", recording.getFileSize()},
                 {"expected_bytes", countExpectedBytes(recording)},
                 {"streams", list}};
    if (recording.isClosed()) {
        json["announced_frames"] = recording.getAnnouncedCount();
    }
    return json;
}

ExitCode inspect(const Options& options) {
    if (isMcap(options.file)) {
        printMcapInfo(options.file, options.json);
        return ExitCode::Done;
    }
    KROxvFile recording(options.file);
    recording.requireFrames();
    std::vector<StreamInfo> streams;
    {
        Progress progress(recording.countCompleteFrames() * recording.getStreams().size());
        for (std::size_t i = 0; i < recording.getStreams().size(); ++i) {
            streams.push_back(
                {recording.getStreams()[i], makeTimeline(readTimeStamps(recording, i, progress))});
        }
    }
    if (options.json) {
        printJson(toJson(recording, streams));
    } else {
        print(recording, streams);
    }
    return ExitCode::Done;
}

const GroupRegistration group("video", "Convert, inspect, play and repair recordings");

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "info",
    .summary = "Show the streams of a recording, its length and its gaps",
    .example = "  kr video info corridor.oxv",
    .run = inspect,
});

} // namespace
} // namespace KR::tool::videoInfo
