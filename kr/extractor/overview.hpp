#pragma once

#include <krplatform/krbroker.hpp>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// One who subscribes to an extractor, with what it asked for.
struct ExtractorSubscriber {
    std::string name;
    int period; ///< milliseconds
    float precision;
};

/// What an extractor is doing now.
struct ExtractorState {
    std::string name;
    std::vector<ExtractorSubscriber> subscribers;
    int period = 0; ///< milliseconds, in force
    float precision = 0;
    std::optional<bool> paused;     ///< none: it is no vision extractor
    std::optional<bool> processing; ///< none: it is no vision extractor
    std::optional<double>
        frameRate; ///< images fetched per second since the look before; none: not known (yet)
};

/// Looks at all extractors of the domain again and again. Not thread-safe.
class ExtractorOverview {
public:
    explicit ExtractorOverview(boost::shared_ptr<KRBroker> broker) : broker_(std::move(broker)) {}

    /// Modules that cannot be asked any more are left out.
    std::vector<ExtractorState> look();

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
