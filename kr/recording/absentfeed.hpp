#pragma once

#include <krcamera/krimagefeed.hpp>

#include <stdexcept>
#include <string>
#include <utility>

namespace KR::tool {

/// The place of a camera that a recording does not have.
class AbsentFeed : public KRImageFeed {
public:
    /// \param why  why nobody can subscribe to it
    explicit AbsentFeed(std::string why) : why_(std::move(why)) {}
    std::string getText() const override { return "not recorded"; }
    void open() override { throw std::runtime_error(why_); }
    Image waitForImage(std::uint64_t /*after*/, std::chrono::steady_clock::time_point /*deadline*/) override {
        return {};
    }

private:
    const std::string why_;
};

} // namespace KR::tool
