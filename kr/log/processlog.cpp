#include "log/processlog.hpp"

#include "tool/errortext.hpp"
#include "tool/timestamp.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

namespace KR::tool {

namespace {

// Of a number that another process has sent.
const char* getLevelName(int level) {
    return getLogLevelName(static_cast<KRLogLevel>(
        std::clamp(level, static_cast<int>(KRLogLevel::Error), static_cast<int>(KRLogLevel::Verbose))));
}

} // namespace

Json RemoteRecord::toJson() const {
    return {{"time_usec", time_usec}, {"process", process}, {"level", getLevelName(level)},
            {"category", category},   {"thread", thread},   {"message", message}};
}

std::string RemoteRecord::toText() const {
    return formatTimeStamp(time_usec) + "  " + process + "  " + getLevelName(level) + " " +
           escapeText(category) + ": " + escapeText(message);
}

ProcessLog::ProcessLog(boost::shared_ptr<KRBroker> broker, std::string process, std::string module,
                       std::int64_t from_usec)
    : broker_(std::move(broker)), process_(std::move(process)), module_(std::move(module)),
      from_usec_(from_usec) {}

ProcessLog::Answer ProcessLog::ask(const boost::shared_ptr<KRBroker>& broker, const std::string& process,
                                   const std::string& module, const std::string& since) {
    Answer answer;
    try {
        const auto parts = broker->getProxy(module)->call<std::vector<KRValue>>("getLogRecords", since);
        answer.now = parts.at(0).to<std::string>();
        answer.lost = parts.at(1).to<int>();
        for (const KRValue& value : parts.at(2).to<std::vector<KRValue>>()) {
            const auto each = value.to<std::vector<KRValue>>();
            answer.records.push_back({each.at(4).to<int>() * std::int64_t{1'000'000} + each.at(5).to<int>(),
                                      each.at(0).to<int>(), process, each.at(1).to<std::string>(),
                                      each.at(2).to<std::string>(), each.at(3).to<std::string>()});
        }
    } catch (const KRError& error) {
        answer.problem = describe(error);
    } catch (const std::exception& error) { // an array that is too short
        answer.problem = module + ".getLogRecords answers with something else: " + error.what();
    }
    return answer;
}

bool ProcessLog::isBusy() const {
    return answer_.valid() && answer_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

std::vector<RemoteRecord> ProcessLog::poll() {
    if (isBusy()) {
        return {};
    }
    std::vector<RemoteRecord> records;
    if (answer_.valid()) {
        Answer answer = answer_.get();
        if (!answer.problem.empty()) {
            problem_ = std::exchange(hasProblem_, true)
                           ? ""
                           : process_ + " does not show its log: " + answer.problem;
        } else {
            hasProblem_ = false;
            lost_ += static_cast<std::uint64_t>(std::max(answer.lost, 0));
            records = std::move(answer.records);
            if (since_.empty()) {
                std::erase_if(records, [this](const auto& each) { return each.time_usec < from_usec_; });
            }
            since_ = std::move(answer.now);
        }
    }
    answer_ = std::async(std::launch::async, &ProcessLog::ask, broker_, process_, module_, since_);
    return records;
}

} // namespace KR::tool
