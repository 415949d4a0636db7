#include "serve/robothost.hpp"

#include "serve/processcommands.hpp"
#include "serve/supervisedprocess.hpp"
#include "system/client.hpp"
#include "system/domain.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krparameter.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace KR::tool {

namespace {

constexpr const char* kCategory = "kr.serve";
constexpr const char* kMemory = "KRMemory";
// For a module whose constructor runs when everything ends.
constexpr std::chrono::milliseconds kTimeToComeUp{500};
constexpr std::chrono::milliseconds kStep{20};

std::vector<std::string> listSources(const std::vector<RobotCamera>& cameras) {
    std::vector<std::string> sources;
    sources.reserve(cameras.size());
    for (const RobotCamera& camera : cameras) {
        sources.push_back(camera.source);
    }
    return sources;
}

// -1 for "".
int getResolution(const std::string& size) {
    const std::size_t x = size.find('x');
    return size.empty() ? -1 : getResolutionFromSize(std::stoi(size), std::stoi(size.substr(x + 1)));
}

/// Sets parameters of a module in any process. Logs what it refuses.
void setParameters(KRBroker& broker, const std::string& module,
                   const std::vector<std::pair<std::string, Json>>& values,
                   const std::vector<std::string>& dropped) {
    const auto proxy = broker.getProxy(module);
    const auto set = [&](const std::string& name, const KRValue& value) {
        try {
            proxy->call("setParameterValue", name, value);
        } catch (const KRError& error) {
            logError(kCategory, "module " + module + " keeps its " + name + ": " + describe(error));
        }
    };
    for (const auto& [name, value] : values) {
        set(name, toValue(value));
    }
    if (dropped.empty()) {
        return;
    }
    try {
        for (const KRParameterInfo& each : getParameterList(*proxy)) {
            if (std::ranges::find(dropped, each.name) != dropped.end()) {
                set(each.name, each.defaultValue);
            }
        }
    } catch (const KRError& error) {
        logError(kCategory, "module " + module + " does not list its parameters: " + describe(error));
    }
}

} // namespace

RobotHost::RobotHost(Robot robot) : robot_(std::move(robot)), broker_(connectTo(robot_.broker)) {
    if (!robot_.cameras.empty()) {
        startCameras();
    }
    if (!saysWhereMemoryIs(robot_.broker)) {
        broker_->startMemory(); // after the cameras: modules that wait for the memory must find them
    }
    unwritten_ = robot_.memory;
    writeMemory();
    for (const RobotModule& module : robot_.modules) {
        addModule(module);
    }
    for (const RobotSubscription& wanted : robot_.subscriptions) {
        addSubscription(wanted);
    }
    addRecording();
}

void RobotHost::startCameras() {
    cameras_ = createModule<KRVideoDevice>(broker_, "KRVideoDevice", listSources(robot_.cameras));
    setCameras({});
}

void RobotHost::setCameras(const std::vector<RobotCamera>& before) {
    for (std::size_t i = 0; i < robot_.cameras.size(); ++i) {
        const RobotCamera& camera = robot_.cameras[i];
        if (i >= before.size() || before[i] != camera) {
            cameras_->setInitialSettings(static_cast<int>(i), getResolution(camera.size), camera.controls);
        }
    }
}

void RobotHost::writeMemory() {
    if (unwritten_.empty() || !broker_->getSession().waitForService(kMemory, std::chrono::milliseconds(0))) {
        return;
    }
    std::vector<std::pair<std::string, KRValue>> values;
    for (const auto& [key, value] : unwritten_) {
        values.emplace_back(key, toValue(value));
    }
    try {
        KRMemoryProxy(broker_).insertListData(values);
    } catch (const KRError& error) {
        logError(kCategory, "the values of the file are not in the memory: " + tool::describe(error));
    }
    unwritten_.clear();
}

void RobotHost::addModule(const RobotModule& module) {
    RunningModule running{module, nullptr, nullptr};
    if (module.ownProcess) {
        running.runner = std::make_unique<SupervisedProcess>(
            "module " + module.name, module.restart,
            [this, name = module.name] {
                const auto found =
                    std::ranges::find(robot_.modules, name, &RobotModule::name); // its newest parameters
                return makeRunCommand(*found, robot_.broker);
            },
            [this, name = module.name] {
                return broker_->getSession().waitForService(name, std::chrono::milliseconds(0));
            },
            ChildOutput::Shared);
    } else {
        auto hosted = std::make_unique<HostedModule>(broker_, module);
        running.hosted = hosted.get();
        running.runner = std::move(hosted);
    }
    modules_.push_back(std::move(running));
}

void RobotHost::addSubscription(const RobotSubscription& wanted) {
    const std::string client = makeClientName();
    subscriptions_.push_back({wanted, wanted.period
                                          ? KRSubscription(broker_, wanted.module, client, *wanted.period,
                                                           static_cast<float>(wanted.precision))
                                          : KRSubscription(broker_, wanted.module, client)});
}

void RobotHost::addRecording() {
    if (robot_.recording) {
        recording_ = std::make_unique<SupervisedProcess>(
            "the recording", true, [this] { return makeRecordCommand(*robot_.recording, robot_.broker); },
            [] { return true; }, ChildOutput::None); // a line per second
    }
}

bool RobotHost::isNameFree(const std::string& title) const {
    return std::ranges::none_of(retired_, [&](const auto& each) { return each->getTitle() == title; });
}

void RobotHost::poll() {
    writeMemory();
    std::erase_if(retired_, [](const auto& each) { return each->isGone(); });
    std::erase_if(changes_, [](const auto& each) {
        return each.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    for (const RunningModule& each : modules_) {
        if (isNameFree(each.runner->getTitle())) {
            each.runner->poll();
        }
        hasFailed_ = hasFailed_ || each.runner->hasFailed();
        if (const std::string refusal = each.runner->takeRefusal(); !refusal.empty()) {
            if (!hasChanged_) {
                throw std::runtime_error(refusal);
            }
            logError(kCategory, refusal);
        }
    }
    if (recording_ && isNameFree(recording_->getTitle())) {
        recording_->poll();
    }
}

bool RobotHost::hasTriedAll() const {
    return std::ranges::all_of(modules_, [](const RunningModule& each) { return each.runner->hasTried(); });
}

bool RobotHost::isUp() const {
    return std::ranges::all_of(modules_, [](const RunningModule& each) { return each.runner->isUp(); }) &&
           (!recording_ || recording_->isUp());
}

bool RobotHost::isOver() const {
    return !modules_.empty() &&
           std::ranges::all_of(modules_, [](const RunningModule& each) { return each.runner->hasFailed(); });
}

std::string RobotHost::describe() const {
    const auto working =
        std::ranges::count_if(modules_, [](const RunningModule& each) { return each.runner->isUp(); });
    return std::to_string(working) + " of " + std::to_string(modules_.size()) + " modules work";
}

void RobotHost::apply(Robot next) {
    if (next.broker != robot_.broker) {
        logError(kCategory,
                 "the address of the broker stays " + robot_.broker + ": another one needs a restart");
        next.broker = robot_.broker;
    }
    hasChanged_ = true;
    const Robot before = std::exchange(robot_, std::move(next));
    applyCameras(before.cameras);
    applyModules();
    applySubscriptions();
    for (const auto& entry : robot_.memory) {
        if (std::ranges::find(before.memory, entry) == before.memory.end()) {
            unwritten_.push_back(entry);
        }
    }
    writeMemory();
    if (before.recording != robot_.recording) {
        retire(std::move(recording_));
        addRecording();
    }
}

void RobotHost::applyCameras(const std::vector<RobotCamera>& before) {
    if (before == robot_.cameras) {
        return;
    }
    try {
        if (before.size() != robot_.cameras.size()) {
            logInfo(kCategory, "restarting the camera service, as the number of cameras has changed");
            cameras_.reset();
            if (!robot_.cameras.empty()) {
                startCameras();
            }
            return;
        }
        for (std::size_t i = 0; i < before.size(); ++i) {
            if (before[i].source != robot_.cameras[i].source) {
                cameras_->setSource(static_cast<int>(i), robot_.cameras[i].source);
            }
        }
        setCameras(before);
    } catch (const KRError& error) {
        logError(kCategory, "the cameras of the file cannot be used: " + tool::describe(error));
    }
}

void RobotHost::applyModules() {
    std::vector<RunningModule> kept;
    for (RunningModule& running : modules_) {
        const auto next = std::ranges::find(robot_.modules, running.module.name, &RobotModule::name);
        const bool isKept = next != robot_.modules.end() && next->file == running.module.file &&
                            next->ownProcess == running.module.ownProcess &&
                            next->restart == running.module.restart;
        if (!isKept) {
            retire(std::move(running.runner));
            continue;
        }
        if (next->parameters != running.module.parameters) {
            changeParameters(running, *next);
        }
        running.module = *next;
        kept.push_back(std::move(running));
    }
    modules_ = std::move(kept);
    for (const RobotModule& module : robot_.modules) {
        const auto has = [&](const RunningModule& each) { return each.module.name == module.name; };
        if (std::ranges::none_of(modules_, has)) {
            addModule(module);
        }
    }
}

void RobotHost::changeParameters(RunningModule& running, const RobotModule& next) {
    const auto& before = running.module.parameters;
    std::vector<std::pair<std::string, Json>> changed;
    std::vector<std::string> dropped;
    for (const auto& each : next.parameters) {
        if (std::ranges::find(before, each) == before.end()) {
            changed.push_back(each);
        }
    }
    for (const auto& [name, value] : before) {
        if (std::ranges::find(next.parameters, name, &std::pair<std::string, Json>::first) ==
            next.parameters.end()) {
            dropped.push_back(name);
        }
    }
    if (running.hosted != nullptr) {
        running.hosted->setParameters(next.parameters);
    }
    if (running.runner->isUp()) { // or else it gets them when it starts
        changes_.push_back(
            std::async(std::launch::async, [broker = broker_, name = next.name, changed, dropped] {
                setParameters(*broker, name, changed, dropped); // a setter may take long
            }));
    }
}

void RobotHost::applySubscriptions() {
    std::erase_if(subscriptions_, [&](const RunningSubscription& each) {
        return std::ranges::find(robot_.subscriptions, each.wanted) == robot_.subscriptions.end();
    });
    for (const RobotSubscription& wanted : robot_.subscriptions) {
        if (std::ranges::find(subscriptions_, wanted, &RunningSubscription::wanted) == subscriptions_.end()) {
            addSubscription(wanted);
        }
    }
}

void RobotHost::retire(std::unique_ptr<Supervised> runner) {
    if (runner) {
        runner->end();
        retired_.push_back(std::move(runner));
    }
}

void RobotHost::takeDown(ExitCode code) {
    const auto comeUp = Supervised::Clock::now() + kTimeToComeUp;
    std::string stuck;
    for (RunningModule& each : modules_) {
        if (each.hosted == nullptr) {
            retire(std::move(each.runner));
            continue;
        }
        bool isStuck = false;
        auto handle = each.hosted->release(comeUp, isStuck);
        if (handle) {
            host_.addModule(std::move(handle));
        }
        stuck += isStuck ? (stuck.empty() ? "" : ", ") + each.module.name : "";
    }
    retire(std::move(recording_));
    const auto deadline = Supervised::Clock::now() + SupervisedProcess::kTimeToEnd + kTimeToComeUp;
    while (std::erase_if(retired_, [](const auto& each) { return each->isGone(); }), !retired_.empty()) {
        if (Supervised::Clock::now() > deadline) {
            printError(retired_.front()->getTitle() + " did not shut down in time");
            ::_exit(static_cast<int>(ExitCode::Failed));
        }
        std::this_thread::sleep_for(kStep);
    }
    for (RunningSubscription& each : subscriptions_) {
        host_.addSubscription(std::move(each.subscription));
    }
    if (cameras_) {
        host_.addService(std::move(cameras_));
    }
    host_.takeDown();
    if (!stuck.empty()) {
        printError(stuck + " was still waiting for what it needs");
        flushLog(std::chrono::seconds(1));
        ::_exit(static_cast<int>(code)); // nothing wakes it
    }
    modules_.clear();
}

} // namespace KR::tool
