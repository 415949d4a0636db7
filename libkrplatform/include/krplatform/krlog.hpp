#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krsourcelocation.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace KR {

enum class KRLogLevel { Error, Warning, Info, Verbose };

/// One line of the log.
struct KRLogRecord {
    KRLogLevel level;
    std::string category; ///< which part of the system speaks, e.g. "core.extractor"
    std::string message;  ///< without the line end
    KRSourceLocation location;
    std::string thread; ///< full name of the thread that logged
    std::chrono::system_clock::time_point time;
};

/// Writes one record: to every listener, and to standard error if the level is shown there.
///
/// A line end that closes the message is not part of the record; line breaks inside it show as "\n" on
/// standard error. No lock is held while a listener runs. Thread-safe.
KR_EXPORT void log(KRLogLevel level, std::string_view category, std::string_view message,
                   KRSourceLocation where = KRSourceLocation::current());

inline void logError(std::string_view category, std::string_view message,
                     KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Error, category, message, where);
}
inline void logWarning(std::string_view category, std::string_view message,
                       KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Warning, category, message, where);
}
inline void logInfo(std::string_view category, std::string_view message,
                    KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Info, category, message, where);
}
inline void logVerbose(std::string_view category, std::string_view message,
                       KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Verbose, category, message, where);
}

/// Chooses what goes to standard error: records of this level and graver ones; Info at the start.
/// Listeners get every record all the same. Thread-safe.
KR_EXPORT void setLogLevel(KRLogLevel level) noexcept;

/// Hears every record from its construction to its destruction.
///
/// The function runs on the thread that logs, possibly on several threads at once, and may itself log (it does
/// not hear that). What it throws is dropped. When the destructor has returned the function runs no more, unless
/// the destructor was called from within it.
class KR_EXPORT KRLogListener {
public:
    explicit KRLogListener(std::function<void(const KRLogRecord&)> listener);
    ~KRLogListener();
    KRLogListener(const KRLogListener&) = delete;
    KRLogListener& operator=(const KRLogListener&) = delete;

    struct Entry;

private:
    std::shared_ptr<Entry> entry_;
};

} // namespace KR
