#pragma once

#include "serve/host.hpp"
#include "serve/hostedmodule.hpp"
#include "serve/robot.hpp"
#include "serve/supervised.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krsubscription.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KR::tool {

/// Runs a system: the camera service, the memory, modules in this process and in child processes, subscriptions and a
/// recording. Thread-bound.
class RobotHost {
public:
    /// Starts the camera service and the memory, then everything else asynchronously.
    /// \throws KRError the broker, a service or a camera is refused
    explicit RobotHost(Robot robot);

    /// Detects what has ended and starts what is due. Call it a few times a second.
    /// \throws std::runtime_error an initial module that is not to be restarted could not be started
    void poll();
    /// Everything was started, or could not be at the first attempt.
    bool hasTriedAll() const;
    /// All modules can be called, and the recording runs.
    bool isUp() const;
    /// There were modules, and all have failed for good.
    bool isOver() const;
    /// A module has failed for good.
    bool hasFailed() const noexcept { return hasFailed_; }
    /// "2 of 3 modules work", for people.
    std::string describe() const;

    /// Applies the differences to `next`. Logs what cannot be changed.
    void apply(Robot next);

    /// Ends everything: child processes, then modules and services as Host does.
    /// \param code  exit code if a module's constructor is still waiting for something
    void takeDown(ExitCode code);

    const std::string& getUrl() const noexcept { return robot_.broker; }

    const boost::shared_ptr<KRBroker>& getBroker() const noexcept { return broker_; }

private:
    struct RunningModule {
        RobotModule module;
        std::unique_ptr<Supervised> runner;
        HostedModule* hosted; // the same, or null if it has its own process
    };
    struct RunningSubscription {
        RobotSubscription wanted;
        KRSubscription subscription;
    };

    void startCameras();
    void setCameras(const std::vector<RobotCamera>& before);
    void writeMemory();
    void addModule(const RobotModule& module);
    void addSubscription(const RobotSubscription& wanted);
    void addRecording();
    void applyCameras(const std::vector<RobotCamera>& before);
    void applyModules();
    void applySubscriptions();
    void changeParameters(RunningModule& running, const RobotModule& next);
    void retire(std::unique_ptr<Supervised> runner);
    bool isNameFree(const std::string& title) const;

    Robot robot_;
    boost::shared_ptr<KRBroker> broker_;
    Host host_;
    KRModuleHandle<KRVideoDevice> cameras_;
    std::vector<RunningModule> modules_;
    std::vector<RunningSubscription> subscriptions_;
    std::unique_ptr<Supervised> recording_;
    std::vector<std::unique_ptr<Supervised>> retired_;    // they end
    std::vector<std::pair<std::string, Json>> unwritten_; // values for a memory that is not there yet
    std::vector<std::future<void>> changes_;              // of parameters, under way
    bool hasFailed_ = false;
    bool hasChanged_ = false; // by apply()
};

} // namespace KR::tool
