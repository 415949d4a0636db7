#pragma once

#include <krplatform/krbroker.hpp>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// A subscriber of an extractor, with what it asked for.
struct ExtractorSubscriber {
    std::string name;
    int period; ///< milliseconds
    float precision;
};

/// Current state of an extractor.
struct ExtractorState {
    std::string name;
    std::vector<ExtractorSubscriber> subscribers;
    int period = 0; ///< milliseconds, in force
    float precision = 0;
    std::optional<bool> paused;     ///< nullopt: not a vision extractor
    std::optional<bool> processing; ///< nullopt: not a vision extractor
    std::optional<double>
        frameRate;       ///< images fetched per second since the previous poll; nullopt: not known yet
    std::string failure; ///< why it has stopped working; "" while it works
};

/// Polls all extractors of the domain. Thread-bound.
class ExtractorOverview {
public:
    explicit ExtractorOverview(boost::shared_ptr<KRBroker> broker) : broker_(std::move(broker)) {}

    /// The state of every extractor that answers.
    std::vector<ExtractorState> poll();

private:
    struct Fetched {
        std::chrono::steady_clock::time_point when{};
        int frames = 0;
    };
    /// Frames fetched so far, by identifier of the camera subscription, as the camera service counts them.
    std::map<std::string, int> countFrames() const;

    boost::shared_ptr<KRBroker> broker_;
    std::map<std::string, Fetched> before_; // by extractor
};

} // namespace KR::tool
