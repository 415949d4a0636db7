// kr replay

#include "recording/absentfeed.hpp"
#include "replay/keys.hpp"
#include "replay/replayfeed.hpp"
#include "replay/replaysource.hpp"
#include "serve/host.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool::replay {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest_s = 1e7; // some months

struct Options {
    Domain domain;
    std::string path;
    double rate = 1;
    double start = 0;
    double duration = 0;
    bool loop = false;
    std::vector<std::string> only;

    void declare(Arguments& arguments) {
        arguments.add("IN", path, "oxv or mcap file").required();
        arguments.add("--rate", rate, "speed: 2 is twice as fast as recorded")
            .realNumber(0.001, 1000)
            .showDefault();
        arguments.add("--start", start, "seconds of the recording to skip").realNumber(0, kLongest_s);
        arguments.add("--duration", duration, "seconds of the recording to replay (default: all)")
            .realNumber(0.001, kLongest_s);
        arguments.addFlag("--loop", loop, "restart at the end");
        arguments.add("--only", only, "topic to replay, such as /camera/0/image or /memory/KRMotion/Motion")
            .repeatable();
        domain.declare(arguments);
    }
};

/// The current position in the recording. Thread-bound.
class ReplayClock {
public:
    ReplayClock(double rate, std::int64_t start_usec) : rate_(rate), place_usec_(start_usec) {}

    void begin(std::int64_t place_usec) {
        place_usec_ = place_usec;
        since_ = Clock::now();
    }
    bool isPaused() const noexcept { return paused_; }
    void pause(bool paused) {
        begin(getPlace());
        paused_ = paused;
    }
    std::int64_t getPlace() const {
        const std::chrono::duration<double, std::micro> elapsed = Clock::now() - since_;
        return paused_ ? place_usec_ : place_usec_ + static_cast<std::int64_t>(elapsed.count() * rate_);
    }
    Clock::time_point findTime(std::int64_t place_usec) const {
        const std::chrono::duration<double, std::micro> rest(static_cast<double>(place_usec - place_usec_) /
                                                             rate_);
        return since_ + std::chrono::duration_cast<Clock::duration>(rest);
    }

private:
    const double rate_;
    std::int64_t place_usec_; // at since_
    Clock::time_point since_ = Clock::now();
    bool paused_ = false;
};

/// Publishes recorded items at their times. Thread-bound.
class Player {
public:
    Player(ReplaySource& source, std::map<int, std::shared_ptr<ReplayFeed>> feeds, KRMemoryProxy& memory,
           const Options& options, Interruption& interruption)
        : source_(source), feeds_(std::move(feeds)), memory_(memory), options_(options),
          interruption_(interruption), start_usec_(std::llround(options.start * 1e6)),
          end_usec_(options.duration > 0 ? start_usec_ + std::llround(options.duration * 1e6)
                                         : std::numeric_limits<std::int64_t>::max()),
          clock_(options.rate, start_usec_) {}

    /// Plays it once. \return false: interrupted
    bool play() {
        source_.rewind(start_usec_);
        clock_.begin(start_usec_);
        std::uint64_t played = 0;
        for (;;) {
            std::optional<ReplayMessage> message = source_.next();
            if (!message || message->time_usec > end_usec_) {
                break;
            }
            if (!waitUntil(message->time_usec)) {
                return false;
            }
            const bool isImage = message->kind == ReplayMessage::Kind::Image;
            publish(std::move(*message));
            ++played;
            if (isImage) {
                isStepping_ = false;
            }
        }
        if (played == 0) {
            throw std::runtime_error(options_.path + ": there is nothing to replay from second " +
                                     format("%g", options_.start) + " on");
        }
        return true;
    }
    /// Values and events that the memory refused.
    std::uint64_t countLost() const noexcept { return lost_; }
    const std::string& getReason() const noexcept { return reason_; } ///< why, of the first one
    bool canBePaused() const noexcept { return keys_.areThere(); }

private:
    // \return false: interrupted
    bool waitUntil(std::int64_t place_usec) {
        constexpr std::chrono::milliseconds kStep{20};
        for (;;) {
            while (const std::optional<char> key = keys_.read()) {
                handle(*key);
            }
            if (clock_.isPaused()) {
                if (isStepping_) {
                    clock_.begin(place_usec);
                    return !interruption_.hasCome();
                }
                if (interruption_.waitFor(kStep)) {
                    return false;
                }
                continue;
            }
            const Clock::time_point due = clock_.findTime(place_usec);
            const auto rest = std::chrono::floor<std::chrono::milliseconds>(due - Clock::now());
            if (interruption_.waitFor(std::clamp(rest, std::chrono::milliseconds(0), kStep))) {
                return false;
            }
            if (rest <= kStep) {
                sleepUntil(due);
                return true;
            }
        }
    }
    void handle(char key) {
        if (key == ' ') {
            clock_.pause(!clock_.isPaused());
            isStepping_ = false;
        } else if (key == 's') {
            clock_.pause(true);
            isStepping_ = true;
        } else {
            return;
        }
        printError(format("%s at %.3f s",
                          !clock_.isPaused() ? "resumes"
                          : isStepping_      ? "steps"
                                             : "pauses",
                          static_cast<double>(clock_.getPlace()) / 1e6));
    }
    void publish(ReplayMessage message) {
        if (message.kind == ReplayMessage::Kind::Image) {
            feeds_.at(message.camera)->publish(*message.image);
            return;
        }
        try {
            if (message.kind == ReplayMessage::Kind::Event) {
                memory_.raiseEvent(message.name, message.value);
            } else {
                memory_.insertData(message.name, message.value);
            }
        } catch (const KRError& error) {
            if (lost_++ == 0) {
                reason_ = error.getDescription();
            }
        }
    }

    ReplaySource& source_;
    const std::map<int, std::shared_ptr<ReplayFeed>> feeds_;
    KRMemoryProxy& memory_;
    const Options& options_;
    Interruption& interruption_;
    const std::int64_t start_usec_;
    const std::int64_t end_usec_;
    ReplayClock clock_;
    const Keys keys_;
    bool isStepping_ = false; // until the next image
    std::uint64_t lost_ = 0;
    std::string reason_;
};

std::map<int, std::shared_ptr<ReplayFeed>> makeFeeds(const ReplaySource& source, const std::string& path) {
    std::map<int, std::shared_ptr<ReplayFeed>> feeds;
    for (const int camera : source.getCameras()) {
        feeds[camera] = std::make_shared<ReplayFeed>("recording:" + path);
    }
    return feeds;
}

std::vector<std::shared_ptr<KRImageFeed>> listFeeds(const std::map<int, std::shared_ptr<ReplayFeed>>& feeds) {
    std::vector<std::shared_ptr<KRImageFeed>> list;
    for (const auto& [camera, feed] : feeds) {
        while (list.size() < static_cast<std::size_t>(camera)) {
            list.push_back(std::make_shared<AbsentFeed>("the recording does not have this camera"));
        }
        list.push_back(feed);
    }
    return list;
}

ExitCode replay(const Options& options) {
    Interruption interruption;
    const auto source = openReplaySource(options.path, options.only);
    for (const std::string& topic : source->getIgnored()) {
        printError(options.path + ": " + escapeText(topic) + " is not replayed: no image, value or event");
    }
    const auto broker = options.domain.connect();
    Host host;
    const auto feeds = makeFeeds(*source, options.path);
    if (!feeds.empty()) {
        host.addService(createModule<KRVideoDevice>(broker, "KRVideoDevice", listFeeds(feeds)));
    }
    if (!options.domain.saysWhereMemoryIs()) {
        broker->startMemory(); // after the cameras: modules that wait for the memory must find them
    }
    KRMemoryProxy memory(broker);
    Player player(*source, feeds, memory, options, interruption);
    printNotice("replaying " + options.path + " on " + options.domain.getUrl() + "; " +
                (player.canBePaused() ? "space pauses, s steps one image, " : "") + "Ctrl-C ends it");
    while (player.play() && options.loop) {
    }
    host.takeDown();
    bool isLost = false;
    for (const std::string& loss : source->getLosses()) {
        printError(options.path + ": " + loss);
        isLost = true;
    }
    if (player.countLost() > 0) {
        printError(std::to_string(player.countLost()) +
                   " values and events were not taken: " + player.getReason());
        isLost = true;
    }
    return isLost ? ExitCode::DataLost : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "replay",
    .summary = "Play back a recorded system: its cameras, values and events, at their times",
    .example = "  kr replay drive.mcap\n"
               "  kr replay drive.mcap --rate 0.5 --start 60 --duration 10 --loop\n"
               "  kr replay drive.mcap --only /camera/0/image --only /memory/Door\n"
               "Images keep their time stamps. Space pauses on a terminal, s steps to the next image.",
    .run = replay,
});

} // namespace
} // namespace KR::tool::replay
