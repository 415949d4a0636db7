#include "serve/hostedmodule.hpp"

#include "serve/modulelibrary.hpp"
#include "system/valuejson.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krtext.hpp>

#include <utility>

namespace KR::tool {

namespace {

template <class T>
bool isReady(const std::future<T>& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

} // namespace

HostedModule::HostedModule(boost::shared_ptr<KRBroker> broker, RobotModule module)
    : Supervised("module " + module.name, module.restart), broker_(std::move(broker)),
      module_(std::move(module)) {}

void HostedModule::setParameters(std::vector<std::pair<std::string, Json>> parameters) {
    module_.parameters = std::move(parameters);
}

void HostedModule::xStart() {
    std::vector<std::pair<std::string, KRValue>> values;
    for (const auto& [name, value] : module_.parameters) {
        values.emplace_back(name, toValue(value));
    }
    ending_ = false;
    handle_ = {};
    broker_->setInitialParameters(module_.name, std::move(values));
    making_ = std::async(std::launch::async, [broker = broker_, library = module_.file, name = module_.name] {
        return createModuleOf(library, broker, name); // its constructor may wait
    });
}

std::optional<std::string> HostedModule::xFindEnd() {
    if (making_.valid()) {
        if (!isReady(making_)) {
            return std::nullopt;
        }
        try {
            handle_ = making_.get();
        } catch (...) {
            return " cannot be made: " + describeCurrentException();
        }
    }
    if (!handle_) {
        return " is not there";
    }
    const std::string failure = handle_->getFailure();
    if (!failure.empty()) {
        return " has failed: " + failure;
    }
    return handle_->isExiting() ? std::optional<std::string>(" has exited by itself") : std::nullopt;
}

void HostedModule::xEnd() {
    ending_ = true;
    if (handle_) {
        comingDown_ = std::async(
            std::launch::async, [module = std::move(handle_)]() mutable { module.reset(); }); // may take long
    }
}

bool HostedModule::xIsGone() {
    if (making_.valid() && isReady(making_)) {
        try {
            handle_ = making_.get();
        } catch (...) { // reported or asked to end
        }
        if (handle_ && ending_) {
            xEnd();
        }
    }
    return !making_.valid() && !handle_ && (!comingDown_.valid() || isReady(comingDown_));
}

KRModuleHandle<KRModule> HostedModule::release(Clock::time_point deadline, bool& isStuck) {
    if (making_.valid() && making_.wait_until(deadline) == std::future_status::ready) {
        try {
            handle_ = making_.get();
        } catch (...) { // there is none then
        }
    }
    isStuck = making_.valid() ||
              (comingDown_.valid() && comingDown_.wait_until(deadline) != std::future_status::ready);
    return std::move(handle_);
}

} // namespace KR::tool
