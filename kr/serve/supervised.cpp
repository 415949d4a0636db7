#include "serve/supervised.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cstdio>

namespace KR::tool {

namespace {

std::string formatSeconds(std::chrono::milliseconds time) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3g s", static_cast<double>(time.count()) / 1000);
    return text;
}

} // namespace

void Supervised::poll() {
    switch (state_) {
    case State::Pausing:
        if (Clock::now() >= next_) {
            start();
        }
        break;
    case State::Starting:
    case State::Up:
        if (const auto how = xFindEnd()) {
            noteEnd(*how);
        } else if (state_ == State::Starting && xIsUp()) {
            state_ = State::Up;
            if (wasUp_) {
                logInfo("kr.serve", title_ + " works again");
            }
            wasUp_ = true;
        }
        break;
    case State::Clearing:
        if (xIsGone()) {
            state_ = State::Pausing;
        }
        break;
    case State::Failed:
        if (wasUp_ && !xFindEnd()) {
            state_ = State::Up; // some failures pass
        }
        break;
    }
}

void Supervised::start() {
    hasStarted_ = true;
    started_ = Clock::now();
    state_ = State::Starting;
    try {
        xStart();
    } catch (...) {
        noteEnd(" cannot be started: " + describeCurrentException());
    }
}

void Supervised::noteEnd(const std::string& how) {
    if (!restart_) {
        state_ = State::Failed;
        if (wasUp_) {
            logError("kr.serve", title_ + how);
        } else {
            refusal_ = title_ + how;
        }
        return;
    }
    const auto now = Clock::now();
    pause_ =
        pause_.count() == 0 || now - started_ > kCalm ? kFirstPause : std::min(2 * pause_, kLongestPause);
    next_ = now + pause_;
    logError("kr.serve", title_ + how + "; restarting in " + formatSeconds(pause_));
    state_ = State::Clearing;
    xEnd();
}

void Supervised::end() {
    if (hasStarted_) {
        xEnd();
    }
}

bool Supervised::isGone() {
    return !hasStarted_ || xIsGone();
}

} // namespace KR::tool
