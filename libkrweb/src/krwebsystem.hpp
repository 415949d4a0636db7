#pragma once

#include "krwebclient.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmutex.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace KR::web {

/// What clients are viewing; nothing else is queried.
struct Interest {
    bool anybody = false;
    bool cameras = false;
    bool extractors = false;
    bool controls = false;
    std::set<std::string> keys;   ///< in memory
    std::set<std::string> events; ///< names

    friend bool operator==(const Interest&, const Interest&) = default;
};

using Methods = std::shared_ptr<const std::vector<KRMethodDescription>>;

/// Current modules, keys and methods.
struct Directory {
    bool hasCameraService = false;
    std::vector<int> cameras;
    std::vector<std::string> keys; ///< without names of events
    std::vector<std::string> events;
    std::map<std::string, Methods> methods; ///< by module

    friend bool operator==(const Directory&, const Directory&) = default;
};

/// Callbacks for news about the system, on threads of this library; must not throw.
struct SystemEvents {
    std::function<void(Directory)> onDirectory; ///< when it has changed
    std::function<void(Bytes)> onCameras;       ///< message of the channel, once a second
    std::function<void(Bytes)> onExtractors;
    std::function<void(std::map<std::string, int>)>
        onControls; ///< values by parameter name, when they have changed
};

/// Parameter name of a camera's control: "/camera/0/brightness".
std::string getControlName(int camera, const std::string& control);

/// Queries the system once a second for what is being viewed, on its own threads: a module that does not answer only delays
/// its own data. Thread-safe.
class System {
public:
    static constexpr std::chrono::seconds kInterval{1};

    System(boost::shared_ptr<KRBroker> broker, std::string domain, SystemEvents events);
    /// Waits for pending queries.
    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    /// Sets what is being viewed; new items are queried at once.
    void setInterest(const Interest& interest);

private:
    using Ask = void (System::*)();
    void run(const char* name, bool Interest::*wanted, Ask ask) noexcept;
    void askDirectory();
    void askCameras();
    void askExtractors();
    void askControls();
    Methods getMethods(const std::string& module);

    const boost::shared_ptr<KRBroker> broker_;
    const std::string domain_;
    const SystemEvents events_;

    // Of the thread of the directory.
    struct Known {
        std::uint32_t number;
        Methods methods;
    };
    std::map<std::string, Known> known_; // by module
    Directory lastDirectory_;
    bool hasDirectory_ = false;
    std::size_t loggedEvents_ = 0; // too many; see limit()
    std::size_t loggedKeys_ = 0;
    // Of the thread of the controls.
    std::map<std::string, int> lastControls_;
    // Of the thread of the extractors.
    struct Fetched {
        std::chrono::steady_clock::time_point when;
        int images;
    };
    std::map<std::string, Fetched> fetched_; // by subscription

    KRMutex mutex_;
    KRCondition changed_;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    Interest interest_ KR_GUARDED_BY(mutex_);
    std::vector<std::thread> threads_; // last: they use the other members
};

} // namespace KR::web
