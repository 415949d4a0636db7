#pragma once

#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace KR::tool {

/// What one look at the machine or at the brokers found.
struct Finding {
    std::string subject;
    bool isGood = true;
    std::string text;   ///< what is so, one sentence
    std::string remedy; ///< what to type or do about it; "" if it is good
};

/// Room for a whole image in the receive buffer of a socket.
Finding checkReceiveBuffer();
/// An interface over which brokers on other machines can be found.
Finding checkMulticast();
/// Places for more processes on the domain of this address, on this machine.
Finding checkParticipants(const std::string& url);
/// A clock that can be compared with those of other machines.
Finding checkClock();
/// A memory module and a camera service, which modules need. \param url  the broker's address
Finding checkServices(const KRBroker& broker, const std::string& url);

/// Hears, from its construction on, what the link to the other brokers finds wrong with them: two modules of one name,
/// another version. Thread-safe.
class BrokerComplaints {
public:
    BrokerComplaints();
    Finding check() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> complaints_; // guarded by mutex_
    KRLogListener listener_;              // last, as it uses the others
};

} // namespace KR::tool
