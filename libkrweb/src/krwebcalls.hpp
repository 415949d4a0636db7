#pragma once

#include "krwebmessages.hpp"
#include "krwebmethods.hpp"
#include "krwebsystem.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krvideodeviceproxy.hpp>

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace KR::web {

/// Calls modules for clients on its own threads. Runs the answer callbacks there; they must not throw. Thread-safe.
class Calls {
public:
    static constexpr std::size_t kMaxCalls = 16;   ///< in progress
    static constexpr std::size_t kMaxWaiting = 64; ///< queued changes of parameters

    explicit Calls(boost::shared_ptr<KRBroker> broker);
    /// Waits for calls in progress; drops queued changes of parameters.
    ~Calls();
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    struct Answer {
        std::string payload; ///< JSON
        std::string failure; ///< "": it worked
    };
    /// \return false: too many calls are in progress
    bool call(const std::string& module, const std::string& method, Methods methods, std::string request,
              std::function<void(Answer)> answer);

    /// Values of controls, and errors.
    struct Parameters {
        std::map<std::string, int> values;
        std::vector<std::string> failures;
    };
    /// Sets controls, in the order of the calls, then reads these and the named ones; all of them if there are neither.
    /// \return false: the queue is full
    bool useParameters(std::vector<std::pair<std::string, Json>> settings, std::vector<std::string> names,
                       std::function<void(Parameters)> answer);

private:
    struct Thread {
        std::thread thread;
        bool hasEnded = false;
    };
    struct Opened {
        std::string id;
        std::chrono::steady_clock::time_point used;
    };
    void run() noexcept;
    Parameters apply(const std::vector<std::pair<std::string, Json>>& settings,
                     const std::vector<std::string>& names);
    void set(const std::string& name, const Json& value);
    void closeUnused(std::chrono::steady_clock::time_point before);

    const boost::shared_ptr<KRBroker> broker_;
    // Of the thread of the parameters.
    KRVideoDeviceProxy cameras_;
    std::map<int, Opened> opened_; // subscriptions: a camera must be open for its controls to be set

    KRMutex mutex_;
    KRCondition changed_;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    std::list<Thread> calls_ KR_GUARDED_BY(mutex_);
    std::deque<std::function<void()>> waiting_ KR_GUARDED_BY(mutex_);
    std::thread thread_; // last: it uses the other members
};

} // namespace KR::web
