#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KR {

/// Another broker, as this one has discovered it. Texts are bounded and escaped, ready to be printed.
struct KRPeerDiagnostics {
    /// Of the connection.
    enum class State {
        Connecting, ///< discovered, but it does not receive calls yet
        Connected,  ///< its modules can be called
        Refused     ///< speaks another protocol: neither broker reaches the other's modules
    };

    std::string location;             ///< "in process 4711 (kr) on robot1"
    std::uint32_t protocol = 0;       ///< version that it speaks
    State state = State::Connecting;  ///< of the connection
    std::vector<std::string> modules; ///< names of its modules that can be called
    bool local = false; ///< called through a local socket and shared memory, not over the network
    std::string way; ///< the same as text, with the reason: "DDS: it is on another machine or in a container"
};

/// Modules of the same name in several processes, all callable.
struct KRNameConflict {
    std::string module;                 ///< the shared name
    std::vector<std::string> locations; ///< "in this process", "in process 4711 (kr) on robot1"
};

/// State of a broker's connection to other processes. Empty for a broker without one.
struct KRBrokerDiagnostics {
    std::string transport;                 ///< "dds"; empty: the broker is alone in its process
    std::uint32_t domain = 0;              ///< number of the DDS domain
    bool secure = false;                   ///< brokers authenticate each other and encrypt
    std::vector<std::string> interfaces;   ///< network interfaces asked for; empty: the engine chose
    std::uint32_t protocol = 0;            ///< version of the messages
    std::vector<KRPeerDiagnostics> peers;  ///< other brokers
    std::vector<KRNameConflict> conflicts; ///< names used by several modules
    std::uint64_t malformedMessages = 0;   ///< discarded since the start: not in the format of the protocol
    std::uint64_t refusedMessages =
        0; ///< discarded since the start: beyond a limit, or in another broker's name
};

} // namespace KR
