#include "krlocal/krhostdirectory.hpp"

#include "krhostentry.hpp"
#include "krhostmeeting.hpp"
#include "krlocal/krprocess.hpp"
#include "krlocalframe.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krtext.hpp>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

namespace KR {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kHostCategory = "krlocal";
constexpr int kSuspicious = 2; // checks without a beat
constexpr int kPatience = 10;  // factor for a process that may be waiting for a processor

} // namespace

class KRHostDirectory::Private {
public:
    Private() : interrupt_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (!interrupt_) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }

    void join(const Options& options) {
        std::unique_ptr<KRHostEntryWriter> own;
        try {
            own = std::make_unique<KRHostEntryWriter>(options.broker);
        } catch (const std::system_error& error) {
            throw KRError("KRHostDirectory", "join", std::string("no shared memory: ") + error.what());
        }
        meeting_.emplace(options.name, KRHostGreeting(options.broker, options.publishes),
                         own->getDescriptor());
        const KRLock lock(mutex_);
        own_ = std::move(own);
        publishes_ = options.publishes;
    }

    void publish(KRHostEntry::State state, std::string_view text) {
        if (text.size() > kMaxText) {
            throw KRError("KRHostDirectory", "publish",
                          std::to_string(text.size()) + " bytes, more than " + std::to_string(kMaxText));
        }
        const KRLock lock(mutex_);
        if (own_ && (publishes_ || state == KRHostEntry::Left)) {
            own_->write(state, text);
            for (const auto& [id, other] : others_) {
                meeting_->wake(other.slot);
            }
        }
    }

    bool hasNews(const std::string& broker) const {
        const KRLock lock(mutex_);
        const auto found = others_.find(broker);
        return found == others_.end() ? meeting_ && meeting_->isGreeted()
                                      : found->second.entry->readVersion() != found->second.settled;
    }

    bool isMeeting() const noexcept { return meeting_ && meeting_->isBusy(); }
    bool hasMetAll() const noexcept { return !meeting_ || meeting_->isComplete(); }

    void interrupt() noexcept {
        mayHaveNews_ = true; // not only in wait(), which may be over by now
        const std::uint64_t one = 1;
        (void)!write(interrupt_.get(), &one, sizeof one); // fails only when it is readable anyway
    }

    bool wait(std::chrono::milliseconds time) {
        std::vector<pollfd> sockets{{interrupt_.get(), POLLIN, 0}};
        if (meeting_) {
            time = std::min(time, meeting_->addSockets(sockets));
        }
        const bool isWoken = poll(sockets.data(), sockets.size(), static_cast<int>(time.count())) != 0;
        if (isWoken) {
            std::uint64_t count = 0;
            (void)!read(interrupt_.get(), &count, sizeof count);
        }
        if (meeting_ && (isWoken || !meeting_->isAtRest())) {
            for (KRHostMeeting::Met& met : meeting_->advance(sockets)) {
                add(std::move(met));
            }
        }
        if (isWoken) {
            mayHaveNews_ = true;
        }
        return isWoken;
    }

    std::vector<News> takeNews() {
        std::vector<News> news;
        const KRLock lock(mutex_);
        if (!mayHaveNews_.exchange(false)) {
            return news;
        }
        isSettled_ = false;
        for (auto other = others_.begin(); other != others_.end();) {
            const std::string& id = other->first;
            Other& each = other->second;
            if (each.over) {
                news.push_back({News::Kind::Ended, id, each.process, {}});
            } else if (each.frozen) {
                if (!std::exchange(each.reported, true)) {
                    news.push_back({News::Kind::Frozen, id, each.process, {}});
                }
            } else if (each.entry->readVersion() != each.taken) {
                takeEntry(id, each, news);
            }
            other = each.over ? others_.erase(other) : std::next(other);
        }
        return news;
    }

    void settle() {
        const KRLock lock(mutex_);
        if (std::exchange(isSettled_, true)) {
            return;
        }
        for (auto& [id, other] : others_) {
            other.settled = other.taken;
            if (other.newcomer) {
                KRHostMeeting::confirm(std::exchange(other.newcomer, {}));
            }
        }
    }

    void pause(std::chrono::microseconds time) {
        pollfd interrupted{interrupt_.get(), POLLIN, 0};
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
        const timespec limit{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
        ppoll(&interrupted, 1, &limit, nullptr);
    }

    void beat(std::chrono::milliseconds time) {
        const auto now = Clock::now();
        const KRLock lock(mutex_);
        if (own_) {
            own_->beat();
        }
        for (auto& [id, other] : others_) {
            const std::uint64_t beats = other.entry->readBeats();
            if (beats != other.beats) {
                other.beats = beats;
                other.missed = 0;
                other.since = now;
                if (std::exchange(other.frozen, false)) {
                    other.reported = false;
                    other.taken = other.settled = kNone;
                }
                // Its message may have been lost.
                if (other.entry->readVersion() != other.taken) {
                    mayHaveNews_ = true;
                }
                continue;
            }
            ++other.missed;
            if (other.missed < kSuspicious) {
                continue;
            }
            mayHaveNews_ = true;
            const auto silence = now - other.since;
            const bool isLate = silence >= time;
            other.over = isOver(other.process);
            other.frozen =
                other.frozen || (isLate && (silence >= kPatience * time || isStopped(other.process)));
            other.reported = false;
        }
    }

    bool knows(const std::string& broker) const {
        const KRLock lock(mutex_);
        return others_.contains(broker);
    }

private:
    static constexpr std::uint64_t kNone = 1; // a version that no entry has when it is stable

    struct Other {
        std::unique_ptr<KRHostEntryReader> entry;
        KRDescriptor newcomer; // waits for settle()
        pid_t process = 0;
        int slot = 0;
        std::uint64_t taken = kNone;   // version that takeNews() has returned
        std::uint64_t settled = kNone; // version that has taken effect
        std::uint64_t beats = 0;
        int missed = 0; // checks since it changed
        Clock::time_point since;
        bool frozen = false;
        bool reported = false; // that it is frozen
        bool over = false;     // it has ended or left
    };

    void add(KRHostMeeting::Met met) {
        Other other;
        try {
            other.entry = std::make_unique<KRHostEntryReader>(met.memory);
        } catch (const std::exception& error) {
            logWarning(kHostCategory, "the entry of process " + std::to_string(met.process) +
                                          " is not used: " + error.what());
            return;
        }
        other.newcomer = std::move(met.newcomer);
        other.process = met.process;
        other.slot = met.slot;
        other.beats = other.entry->readBeats();
        other.since = Clock::now();
        if (!met.publishes) {
            other.taken = other.settled = other.entry->readVersion();
        }
        const KRLock lock(mutex_);
        const auto found = others_.find(met.broker);
        if (found != others_.end() && found->second.process != met.process &&
            !isOver(found->second.process)) {
            logWarning(kHostCategory, "the entry of process " + std::to_string(met.process) +
                                          " is not used: its broker " + escapeText(met.broker) +
                                          " is that of process " + std::to_string(found->second.process));
            return;
        }
        others_.insert_or_assign(met.broker, std::move(other));
        mayHaveNews_ = true;
    }

    void takeEntry(const std::string& id, Other& other, std::vector<News>& news) KR_REQUIRES(mutex_) {
        try {
            auto content = other.entry->read();
            if (!content) {
                mayHaveNews_ = true; // next time
                return;
            }
            other.taken = content->version;
            if (content->state == KRHostEntry::Published) {
                news.push_back({News::Kind::Published, id, other.process, std::move(content->text)});
            } else if (content->state == KRHostEntry::Left) {
                other.over = true;
                news.push_back({News::Kind::Left, id, other.process, {}});
            }
        } catch (const std::system_error&) { // out of memory: next time
            mayHaveNews_ = true;
        } catch (const KRLocalMalformed& error) {
            other.over = true;
            logWarning(kHostCategory, "the entry of process " + std::to_string(other.process) +
                                          " is not used any more: " + error.what());
            news.push_back({News::Kind::Ended, id, other.process, {}});
        }
    }

    const KRDescriptor interrupt_;
    std::atomic<bool> mayHaveNews_ = false; // takeNews() has to look
    std::optional<KRHostMeeting> meeting_;  // constant after join()

    mutable KRMutex mutex_;
    std::unique_ptr<KRHostEntryWriter> own_ KR_GUARDED_BY(mutex_); // null before join()
    bool publishes_ KR_GUARDED_BY(mutex_) = false;
    bool isSettled_ KR_GUARDED_BY(mutex_) = true;               // nothing taken since settle()
    std::map<std::string, Other> others_ KR_GUARDED_BY(mutex_); // by identity
};

KRHostDirectory::KRHostDirectory() : private_(std::make_unique<Private>()) {}

KRHostDirectory::~KRHostDirectory() = default;

void KRHostDirectory::join(const Options& options) {
    private_->join(options);
}

void KRHostDirectory::publish(std::string_view text) {
    private_->publish(KRHostEntry::Published, text);
}

void KRHostDirectory::leave() noexcept {
    private_->publish(KRHostEntry::Left, {});
}

bool KRHostDirectory::hasNews(const std::string& broker) const {
    return private_->hasNews(broker);
}

bool KRHostDirectory::isMeeting() const noexcept {
    return private_->isMeeting();
}

bool KRHostDirectory::hasMetAll() const noexcept {
    return private_->hasMetAll();
}

void KRHostDirectory::interrupt() noexcept {
    private_->interrupt();
}

bool KRHostDirectory::wait(std::chrono::milliseconds time) {
    return private_->wait(time);
}

void KRHostDirectory::pause(std::chrono::microseconds time) {
    private_->pause(time);
}

std::vector<KRHostDirectory::News> KRHostDirectory::takeNews() {
    return private_->takeNews();
}

void KRHostDirectory::settle() {
    private_->settle();
}

void KRHostDirectory::beat(std::chrono::milliseconds time) {
    private_->beat(time);
}

bool KRHostDirectory::knows(const std::string& broker) const {
    return private_->knows(broker);
}

} // namespace KR
