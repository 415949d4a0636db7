#pragma once

#include "krdescriptor.hpp"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace KR {

/// Decides which other users may connect.
class KRLocalAdmission {
public:
    /// \param group  members of it; empty: nobody \throws KRError there is no such group
    explicit KRLocalAdmission(const std::string& group);

    /// The process at the other end of a connected socket. \throws KRError it may not connect
    pid_t admit(int socket) const;

private:
    std::optional<gid_t> group_;
};

/// Identifies this boot of the machine and the network namespace, in which socket names are unique.
std::string getMachineIdentity();

/// 128 unguessable bits, in hexadecimal digits. \throws KRError
std::string drawSecret();

/// A socket that listens under this name. \throws KRError
KRDescriptor listenAt(const std::string& name);

/// A socket connected to that name; empty if nothing listens there. \throws KRError not accepted before the deadline
KRDescriptor connectTo(const std::string& name, std::chrono::steady_clock::time_point deadline);

} // namespace KR
