#pragma once

#include <krplatform/krmutex.hpp>

#include <dds/dds.h>

#include <map>
#include <string>

namespace KR {

/// An identity as text: 32 hexadecimal digits.
std::string toText(const dds_guid_t& guid);

/// Parses an identity. \param text  32 hexadecimal digits in lower case
dds_guid_t toGuid(const std::string& text);

/// Identifies the writers of received samples. A broker's identity is that of its participant, which the engine guarantees:
/// with security on, it has checked the credentials. The sender named in a message proves nothing. Thread-safe.
class KRSenders {
public:
    /// Identity of the participant that a sample's writer belongs to; empty once the writer is gone, unless it
    /// was looked up before. \param writer  publication handle of the sample
    std::string find(dds_entity_t reader, dds_instance_handle_t writer);
    /// Whether this is the first broker that a writer of announcements names, or the same one again. Takes only
    /// its own lock, so the engine may call it.
    bool isFirstName(dds_instance_handle_t writer, const std::string& broker);

    /// User data of the writer; empty: none, or the writer is gone.
    static std::string readUserData(dds_entity_t reader, dds_instance_handle_t writer);

private:
    static constexpr std::size_t kMaxKnown = 4096;

    KRMutex mutex_;
    std::map<dds_instance_handle_t, std::string> known_ KR_GUARDED_BY(mutex_); // handles are never reused
    std::map<dds_instance_handle_t, std::string> firstNames_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
