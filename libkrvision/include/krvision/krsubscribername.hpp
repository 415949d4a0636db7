#pragma once

#include <string>
#include <string_view>

/// How vision extractors appear among the subscribers of the camera service. The functions are reentrant.
namespace KR {

/// The name under which a vision extractor subscribes.
/// \param module  its name
inline std::string getSubscriberName(std::string_view module) {
    return "VisionExtractor" + std::string(module);
}

/// Whether a subscription is that of a vision extractor.
/// \param id      of the subscription: the service appends an underscore and a number to the subscriber's name
/// \param module  name of the vision extractor
inline bool isSubscriptionOf(std::string_view id, std::string_view module) {
    const std::string prefix = getSubscriberName(module) + "_";
    return id.size() > prefix.size() && id.starts_with(prefix) &&
           id.find_first_not_of("0123456789", prefix.size()) == std::string_view::npos;
}

} // namespace KR
