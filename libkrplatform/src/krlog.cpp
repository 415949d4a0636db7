#include "krplatform/krlog.hpp"

#include "krplatform/krtext.hpp"
#include "krplatform/krthread.hpp"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace KR {

struct KRLogListener::Entry {
    std::function<void(const KRLogRecord&)> listener;
    std::mutex mutex;
    std::condition_variable idle;
    bool removed = false; // guarded by mutex
    int running = 0;      // guarded by mutex: calls under way
};

namespace {

struct Listeners {
    std::mutex mutex;
    std::vector<std::shared_ptr<KRLogListener::Entry>> entries; // guarded by mutex
    std::atomic<bool> any = false;
};

// Neither is ever destroyed: threads may log until the process is gone.
Listeners& listeners() {
    static auto& all = *new Listeners;
    return all;
}

spdlog::logger& console() {
    static auto& logger = *[] {
        auto* created =
            new spdlog::logger("krvision", std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
        created->set_pattern("[%H:%M:%S.%e] %^%v%$");
        created->set_level(spdlog::level::info);
        return created;
    }();
    return logger;
}

spdlog::level::level_enum toConsoleLevel(KRLogLevel level) {
    switch (level) {
    case KRLogLevel::Error:
        return spdlog::level::err;
    case KRLogLevel::Warning:
        return spdlog::level::warn;
    case KRLogLevel::Info:
        return spdlog::level::info;
    case KRLogLevel::Verbose:
        return spdlog::level::debug;
    }
    return spdlog::level::err;
}

const char* getLevelName(KRLogLevel level) {
    switch (level) {
    case KRLogLevel::Error:
        return "error";
    case KRLogLevel::Warning:
        return "warning";
    case KRLogLevel::Info:
        return "info";
    case KRLogLevel::Verbose:
        return "verbose";
    }
    return "error";
}

/// A listener's function that is on this thread's stack, so that it neither hears itself nor waits for itself.
class Hearing {
public:
    explicit Hearing(KRLogListener::Entry& entry) : entry_(entry), outer_(innermost) { innermost = this; }
    ~Hearing() {
        innermost = outer_;
        const std::lock_guard lock(entry_.mutex);
        --entry_.running;
        entry_.idle.notify_all();
    }
    Hearing(const Hearing&) = delete;
    Hearing& operator=(const Hearing&) = delete;

    static bool isOnStack(const KRLogListener::Entry& entry) {
        for (const Hearing* hearing = innermost; hearing != nullptr; hearing = hearing->outer_) {
            if (&hearing->entry_ == &entry) {
                return true;
            }
        }
        return false;
    }

private:
    static thread_local const Hearing* innermost;
    KRLogListener::Entry& entry_;
    const Hearing* outer_;
};

thread_local const Hearing* Hearing::innermost = nullptr;

void tellListeners(const KRLogRecord& record) {
    std::vector<std::shared_ptr<KRLogListener::Entry>> entries;
    {
        const std::lock_guard lock(listeners().mutex);
        entries = listeners().entries;
    }
    for (const auto& entry : entries) {
        if (Hearing::isOnStack(*entry)) {
            continue;
        }
        {
            const std::lock_guard lock(entry->mutex);
            if (entry->removed) {
                continue;
            }
            ++entry->running;
        }
        const Hearing hearing(*entry);
        try {
            entry->listener(record);
        } catch (...) { // whoever logs cannot help it
        }
    }
}

} // namespace

void log(KRLogLevel level, std::string_view category, std::string_view message, KRSourceLocation where) {
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
        message.remove_suffix(1);
    }
    if (listeners().any.load(std::memory_order_acquire)) {
        tellListeners({level, std::string(category), std::string(message), where, getThreadName(),
                       std::chrono::system_clock::now()});
    }
    if (console().should_log(toConsoleLevel(level))) {
        console().log(toConsoleLevel(level), "{} {}: {}", getLevelName(level), category, escapeText(message));
    }
}

void setLogLevel(KRLogLevel level) noexcept {
    console().set_level(toConsoleLevel(level));
}

KRLogListener::KRLogListener(std::function<void(const KRLogRecord&)> listener)
    : entry_(std::make_shared<Entry>()) {
    entry_->listener = std::move(listener);
    const std::lock_guard lock(listeners().mutex);
    listeners().entries.push_back(entry_);
    listeners().any.store(true, std::memory_order_release);
}

KRLogListener::~KRLogListener() {
    {
        const std::lock_guard lock(listeners().mutex);
        std::erase(listeners().entries, entry_);
        listeners().any.store(!listeners().entries.empty(), std::memory_order_release);
    }
    std::unique_lock lock(entry_->mutex);
    entry_->removed = true;
    const int own = Hearing::isOnStack(*entry_) ? 1 : 0;
    entry_->idle.wait(lock, [&] { return entry_->running <= own; });
}

} // namespace KR
