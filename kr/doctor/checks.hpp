#pragma once

#include <krplatform/krbroker.hpp>

#include <string>

namespace KR::tool {

/// The result of checking one property of the machine or of the brokers. Its texts may be printed as they are.
struct Finding {
    std::string subject;
    bool isGood = true;
    std::string text;   ///< the state, one sentence
    std::string remedy; ///< what to type or do about it; "" if it is good
};

/// Room for a whole image in the receive buffer of a socket.
Finding checkReceiveBuffer();
/// An interface over which brokers on other machines can be discovered.
Finding checkMulticast();
/// A clock that can be compared with those of other machines.
Finding checkClock();
/// Free discovery ports for processes of this machine on a domain.
/// \param url  "dds:..." \throws KRError the address is malformed
Finding checkParticipants(const std::string& url);
/// Unique names of modules, and one protocol.
Finding checkBrokers(const KRBroker& broker);
/// How other brokers are called: through shared memory or over DDS, and why. Never a problem.
Finding checkWays(const KRBroker& broker);
/// No messages that had to be discarded.
Finding checkMessages(const KRBroker& broker);
/// Modules that report no failure.
Finding checkModules(KRBroker& broker);
/// Events and keys that only one extractor declares.
Finding checkOutputs(KRBroker& broker);
/// A memory module and a camera service, which modules need. \param url  address of the broker
Finding checkServices(const KRBroker& broker, const std::string& url);

} // namespace KR::tool
