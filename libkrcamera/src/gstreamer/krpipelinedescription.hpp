#pragma once

#include <functional>
#include <string>

namespace KR {

/// The elements of a pipeline and how to run it.
struct KRPipelineDescription {
    /// What happens when the source has delivered its last image.
    enum class AtEnd {
        Fail,
        Restart, ///< it is built again
        Rewind,  ///< it seeks to its beginning; it is built again if it cannot
    };

    /// In the syntax of gst-launch, without a sink. Picture controls need elements named "gain", "balance" and "flip".
    std::string elements;
    /// A property of the element named "source" and its value: a path or URI in `elements` would be parsed for quotes
    /// and backslashes. Empty if there is none.
    std::string sourceProperty;
    std::string sourceValue;
    AtEnd atEnd = AtEnd::Fail;
    bool isUserDefined = false; ///< links may be made later or never
    bool hasOneStream = false;  ///< do not wait for more streams in a multipart message
    /// Finds out why the source is unreachable, if GStreamer does not report it; empty if unknown. May block for
    /// some seconds.
    std::function<std::string()> explain = [] { return std::string(); };
    /// Removes secrets from GStreamer's messages.
    std::function<std::string(std::string)> hideSecrets = [](std::string text) { return text; };
};

} // namespace KR
