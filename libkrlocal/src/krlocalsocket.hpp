#pragma once

#include "krdescriptor.hpp"

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

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

/// The address of an abstract name, for bind() and sendto(): a killed process leaves no file behind. \return its size
/// \throws KRError the name is empty or too long
socklen_t toAbstract(const std::string& name, sockaddr_un& address);

/// A socket that listens under this name. \throws KRError
KRDescriptor listenAt(const std::string& name);

/// A socket connected to that name; empty if nothing listens there. \throws KRError not accepted before the deadline
KRDescriptor connectTo(const std::string& name, std::chrono::steady_clock::time_point deadline);

} // namespace KR
