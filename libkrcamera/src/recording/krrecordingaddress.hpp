#pragma once

#include <string>

namespace KR {

/// Which stream of which recording, and how it is played.
struct KRRecordingAddress {
    std::string path;
    int stream = 0;
    bool pacedByFetch = false; ///< each subscription gets each image, as fast as it fetches
};

/// Parses "PATH[#STREAM][?pace=own|fetch]". The options are recognised at the end only: a path may contain '#' and '?'.
/// Reentrant.
/// \throws std::invalid_argument  no path, or an unknown pace
KRRecordingAddress parseRecordingAddress(const std::string& text);

} // namespace KR
