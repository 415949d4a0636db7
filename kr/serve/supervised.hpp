#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace KR::tool {

/// Something that kr serve keeps running: if it ends, it is restarted after a delay that grows each time. Each end is
/// logged. Thread-bound.
class Supervised {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds kFirstPause{250};
    static constexpr std::chrono::milliseconds kLongestPause{30'000};
    /// The delay is reset after running this long.
    static constexpr std::chrono::seconds kCalm{60};

    /// \param title  for messages: "module Door"
    /// \param restart  false: it is not restarted when it fails
    Supervised(std::string title, bool restart) : title_(std::move(title)), restart_(restart) {}
    virtual ~Supervised() = default;
    Supervised(const Supervised&) = delete;
    Supervised& operator=(const Supervised&) = delete;

    const std::string& getTitle() const noexcept { return title_; }
    /// Starts it when due, and detects that it is up or has ended.
    void poll();
    bool isUp() const noexcept { return state_ == State::Up; }
    /// Whether its first start has succeeded or failed.
    bool hasTried() const noexcept { return state_ != State::Starting && hasStarted_; }
    /// It has ended and will not be restarted.
    bool hasFailed() const noexcept { return state_ == State::Failed; }
    /// Why the first start failed, if it is not restarted; empty otherwise, and after the first call.
    std::string takeRefusal() { return std::exchange(refusal_, {}); }

    /// Ends it; isGone() is true once it has ended.
    void end();
    bool isGone();

protected:
    virtual void xStart() = 0;
    /// How it has ended, or failed, as the end of a sentence: " has failed: ..."; nullopt while it starts or works.
    virtual std::optional<std::string> xFindEnd() = 0;
    virtual bool xIsUp() = 0;
    /// Asks its remains to end.
    virtual void xEnd() = 0;
    virtual bool xIsGone() = 0;

private:
    enum class State { Pausing, Starting, Up, Clearing, Failed };

    void start();
    void noteEnd(const std::string& how);

    const std::string title_;
    const bool restart_;
    State state_ = State::Pausing;
    bool hasStarted_ = false;
    bool wasUp_ = false;
    std::string refusal_;
    std::chrono::milliseconds pause_{0}; // before the last start
    Clock::time_point started_{};
    Clock::time_point next_{}; // start
};

} // namespace KR::tool
