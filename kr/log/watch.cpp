// kr log watch

#include "log/processlog.hpp"
#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"
#include "tool/watchoptions.hpp"

#include <krplatform/krdiagnostics.hpp>
#include <krplatform/krlogformat.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace KR::tool::logWatch {

namespace {

constexpr std::chrono::milliseconds kInterval{200};   // between two questions to a process
constexpr std::chrono::milliseconds kTimeToStop{500}; // for pending queries

struct Options {
    Domain domain;
    std::vector<std::string> modules;
    std::string level = "verbose";
    bool kept = false;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        arguments.add("--module", modules, "module whose process to watch; may be repeated (default: all)")
            .valueName("NAME")
            .completes([](const std::string& broker) { return completeModule({}, broker); })
            .repeatable();
        arguments.add("--level", level, "least severe level to print: error, warning, info or verbose")
            .oneOf({kLogLevelNames.begin(), kLogLevelNames.end()})
            .showDefault();
        arguments.addFlag("--kept", kept, "also earlier records, of which each process keeps 256 KiB");
        watch.declare(arguments, "records", "a JSON object per record, a line each");
        domain.declare(arguments);
    }

    bool isWatched(const KRPeerDiagnostics& peer) const {
        const auto isNamed = [this](const std::string& module) {
            return std::ranges::find(modules, module) != modules.end();
        };
        return peer.state == KRPeerDiagnostics::State::Connected && !peer.modules.empty() &&
               (modules.empty() || std::ranges::any_of(peer.modules, isNamed));
    }
    int getLevel() const {
        return static_cast<int>(std::ranges::find(kLogLevelNames, level) - kLogLevelNames.begin());
    }
};

class Watch {
public:
    explicit Watch(const Options& options)
        : options_(options), level_(options.getLevel()), broker_(options.domain.connect()) {}

    /// Waits for the modules that are named. \throws std::runtime_error one is not there
    void waitForModules() {
        for (const std::string& module : options_.modules) {
            waitForModule(*broker_, module);
        }
    }

    /// Prints new records. \return whether that is enough
    bool poll(Interruption& interruption) {
        findProcesses();
        std::vector<RemoteRecord> records;
        for (auto& [process, log] : logs_) {
            for (RemoteRecord& each : log.poll()) {
                if (each.level <= level_) {
                    records.push_back(std::move(each));
                }
            }
            if (const std::string problem = log.takeProblem(); !problem.empty()) {
                printError(problem);
            }
        }
        std::ranges::stable_sort(records, {}, &RemoteRecord::time_usec);
        for (const RemoteRecord& each : records) {
            if (options_.watch.isEnough(printed_)) {
                break;
            }
            output_.print((options_.watch.json ? formatJson(each.toJson()) : each.toText()) + "\n",
                          interruption);
            ++printed_;
        }
        return options_.watch.isEnough(printed_) || output_.isBroken();
    }

    ExitCode finish(Interruption& interruption) {
        ExitCode code = output_.finish(interruption);
        std::uint64_t lost = lost_;
        for (const auto& [process, log] : logs_) {
            lost += log.getLost();
        }
        if (lost > 0 && code == ExitCode::Done) {
            printError("lost " + std::to_string(lost) +
                       " records: they were logged faster than they were fetched");
            code = ExitCode::DataLost;
        }
        waitForAnswers(code);
        return code;
    }

private:
    // A process that is gone leaves the list once its last query has failed.
    void findProcesses() {
        std::map<std::string, std::string> modules; // one of each process
        for (const KRPeerDiagnostics& peer : broker_->getDiagnostics().peers) {
            if (options_.isWatched(peer)) {
                const std::string location =
                    peer.location.starts_with("in ") ? peer.location.substr(3) : peer.location;
                modules.emplace(location, peer.modules.front());
            }
        }
        std::erase_if(logs_, [&](const auto& each) {
            const bool isGone = !modules.contains(each.first) && !each.second.isBusy();
            lost_ += isGone ? each.second.getLost() : 0;
            return isGone;
        });
        for (const auto& [process, module] : modules) {
            const auto known = logs_.find(process);
            if (known != logs_.end()) {
                known->second.setModule(module);
            } else {
                logs_.try_emplace(process, broker_, process, module, options_.kept ? 0 : start_usec_);
            }
        }
    }

    void waitForAnswers(ExitCode code) {
        const auto deadline = Clock::now() + kTimeToStop;
        while (std::ranges::any_of(logs_, [](const auto& each) { return each.second.isBusy(); })) {
            if (Clock::now() > deadline) { // a process is frozen
                std::fflush(stdout);
                ::_exit(static_cast<int>(code));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    using Clock = std::chrono::steady_clock;

    const Options& options_;
    const int level_;
    const boost::shared_ptr<KRBroker> broker_;
    std::map<std::string, ProcessLog> logs_;
    Output output_{16 << 20};
    int printed_ = 0;
    std::uint64_t lost_ = 0; // by processes that are gone
    const std::int64_t start_usec_ = getTimeStamp();
};

ExitCode watchLogs(const Options& options) {
    Interruption interruption;
    Watch watch(options);
    watch.waitForModules();
    printNotice("watching; Ctrl-C ends it");
    const auto end = options.watch.getEnd();
    while (!watch.poll(interruption) && WatchOptions::Clock::now() < end &&
           !interruption.waitFor(kInterval)) {
    }
    return watch.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "log",
    .name = "watch",
    .summary = "Print the log of all processes that have modules",
    .example = "  kr log watch\n"
               "  kr log watch --module KRMotion --level warning --kept\n"
               "Shows what the processes print themselves; to see more, use kr log verbose krdds.\n"
               "Exit code 3 if records were lost because they came too fast.",
    .run = watchLogs,
});

} // namespace
} // namespace KR::tool::logWatch
