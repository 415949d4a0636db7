// kr record

#include "camera/cameras.hpp"
#include "record/recorder.hpp"
#include "record/recordfile.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/output.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <optional>
#include <thread>

#include <unistd.h>

namespace KR::tool::record {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest_s = 1e7; // some months
constexpr std::uint64_t kMegabyte = 1'000'000;
constexpr std::chrono::seconds kTimeToStop{3}; // for pending calls of services

struct Options {
    Domain domain;
    GeometryOptions geometry;
    std::string path;
    std::vector<std::string> cameras;
    std::vector<std::string> prefixes;
    std::vector<std::string> events;
    bool all = false;
    double seconds = 0;
    std::string compression = "none";
    std::uint64_t queue_MB = 256;
    std::optional<std::uint64_t> splitSize_MB;
    std::optional<std::uint64_t> splitDuration_s;
    std::optional<std::uint64_t> maxFiles;

    void declare(Arguments& arguments) {
        arguments.add("OUT", path, "file that ends in .mcap; an existing one is replaced").required();
        arguments.add("--camera", cameras, "camera number").wholeNumber(0, 127).repeatable();
        arguments.add("--memory", prefixes, "prefix of the keys of values").repeatable();
        arguments.add("--event", events, "name of an event; its extractor is started").repeatable();
        arguments.addFlag("--all", all, "all cameras, values and raised events; starts no extractor");
        geometry.declare(arguments);
        arguments.add("--seconds", seconds, "duration (default: until Ctrl-C)").realNumber(0.01, kLongest_s);
        arguments.add("--compression", compression, "compression: none, lz4 or zstd")
            .oneOf({"none", "lz4", "zstd"})
            .showDefault();
        arguments.add("--queue", queue_MB, "megabytes to queue for the disk")
            .wholeNumber(1, 1'000'000)
            .showDefault();
        arguments.add("--split-size", splitSize_MB, "megabytes after which a new file is started")
            .wholeNumber(1, 1'000'000'000);
        arguments.add("--split-duration", splitDuration_s, "seconds after which a new file is started")
            .wholeNumber(1, 100'000'000);
        arguments.add("--max-files", maxFiles, "number of files to keep; the oldest are removed")
            .wholeNumber(1);
        domain.declare(arguments);
    }
};

/// Writes what is in the queue, on its own thread, until the queue is closed and empty or the file cannot be written.
class Writer {
public:
    Writer(RecordQueue& queue, RecordFile& file) : queue_(queue), file_(file), thread_([this] { run(); }) {}
    ~Writer() {
        queue_.close();
        join();
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// Waits until everything is written. Close the queue before.
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    bool hasFailed() const noexcept { return failed_; }
    std::uint64_t countBytes() const noexcept { return bytes_; }
    /// Once the thread has ended, or hasFailed().
    const std::string& getFailure() const noexcept { return failure_; }

private:
    void run() noexcept {
        constexpr std::chrono::seconds kFlush{1}; // the most that a killed process loses
        setThreadName("kr writer");
        try {
            auto nextFlush = Clock::now() + kFlush;
            while (!queue_.isOver()) {
                if (const std::optional<Recorded> next = queue_.take(nextFlush)) {
                    file_.write(*next);
                }
                if (Clock::now() >= nextFlush) {
                    file_.flush();
                    nextFlush = Clock::now() + kFlush;
                }
                bytes_ = file_.countBytes();
            }
            file_.close();
            bytes_ = file_.countBytes();
        } catch (const std::exception& error) {
            failure_ = error.what();
            failed_ = true;
            file_.abandon();
        }
    }

    RecordQueue& queue_;
    RecordFile& file_;
    std::atomic<std::uint64_t> bytes_ = 0;
    std::string failure_; // written before failed_
    std::atomic<bool> failed_ = false;
    std::thread thread_; // last: it uses the other members
};

/// The line of each second.
class Status {
public:
    explicit Status(const RecordQueue& queue) : queue_(queue) {}

    std::string makeLine(std::uint64_t fileBytes) {
        const RecordQueue::Counts now = queue_.getCounts();
        std::uint64_t values = 0, events = 0, missed = 0;
        const std::chrono::duration<double> elapsed = Clock::now() - start_;
        std::string line = format("%4.0f s", elapsed.count());
        for (const auto& [topic, count] : now) {
            missed += count.missed;
            if (findCameraOfImageTopic(topic)) {
                line +=
                    format("  %s %llu (%llu/s)", topic.c_str(), static_cast<unsigned long long>(count.came),
                           static_cast<unsigned long long>(count.came - before_[topic].came));
            } else {
                (findEventOfTopic(topic) ? events : values) += count.came;
            }
        }
        before_ = now;
        return line + format("  %llu values  %llu events  %.1f MB, %.1f MB wait  %llu missed\n",
                             static_cast<unsigned long long>(values), static_cast<unsigned long long>(events),
                             static_cast<double>(fileBytes) / kMegabyte,
                             static_cast<double>(queue_.countWaitingBytes()) / kMegabyte,
                             static_cast<unsigned long long>(missed));
    }

private:
    const RecordQueue& queue_;
    const Clock::time_point start_ = Clock::now();
    RecordQueue::Counts before_;
};

RecordFileOptions readFileOptions(const Options& options) {
    if (getExtension(options.path) != ".mcap") {
        throw UsageError(options.path + ": the name of a recording ends in .mcap");
    }
    if (options.maxFiles && !options.splitSize_MB && !options.splitDuration_s) {
        throw UsageError("--max-files needs --split-size or --split-duration");
    }
    RecordFileOptions file;
    file.path = options.path;
    file.compression = options.compression == "lz4"    ? KRMcapCompression::Lz4
                       : options.compression == "zstd" ? KRMcapCompression::Zstd
                                                       : KRMcapCompression::None;
    if (options.splitSize_MB) {
        file.splitSize = *options.splitSize_MB * kMegabyte;
    }
    if (options.splitDuration_s) {
        file.splitDuration = std::chrono::seconds(*options.splitDuration_s);
    }
    file.maxFiles = options.maxFiles;
    return file;
}

RecordSelection readSelection(const Options& options) {
    if (!options.all && options.cameras.empty() && options.prefixes.empty() && options.events.empty()) {
        throw UsageError("nothing to record: expected --all, --camera, --memory or --event");
    }
    RecordSelection selection;
    selection.all = options.all;
    for (const std::string& camera : options.cameras) {
        const int number = std::stoi(camera); // wholeNumber() has seen to it
        if (std::ranges::find(selection.cameras, number) == selection.cameras.end()) {
            selection.cameras.push_back(number);
        }
    }
    selection.prefixes = options.prefixes;
    selection.events = options.events;
    selection.resolution = options.geometry.getResolution();
    selection.colorSpace = options.geometry.getColorSpace();
    return selection;
}

// \return whether something is missing
bool reportLosses(const RecordQueue& queue, const Writer& writer) {
    bool isLost = false;
    if (writer.hasFailed()) {
        printError(writer.getFailure() + "; the recording ends here");
        isLost = true;
    }
    for (const auto& [topic, count] : queue.getCounts()) {
        if (count.missed > 0) {
            printError("missed " + std::to_string(count.missed) + " of " +
                       std::to_string(count.missed + count.came) + " messages of " + escapeText(topic));
            isLost = true;
        }
    }
    if (const std::uint64_t interruptions = queue.countInterruptions(); interruptions > 0) {
        printError("a service was away " + std::to_string(interruptions) +
                   (interruptions == 1 ? " time" : " times"));
        isLost = true;
    }
    return isLost;
}

ExitCode record(const Options& options) {
    Interruption interruption;
    const RecordSelection selection = readSelection(options);
    RecordFile file(readFileOptions(options));
    const auto broker = options.domain.connect();
    const auto end = options.seconds > 0 ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                              std::chrono::duration<double>(options.seconds))
                                         : Clock::time_point::max();
    RecordQueue queue(options.queue_MB * kMegabyte);
    Output output;
    Status status(queue);
    Writer writer(queue, file);
    auto recorder = std::make_unique<Recorder>(broker, selection, queue);
    printNotice("recording to " + options.path + "; Ctrl-C ends it");
    auto nextLine = Clock::now() + std::chrono::seconds(1);
    while (!writer.hasFailed() && Clock::now() < end) {
        constexpr std::chrono::milliseconds kStep{50};
        if (interruption.waitFor(kStep)) {
            break;
        }
        if (Clock::now() >= nextLine) {
            output.offer(status.makeLine(writer.countBytes())); // may be lost if nobody reads it
            nextLine += std::chrono::seconds(1);
        }
    }
    recorder->stop();
    auto stopped = std::async(std::launch::async, [&] { recorder.reset(); });
    const bool hangs = stopped.wait_for(kTimeToStop) != std::future_status::ready;
    queue.close();
    writer.join();
    output.offer(status.makeLine(writer.countBytes()));
    const bool isLost = reportLosses(queue, writer);
    const ExitCode written = output.finish(interruption);
    const ExitCode code = isLost ? ExitCode::DataLost : written;
    if (hangs) {
        printError("a service does not answer");
        ::_exit(static_cast<int>(code)); // nothing wakes the threads that wait for it
    }
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "record",
    .summary = "Record cameras, values and events of a running system to an MCAP file",
    .example =
        "  kr record drive.mcap --all\n"
        "  kr record drive.mcap --camera 0 --memory KRMotion/ --event KRMotion/MotionDetected\n"
        "  kr record ring.mcap --all --split-duration 60 --max-files 30\n"
        "Cameras and services that are not there yet are waited for. Exit code 3 if something was missed.",
    .run = record,
});

} // namespace
} // namespace KR::tool::record
