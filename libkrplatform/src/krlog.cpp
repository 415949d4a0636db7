#include "krplatform/krlog.hpp"

#include "krplatform/krlogformat.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krtext.hpp"
#include "krplatform/krthread.hpp"

#include "krlogconsole.hpp"
#include "krloghistory.hpp"
#include "krloglevels.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <exception>
#include <new>
#include <optional>
#include <pthread.h>
#include <thread>
#include <utility>
#include <vector>

namespace KR {

struct KRLogListener::Entry {
    std::function<void(const KRLogRecord&)> listener;
    std::uint64_t firstRecord = 0; // number of the first record that it receives
};

namespace {

using Entry = KRLogListener::Entry;
using Entries = std::vector<std::shared_ptr<Entry>>;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxQueuedBytes = 4 << 20;
constexpr std::size_t kMaxMessage = 64 << 10;
constexpr std::chrono::seconds kExitPatience{1};        // for a blocked standard error
constexpr std::chrono::milliseconds kRetryInterval{50}; // between attempts to write to it
constexpr std::chrono::seconds kLossInterval{1};        // between reports of lost records

/// A record on its way to the log thread.
struct Item {
    KRLogRecord record;
    std::uint64_t number;
    bool printed;
    Entries deaf; // the listeners that logged or caused it, which do not receive it

    std::size_t getSize() const {
        return sizeof(Item) + record.category.size() + record.message.size() + record.thread.size();
    }
};

/// The queue of records and the thread that empties it. Never destroyed: threads log until the process is gone.
class Log {
public:
    /// The log of this process; made by the first call.
    static Log& get();

    /// Whether a record of this level may be printed or delivered, depending on its category.
    bool isWanted(KRLogLevel level) const noexcept {
        return level <= mostVerbose_.load(std::memory_order_relaxed) ||
               hasListeners_.load(std::memory_order_acquire);
    }
    void setDefaultLevel(KRLogLevel level) noexcept KR_EXCLUDES(mutex_);
    void setLevels(std::string_view text) KR_EXCLUDES(mutex_);
    std::string getLevels() const KR_EXCLUDES(mutex_);
    void setFormat(KRLogFormat format) noexcept { format_ = format; }
    KRLogFormat getFormat() const noexcept { return format_; }
    KRLogExcerpt getRecords(const std::string& since) const { return history_.read(since); }

    void submit(KRLogRecord record) noexcept KR_EXCLUDES(mutex_);
    void countLost() noexcept KR_EXCLUDES(mutex_);
    bool flush(Clock::time_point deadline) noexcept KR_EXCLUDES(mutex_);

    void add(const std::shared_ptr<Entry>& entry) KR_EXCLUDES(mutex_);
    void remove(const std::shared_ptr<Entry>& entry) KR_EXCLUDES(mutex_);

private:
    Log() = default;

    void readEnvironment() KR_EXCLUDES(mutex_);
    void queue(KRLogRecord record) KR_REQUIRES(mutex_);
    /// \throws std::system_error no thread
    void startThread() KR_REQUIRES(mutex_);
    void run() noexcept KR_EXCLUDES(mutex_);
    void waitForWork(KRLock& lock) KR_REQUIRES(mutex_) KR_NO_THREAD_SAFETY_ANALYSIS; // unlocks it to write
    void reportLosses() KR_REQUIRES(mutex_);
    void deliver(const Item& item, const Entries& listeners) noexcept KR_EXCLUDES(mutex_);
    /// Handles the rest of the queue when the log thread cannot any more.
    void printRest() noexcept KR_EXCLUDES(mutex_);

    /// In the child of a fork, whose parent's log is locked by the forking thread.
    void copyLevels(const Log& parents) KR_NO_THREAD_SAFETY_ANALYSIS {
        levels_ = parents.levels_;
        format_ = parents.format_.load();
        mostVerbose_ = parents.mostVerbose_.load();
    }
    static void prepareFork() noexcept KR_NO_THREAD_SAFETY_ANALYSIS;
    static void continueParent() noexcept KR_NO_THREAD_SAFETY_ANALYSIS;
    static void continueChild() noexcept;
    static void atExit() noexcept;
    [[noreturn]] static void atTerminate() noexcept;

    static std::atomic<Log*> instance;
    static std::terminate_handler terminateBefore;
    static thread_local const Item* delivered; // by the calling thread, which is then the log thread
    static thread_local bool onLogThread;

    std::atomic<KRLogLevel> mostVerbose_ = KRLogLevel::Info; // of levels_
    std::atomic<bool> hasListeners_ = false;
    std::atomic<KRLogFormat> format_ = KRLogFormat::Text;
    KRLogHistory history_;

    mutable KRMutex mutex_;
    KRLogLevels levels_ KR_GUARDED_BY(mutex_); // what is printed
    KRCondition wake_;                         // there is work for the log thread
    KRCondition changed_;                      // the log thread has handled a record
    std::deque<Item> queue_ KR_GUARDED_BY(mutex_);
    std::size_t queuedBytes_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t submitted_ KR_GUARDED_BY(mutex_) = 0; // records so far
    std::uint64_t heard_ KR_GUARDED_BY(mutex_) = 0;     // of these, delivered to all listeners
    std::uint64_t written_ KR_GUARDED_BY(mutex_) = 0;   // of these, written to standard error
    std::uint64_t lost_ KR_GUARDED_BY(mutex_) = 0; // records that found the queue full, since the last report
    Clock::time_point nextLossReport_ KR_GUARDED_BY(mutex_);
    Entries listeners_ KR_GUARDED_BY(mutex_);
    std::shared_ptr<Entry> calling_ KR_GUARDED_BY(mutex_);                // whose function runs
    std::optional<Clock::time_point> exitDeadline_ KR_GUARDED_BY(mutex_); // set once the process exits
    bool running_ KR_GUARDED_BY(mutex_) = false;                          // there is a log thread
    bool waiting_ KR_GUARDED_BY(mutex_) = false;                          // it has nothing to do

    KRLogConsole console_; // for the log thread alone
};

std::atomic<Log*> Log::instance = nullptr;
std::terminate_handler Log::terminateBefore = nullptr;
thread_local const Item* Log::delivered = nullptr;
thread_local bool Log::onLogThread = false;

Log& Log::get() {
    static const bool made = [] {
        instance = new Log;
        ::pthread_atfork(prepareFork, continueParent, continueChild);
        std::atexit(atExit);
        terminateBefore = std::set_terminate(atTerminate);
        instance.load()->readEnvironment();
        return true;
    }();
    (void)made;
    return *instance.load(std::memory_order_acquire);
}

void Log::submit(KRLogRecord record) noexcept {
    std::optional<Clock::time_point> exitDeadline;
    try {
        const KRLock lock(mutex_);
        exitDeadline = exitDeadline_;
        try {
            queue(std::move(record));
        } catch (...) { // no memory
            ++lost_;
        }
        if (!running_) {
            startThread();
        }
        if (waiting_) {
            wake_.notifyOne();
        }
    } catch (...) { // no thread; the next record tries again
    }
    if (exitDeadline) { // the process may be gone before the log thread gets to it
        flush(*exitDeadline);
    }
}

void Log::readEnvironment() {
    const auto read = [this](const char* variable, const auto& set) {
        const char* const value = std::getenv(variable);
        try {
            if (value != nullptr) {
                set(value);
            }
        } catch (const std::exception& error) {
            submit({KRLogLevel::Warning, "krplatform.log",
                    std::string(variable) + " has no effect: " + error.what(), KRSourceLocation::current(),
                    getThreadName(), std::chrono::system_clock::now()});
        }
    };
    read("KR_LOG_FORMAT", [this](const char* value) { setFormat(parseLogFormat(value)); });
    read("KR_LOG", [this](const char* value) { setLevels(value); });
}

void Log::setDefaultLevel(KRLogLevel level) noexcept {
    const KRLock lock(mutex_);
    levels_.setDefault(level);
    mostVerbose_ = levels_.getMostVerbose();
}

void Log::setLevels(std::string_view text) {
    const KRLock lock(mutex_);
    levels_.set(text);
    mostVerbose_ = levels_.getMostVerbose();
}

std::string Log::getLevels() const {
    const KRLock lock(mutex_);
    return levels_.toText();
}

void Log::queue(KRLogRecord record) {
    const bool printed = record.level <= levels_.get(record.category);
    if (!printed && listeners_.empty()) {
        return;
    }
    Item item{std::move(record), submitted_ + 1, printed, {}};
    if (delivered != nullptr) {
        item.deaf = delivered->deaf;
        item.deaf.push_back(calling_);
    }
    const std::size_t size = item.getSize();
    if (queuedBytes_ + size > kMaxQueuedBytes) {
        ++lost_;
        return;
    }
    queue_.push_back(std::move(item));
    queuedBytes_ += size;
    ++submitted_;
}

void Log::startThread() {
    std::thread([this] { run(); }).detach();
    running_ = true;
}

void Log::run() noexcept {
    onLogThread = true;
    setThreadName("KRLog");
    KRLock lock(mutex_);
    for (;;) {
        waitForWork(lock);
        if (queue_.empty()) {
            continue;
        }
        const Item item = std::move(queue_.front());
        queue_.pop_front();
        queuedBytes_ -= item.getSize();
        const Entries listeners = listeners_;
        lock.unlock();
        deliver(item, listeners);
        lock.lock();
        heard_ = item.number;
        reportLosses();
        changed_.notifyAll();
    }
}

void Log::waitForWork(KRLock& lock) {
    while (queue_.empty()) {
        const std::uint64_t heard = heard_;
        const bool exiting = exitDeadline_.has_value();
        lock.unlock();
        console_.addRepetitions(exiting);
        const bool complete = console_.write();
        const auto nextReport = console_.getNextReport();
        lock.lock();
        if (complete && exiting == exitDeadline_.has_value()) {
            written_ = heard;
            changed_.notifyAll();
        }
        if (!queue_.empty()) {
            return;
        }
        waiting_ = true;
        if (!complete) {
            wake_.waitUntil(lock, Clock::now() + kRetryInterval);
        } else if (nextReport) {
            wake_.waitUntil(lock, *nextReport);
        } else {
            wake_.wait(lock);
        }
        waiting_ = false;
    }
}

void Log::reportLosses() {
    const auto now = Clock::now();
    if (lost_ == 0 || (!queue_.empty() && now < nextLossReport_)) {
        return;
    }
    nextLossReport_ = now + kLossInterval;
    const std::uint64_t lost = std::exchange(lost_, 0);
    try {
        queue({KRLogLevel::Warning, "krplatform.log",
               std::to_string(lost) + " records lost: they came faster than they could be handled",
               KRSourceLocation::current(), getThreadName(), std::chrono::system_clock::now()});
    } catch (...) { // no memory for it: the next time
        lost_ += lost;
    }
}

void Log::deliver(const Item& item, const Entries& listeners) noexcept {
    try {
        if (item.printed) {
            console_.setFormat(format_);
            console_.add(item.record);
            history_.add(item.record);
        }
    } catch (...) { // no memory for the line
    }
    for (const auto& entry : listeners) {
        if (entry->firstRecord > item.number || std::count(item.deaf.begin(), item.deaf.end(), entry) > 0) {
            continue;
        }
        {
            const KRLock lock(mutex_);
            if (std::count(listeners_.begin(), listeners_.end(), entry) == 0) {
                continue; // removed in the meantime
            }
            calling_ = entry;
        }
        delivered = &item;
        try {
            entry->listener(item.record);
        } catch (...) { // no caller to catch it
        }
        delivered = nullptr;
        const KRLock lock(mutex_);
        calling_ = nullptr;
        changed_.notifyAll();
    }
}

void Log::countLost() noexcept {
    const KRLock lock(mutex_);
    ++lost_;
}

bool Log::flush(Clock::time_point deadline) noexcept {
    if (onLogThread) {
        return false; // it cannot wait for itself
    }
    KRLock lock(mutex_);
    const std::uint64_t last = submitted_;
    if (waiting_) {
        wake_.notifyOne();
    }
    return changed_.waitUntil(lock, deadline, [&] {
        mutex_.assertHeld();
        return heard_ >= last && written_ >= last;
    });
}

void Log::add(const std::shared_ptr<Entry>& entry) {
    const KRLock lock(mutex_);
    entry->firstRecord = submitted_ + 1;
    listeners_.push_back(entry);
    hasListeners_.store(true, std::memory_order_release);
}

void Log::remove(const std::shared_ptr<Entry>& entry) {
    KRLock lock(mutex_);
    std::erase(listeners_, entry);
    hasListeners_.store(!listeners_.empty(), std::memory_order_release);
    if (onLogThread) {
        return; // called from within a listener, possibly this one
    }
    changed_.wait(lock, [&] {
        mutex_.assertHeld();
        return calling_ != entry;
    });
}

void Log::printRest() noexcept {
    try {
        const KRLock lock(mutex_);
        for (const Item& item : queue_) {
            if (item.printed) {
                console_.add(item.record);
            }
        }
        console_.addRepetitions(true);
    } catch (...) {
    }
    console_.write();
}

void Log::prepareFork() noexcept {
    instance.load()->mutex_.lock();
}

void Log::continueParent() noexcept {
    instance.load()->mutex_.unlock();
}

void Log::continueChild() noexcept {
    // The log thread is the parent's. What waits is for the parent to write, and its listeners hear for the parent.
    static Log* parents = nullptr; // stays as it is, locked; reachable, so that it is no leak
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): a child without memory for it ends
    parents = instance.exchange(new Log);
    instance.load()->copyLevels(*parents);
    onLogThread = false;
    delivered = nullptr;
}

void Log::atExit() noexcept {
    Log& log = *instance.load();
    const auto deadline = Clock::now() + kExitPatience;
    {
        const KRLock lock(log.mutex_);
        log.exitDeadline_ = deadline;
        log.written_ = 0; // the counts of repeated lines are still to come
    }
    log.flush(deadline);
}

void Log::atTerminate() noexcept {
    Log& log = *instance.load();
    if (onLogThread) {
        log.printRest();
    } else {
        log.flush(Clock::now() + kExitPatience);
    }
    if (terminateBefore != nullptr) {
        terminateBefore();
    }
    std::abort();
}

} // namespace

void log(KRLogLevel level, std::string_view category, std::string_view message, KRSourceLocation where) {
    Log& log = Log::get();
    if (!log.isWanted(level)) {
        return;
    }
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
        message.remove_suffix(1);
    }
    try {
        log.submit({level, std::string(category), std::string(message.substr(0, kMaxMessage)), where,
                    getThreadName(), std::chrono::system_clock::now()});
    } catch (const std::bad_alloc&) {
        log.countLost();
    }
}

bool flushLog(std::chrono::milliseconds timeout) {
    return Log::get().flush(Clock::now() + timeout);
}

void setLogLevel(KRLogLevel level) noexcept {
    Log::get().setDefaultLevel(level);
}

void setLogLevels(std::string_view levels) {
    Log::get().setLevels(levels);
}

std::string getLogLevels() {
    return Log::get().getLevels();
}

void setLogFormat(KRLogFormat format) noexcept {
    Log::get().setFormat(format);
}

KRLogFormat getLogFormat() noexcept {
    return Log::get().getFormat();
}

KRLogExcerpt getLogRecords(const std::string& since) {
    return Log::get().getRecords(since);
}

KRLogListener::KRLogListener(std::function<void(const KRLogRecord&)> listener)
    : entry_(std::make_shared<Entry>()) {
    entry_->listener = std::move(listener);
    Log::get().add(entry_);
}

KRLogListener::~KRLogListener() {
    Log::get().remove(entry_);
}

} // namespace KR
