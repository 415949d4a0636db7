#include "extractor/overview.hpp"

#include <krplatform/krproxy.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krsubscribername.hpp>

#include <algorithm>

namespace KR::tool {

namespace {

template <class T>
std::optional<T> callIfPublished(const KRProxy& proxy, const std::vector<KRMethodDescription>& methods,
                                 const char* method) {
    const bool isPublished =
        std::any_of(methods.begin(), methods.end(), [&](const KRMethodDescription& description) {
            return description.name == method && description.argumentTypes.empty();
        });
    return isPublished ? std::optional(proxy.call<T>(method)) : std::nullopt;
}

std::optional<ExtractorState> readState(const KRProxy& proxy) {
    const auto methods = proxy.getMethodList();
    const auto subscribers = callIfPublished<KRValue>(proxy, methods, "getSubscribersInfo");
    const auto period = callIfPublished<int>(proxy, methods, "getCurrentPeriod");
    const auto precision = callIfPublished<float>(proxy, methods, "getCurrentPrecision");
    if (!subscribers || !period || !precision) {
        return std::nullopt; // not an extractor
    }
    ExtractorState state;
    state.name = proxy.getModuleName();
    state.period = *period;
    state.precision = *precision;
    state.paused = callIfPublished<bool>(proxy, methods, "isPaused");
    state.processing = callIfPublished<bool>(proxy, methods, "isProcessing");
    try {
        state.failure = proxy.getFailure();
    } catch (const KRError&) { // a process of an older version, which cannot say
    }
    for (std::size_t i = 0; i < subscribers->getSize(); ++i) {
        const KRValue& subscriber = (*subscribers)[i];
        state.subscribers.push_back(
            {subscriber[0].to<std::string>(), subscriber[1].to<int>(), subscriber[2].to<float>()});
    }
    return state;
}

} // namespace

std::map<std::string, int> ExtractorOverview::countFrames() const {
    std::map<std::string, int> frames;
    try {
        for (const auto& subscription : KRVideoDeviceProxy(broker_).getStatistics()) {
            frames[subscription.id] = subscription.delivered;
        }
    } catch (const KRError&) { // no camera service
    }
    return frames;
}

std::vector<ExtractorState> ExtractorOverview::poll() {
    const auto when = std::chrono::steady_clock::now();
    const auto framesById = countFrames();
    std::vector<ExtractorState> states;
    for (const std::string& module : broker_->getModuleList()) {
        try {
            if (auto state = readState(KRProxy(broker_, module))) {
                states.push_back(std::move(*state));
            }
        } catch (const KRError&) { // it has just exited
        }
    }
    std::map<std::string, Fetched> now;
    for (const auto& [id, frames] : framesById) {
        const auto subscriber = std::ranges::find_if(
            states, [&id = id](const ExtractorState& state) { return isSubscriptionOf(id, state.name); });
        if (subscriber != states.end()) {
            Fetched& fetched = now[subscriber->name];
            fetched.when = when;
            fetched.frames += frames;
        }
    }
    for (ExtractorState& state : states) {
        const auto then = before_.find(state.name);
        const auto fetched = now.find(state.name);
        if (then == before_.end() || fetched == now.end() || fetched->second.frames < then->second.frames) {
            continue; // a new subscription counts from 0
        }
        const std::chrono::duration<double> seconds = when - then->second.when;
        state.frameRate = (fetched->second.frames - then->second.frames) / seconds.count();
    }
    before_ = std::move(now);
    return states;
}

} // namespace KR::tool
