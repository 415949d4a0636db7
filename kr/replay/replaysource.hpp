#pragma once

#include <krplatform/krvalue.hpp>
#include <krvision/krimage.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// One recorded item.
struct ReplayMessage {
    enum class Kind { Image, Value, Event };
    Kind kind = Kind::Value;
    std::int64_t time_usec = 0;        ///< since the beginning of the recording
    int camera = 0;                    ///< of an image
    std::string name = {};             ///< of the key or event
    std::optional<KRImage> image = {}; ///< with pixels that nobody else has
    KRValue value = {};
};

/// A recording as it happened: all topics in the order of time. Memory is taken for one message at a time, and for the chunks of
/// an MCAP file that overlap in time.
class ReplaySource {
public:
    virtual ~ReplaySource() = default;
    ReplaySource() = default;
    ReplaySource(const ReplaySource&) = delete;
    ReplaySource& operator=(const ReplaySource&) = delete;

    /// Numbers of the cameras that are replayed, in order.
    const std::vector<int>& getCameras() const noexcept { return cameras_; }
    /// Topics that cannot be replayed, in order.
    const std::vector<std::string>& getIgnored() const noexcept { return ignored_; }

    /// Starts, or restarts. \param start_usec  time of the first message, since the beginning of the recording
    /// \throws std::runtime_error the file cannot be read, as all operations
    virtual void rewind(std::int64_t start_usec) = 0;
    /// \return nullopt: there are no more
    virtual std::optional<ReplayMessage> next() = 0;
    /// Losses found so far, one sentence each.
    virtual std::vector<std::string> getLosses() const = 0;

protected:
    std::vector<int> cameras_;
    std::vector<std::string> ignored_;
};

/// \param only  the topics to replay; empty: all of them. An oxv file has a topic /camera/N/image per stream
/// \throws std::runtime_error with the path: it cannot be read, is not a recording, does not have such a topic, or has nothing to
/// replay
std::unique_ptr<ReplaySource> openReplaySource(const std::string& path, const std::vector<std::string>& only);

} // namespace KR::tool
