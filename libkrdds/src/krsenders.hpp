#pragma once

#include <krplatform/krmutex.hpp>

#include <dds/dds.h>

#include <map>
#include <string>

namespace KR {

/// An identity as text: 32 hexadecimal digits.
std::string toText(const dds_guid_t& guid);

/// The identity that is written so. \param text  32 hexadecimal digits in lower case
dds_guid_t toGuid(const std::string& text);

/// Who wrote what a reader has received. A broker's identity is that of its participant, which the engine vouches for:
/// with security on it has checked its credentials. What a message says of its sender proves nothing. Thread-safe.
class KRSenders {
public:
    /// Identity of the participant that a sample's writer belongs to; empty once the writer is gone, unless it was
    /// asked for before. \param writer  publication handle of the sample
    std::string find(dds_entity_t reader, dds_instance_handle_t writer);
    /// Whether this is the first broker that a writer of announcements names, or the same one again. Takes no lock but
    /// its own, so the engine may call it.
    bool isFirstName(dds_instance_handle_t writer, const std::string& broker);

    /// User data of the writer; empty: none, or the writer is gone.
    static std::string readUserData(dds_entity_t reader, dds_instance_handle_t writer);

private:
    static constexpr std::size_t kMaxKnown = 4096;

    KRMutex mutex_;
    std::map<dds_instance_handle_t, std::string> known_ KR_GUARDED_BY(mutex_); // handles are never used again
    std::map<dds_instance_handle_t, std::string> firstNames_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
