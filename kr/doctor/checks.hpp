#pragma once

#include <krplatform/krbroker.hpp>

#include <string>

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
/// A memory module and a camera service, which modules need.
Finding checkServices(const KRBroker& broker);

} // namespace KR::tool
