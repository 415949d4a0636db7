#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krsourcelocation.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace KR {

/// How much a record matters.
enum class KRLogLevel { Error, Warning, Info, Verbose };

/// One line of the log.
struct KRLogRecord {
    KRLogLevel level;          ///< how much it matters
    std::string category;      ///< the part of the system that logged it, e.g. "core.extractor"
    std::string message;       ///< without the line end
    KRSourceLocation location; ///< where it was logged
    std::string thread;        ///< full name of the thread that logged
    std::chrono::system_clock::time_point time; ///< when it was logged
};

/// Logs one record: to every listener, and to standard error if its level is printed there.
///
/// Returns at once: the record goes through a queue to the log thread ("KRLog"), which writes and calls the listeners.
/// Neither a blocked standard error nor a slow listener blocks the caller; if the queue (4 MiB) is full, records are
/// lost, and their number is logged. A process that exits or ends by std::terminate() waits up to a
/// second for the queue to be written; a process killed by a signal loses its contents.
///
/// A line end that closes the message is not part of the record, and a message is cut after 64 KiB. On standard error
/// text is escaped as by escapeText() and cut after 8 KiB. A line that repeats a recent one there is only counted, and
/// the count written at intervals that grow from one second to ten minutes: "... (said 600 times more)".
/// Does not throw. Thread-safe.
KR_EXPORT void log(KRLogLevel level, std::string_view category, std::string_view message,
                   KRSourceLocation where = KRSourceLocation::current());

/// Logs at this level, as log().
inline void logError(std::string_view category, std::string_view message,
                     KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Error, category, message, where);
}
/// Logs at this level, as log().
inline void logWarning(std::string_view category, std::string_view message,
                       KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Warning, category, message, where);
}
/// Logs at this level, as log().
inline void logInfo(std::string_view category, std::string_view message,
                    KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Info, category, message, where);
}
/// Logs at this level, as log().
inline void logVerbose(std::string_view category, std::string_view message,
                       KRSourceLocation where = KRSourceLocation::current()) {
    log(KRLogLevel::Verbose, category, message, where);
}

/// Waits until all records logged so far have been written and passed to all listeners.
/// \return false: the timeout was over first, or this was called from within a listener. Thread-safe.
KR_EXPORT bool flushLog(std::chrono::milliseconds timeout = std::chrono::seconds(30));

/// Chooses what is printed on standard error, unless the environment variable KR_LOG or setLogLevels() chooses otherwise:
/// records of this level and graver ones; Info at the start. Listeners get every record all the same. Thread-safe.
KR_EXPORT void setLogLevel(KRLogLevel level) noexcept;

/// Chooses what is printed on standard error, whatever setLogLevel() says. KR_LOG sets the same when the process starts.
/// \param levels  comma-separated, the last one wins: "warning" for all categories, which removes their own
/// levels; "krdds=verbose" for a category and those whose names continue it after a dot. Levels are error, warning, info
/// and verbose, which is also called debug: "warning,krdds=debug"
/// \throws std::invalid_argument there is no such level; a category is "" or longer than 100 bytes; more than 100
/// categories; nothing has changed then. Thread-safe.
KR_EXPORT void setLogLevels(std::string_view levels);

/// What is printed on standard error, in the form that setLogLevels() takes. Thread-safe.
KR_EXPORT std::string getLogLevels();

/// Receives every record that is logged while it exists.
///
/// The function runs on the log thread, for one record at a time, with no lock held, a little after the record was
/// logged: flushLog() waits for that. It may log, but does not receive its own records. Its exceptions are dropped. After the
/// destructor has returned, the function does not run any more, unless it called the destructor itself; records still
/// in the queue are not delivered.
class KR_EXPORT KRLogListener {
public:
    /// \param listener  called on the log thread with each record
    explicit KRLogListener(std::function<void(const KRLogRecord&)> listener);
    ~KRLogListener();
    KRLogListener(const KRLogListener&) = delete;
    KRLogListener& operator=(const KRLogListener&) = delete;

    struct Entry;

private:
    std::shared_ptr<Entry> entry_;
};

} // namespace KR
