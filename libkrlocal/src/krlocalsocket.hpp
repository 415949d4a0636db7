#pragma once

#include "krdescriptor.hpp"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace KR {

/// Who may connect besides processes of the same user.
class KRLocalAdmission {
public:
    /// \param group  members of it; empty: nobody \throws KRError there is no such group
    explicit KRLocalAdmission(const std::string& group);

    /// The process at the other end of a connected socket. \throws KRError it may not connect
    pid_t admit(int socket) const;

private:
    std::optional<gid_t> group_;
};

/// This boot of the machine, and the network namespace, in which names of sockets are unique.
std::string getMachineIdentity();

/// 128 bits that nobody can guess, in hexadecimal digits. \throws KRError
std::string drawSecret();

/// A socket that listens under this name. \throws KRError
KRDescriptor listenAt(const std::string& name);

/// A socket connected to that name; none if nobody listens there. \throws KRError nobody accepts before the deadline
KRDescriptor connectTo(const std::string& name, std::chrono::steady_clock::time_point deadline);

} // namespace KR
