#pragma once

#include "tool/json.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <vector>

namespace KR {
class KRBroker;
} // namespace KR

namespace KR::tool {

/// A record of the log of another process.
struct RemoteRecord {
    std::int64_t time_usec = 0; ///< since the Unix epoch, by the clock of that process
    int level = 0;              ///< as KRLogLevel
    std::string process;        ///< "process 4711 (kr) on robot1"
    std::string category;
    std::string message;
    std::string thread;

    Json toJson() const;
    /// A line without its end, escaped.
    std::string toText() const;
};

/// The log of another process, queried through any of its modules. Only one query is pending at a time, so a process that
/// does not answer blocks nothing else. Thread-bound.
class ProcessLog {
public:
    /// \param process  "process 4711 (kr) on robot1" \param module  one of its modules
    /// \param from_usec  start time, since the Unix epoch: older records, which a process also keeps, are skipped
    ProcessLog(boost::shared_ptr<KRBroker> broker, std::string process, std::string module,
               std::int64_t from_usec);

    /// Records received since the last call; requests the next ones.
    std::vector<RemoteRecord> poll();
    /// Switches to another module of the process, as the previous one may be gone.
    void setModule(const std::string& module) { module_ = module; }
    /// Whether a query is pending.
    bool isBusy() const;

    std::uint64_t getLost() const noexcept { return lost_; }
    /// Why the process does not answer; reported once.
    std::string takeProblem() { return std::exchange(problem_, {}); }

private:
    struct Answer {
        std::string now;
        int lost = 0;
        std::vector<RemoteRecord> records;
        std::string problem;
    };

    static Answer ask(const boost::shared_ptr<KRBroker>& broker, const std::string& process,
                      const std::string& module, const std::string& since);

    const boost::shared_ptr<KRBroker> broker_;
    const std::string process_;
    std::string module_;
    std::string since_;
    const std::int64_t from_usec_;
    bool hasProblem_ = false;
    std::string problem_;
    std::uint64_t lost_ = 0;
    std::future<Answer> answer_;
};

} // namespace KR::tool
