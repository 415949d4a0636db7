#include "krlogconsole.hpp"

#include "krplatform/krtext.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <signal.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace KR {

namespace {

bool isColorTerminal() noexcept {
    const char* terminal = std::getenv("TERM");
    return ::isatty(STDERR_FILENO) == 1 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0 &&
           std::getenv("NO_COLOR") == nullptr;
}

/// write(2) that fails with EPIPE, instead of ending the process by SIGPIPE, when the reader has gone.
ssize_t writeWithoutSignal(std::string_view bytes) noexcept {
    sigset_t pipe;
    sigset_t before;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
    const ssize_t count = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    const int error = errno;
    if (count < 0 && error == EPIPE && ::sigismember(&before, SIGPIPE) == 0) {
        const timespec now{};
        ::sigtimedwait(&pipe, nullptr, &now); // takes the signal of this thread
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return count;
}

} // namespace

KRLogConsole::KRLogConsole() : colored_(isColorTerminal()) {}

void KRLogConsole::add(const KRLogRecord& record) {
    Key key{record.level, escapeText(record.category, kMaxLogCategory), escapeText(record.message, kMaxText)};
    const auto known = recent_.find(key);
    if (known != recent_.end()) {
        ++known->second.repetitions;
        return;
    }
    if (recent_.size() == kMaxRecent) {
        forgetOldest();
    }
    addLine(key, record.time, 0);
    Recent recent;
    recent.report = Clock::now() + recent.interval;
    recent_.emplace(std::move(key), recent);
}

void KRLogConsole::addRepetitions(bool all) {
    const auto now = Clock::now();
    for (auto each = recent_.begin(); each != recent_.end();) {
        Recent& recent = each->second;
        if (!all && now < recent.report) {
            ++each;
            continue;
        }
        const bool ceased = recent.repetitions == 0;
        if (!ceased) {
            addLine(each->first, std::chrono::system_clock::now(), std::exchange(recent.repetitions, 0));
            recent.interval = std::min(2 * recent.interval, kLongestInterval);
            recent.report = now + recent.interval;
        }
        each = ceased || all ? recent_.erase(each) : std::next(each);
    }
}

void KRLogConsole::forgetOldest() {
    const auto oldest = std::min_element(recent_.begin(), recent_.end(), [](const auto& a, const auto& b) {
        return a.second.report < b.second.report;
    });
    if (oldest->second.repetitions > 0) {
        addLine(oldest->first, std::chrono::system_clock::now(), oldest->second.repetitions);
    }
    recent_.erase(oldest);
}

std::optional<KRLogConsole::Clock::time_point> KRLogConsole::getNextReport() const {
    std::optional<Clock::time_point> next;
    for (const auto& [key, recent] : recent_) {
        next = next ? std::min(*next, recent.report) : recent.report;
    }
    return next;
}

void KRLogConsole::addLine(const Key& key, std::chrono::system_clock::time_point time,
                           std::uint64_t repetitions) {
    const auto& [level, category, text] = key;
    append(formatLogLine({level, category, text, time, repetitions}, format_, colored_) + "\n");
}

void KRLogConsole::append(const std::string& line) {
    if (pending_.size() - written_ + line.size() > kMaxPending) {
        ++lost_;
        return;
    }
    if (written_ > kMaxPending) {
        pending_.erase(0, written_);
        written_ = 0;
    }
    pending_ += line;
}

void KRLogConsole::dropPending() noexcept {
    pending_.clear();
    written_ = 0;
}

bool KRLogConsole::write() noexcept {
    for (;;) {
        if (!hasPending()) {
            dropPending();
            if (lost_ == 0) {
                return true;
            }
            try {
                addLine({KRLogLevel::Warning, "krplatform.log",
                         std::to_string(std::exchange(lost_, 0)) +
                             " lines lost: standard error did not take them"},
                        std::chrono::system_clock::now(), 0);
            } catch (...) { // no memory for the line
                return true;
            }
        }
        pollfd poll{STDERR_FILENO, POLLOUT, 0};
        const int ready = ::poll(&poll, 1, 0);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0) {
            return false;
        }
        // As many whole lines as a pipe takes in one piece: POLLOUT promises that this does not block.
        std::string_view chunk = std::string_view(pending_).substr(written_, PIPE_BUF);
        const std::size_t lineEnd = chunk.rfind('\n');
        if (lineEnd != std::string_view::npos) {
            chunk = chunk.substr(0, lineEnd + 1);
        }
        const ssize_t count = writeWithoutSignal(chunk);
        if (count >= 0) {
            written_ += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            return false;
        } else if (errno != EINTR) {
            dropPending(); // closed, or its reader is gone
            lost_ = 0;
            return true;
        }
    }
}

} // namespace KR
