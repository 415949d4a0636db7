#include "doctor/checks.hpp"

#include "tool/errortext.hpp"

#include <krdds/krdds.hpp>

#include <krplatform/krerror.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/timex.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

namespace KR::tool {

namespace {

template <class Texts>
std::string join(const Texts& texts, const std::string& separator) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : separator) + text;
    }
    return joined;
}

} // namespace

Finding checkReceiveBuffer() {
    constexpr long kWanted = 4 << 20; // a 1280x960 image of YUV422, and some
    long bytes = 0;
    std::ifstream("/proc/sys/net/core/rmem_max") >> bytes;
    const std::string text = "net.core.rmem_max is " + std::to_string(bytes) + " bytes";
    if (bytes >= kWanted) {
        return {"receive buffer", true, text, ""};
    }
    const std::string setting = "net.core.rmem_max=" + std::to_string(kWanted);
    return {"receive buffer", false, text + "; large images from other processes get lost and are resent",
            "sudo sysctl -w " + setting + "   (permanently: echo " + setting +
                " | sudo tee /etc/sysctl.d/60-kr.conf)"};
}

Finding checkMulticast() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {"multicast", false, "the network interfaces cannot be listed", "ip address"};
    }
    std::set<std::string> with;
    std::set<std::string> without;
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) {
        const bool isUsable = each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET &&
                              (each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_LOOPBACK) == 0;
        if (isUsable) {
            ((each->ifa_flags & IFF_MULTICAST) != 0 ? with : without).insert(each->ifa_name);
        }
    }
    freeifaddrs(first);
    if (!with.empty()) {
        return {"multicast", true, "possible on " + join(with, ", "), ""};
    }
    if (!without.empty()) {
        return {"multicast", false, "no interface has it, so brokers on other machines are not discovered",
                "sudo ip link set " + *without.begin() +
                    " multicast on   (or list them: --broker 'dds:?peers=HOST')"};
    }
    return {"multicast", false, "there is no network but the loopback; other machines cannot be reached",
            "ip link   (processes on this machine need no network)"};
}

Finding checkParticipants(const std::string& url) {
    const std::uint32_t domain = parseDDSAddress(url).domain;
    std::set<long> ports;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream file(table);
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string number, address;
            fields >> number >> address;
            const auto colon = address.rfind(':');
            if (colon != std::string::npos) {
                ports.insert(std::strtol(address.c_str() + colon + 1, nullptr, 16));
            }
        }
    }
    constexpr int kFew = 10;
    int used = 0;
    for (int i = 0; i < kMaxDDSProcesses; ++i) {
        used += static_cast<int>(ports.count(getDDSPort(domain, i)));
    }
    const std::string text = std::to_string(used) + " of " + std::to_string(kMaxDDSProcesses) +
                             " places for processes on domain " + std::to_string(domain) + " are taken";
    if (used < kMaxDDSProcesses - kFew) {
        return {"participants", true, text, ""};
    }
    return {"participants", true, text + "; processes beyond them are discovered by multicast alone", ""};
}

Finding checkClock() {
    timex clock{};
    const int state = adjtimex(&clock);
    if (state >= 0 && state != TIME_ERROR && (clock.status & STA_UNSYNC) == 0) {
        return {"clock", true, "synchronized", ""};
    }
    return {"clock", false, "not synchronized; time stamps of images from several machines do not compare",
            "sudo timedatectl set-ntp true"};
}

Finding checkBrokers(const KRBroker& broker) {
    const KRBrokerDiagnostics diagnostics = broker.getDiagnostics();
    std::vector<std::string> problems;
    for (const KRNameConflict& conflict : diagnostics.conflicts) {
        problems.push_back("there are several modules named " + escapeText(conflict.module) + ": " +
                           join(conflict.locations, " and "));
    }
    for (const KRPeerDiagnostics& peer : diagnostics.peers) {
        if (peer.state == KRPeerDiagnostics::State::Refused) {
            problems.push_back("the broker " + peer.location + " speaks protocol " +
                               std::to_string(peer.protocol) + ", this one " +
                               std::to_string(diagnostics.protocol));
        }
    }
    if (problems.empty()) {
        return {"brokers", true, "names of modules are unique, and all brokers speak the same protocol", ""};
    }
    return {"brokers", false, join(problems, "; "),
            "kill PROCESS, on the host that is named   (the unwanted one)"};
}

Finding checkWays(const KRBroker& broker) {
    int local = 0;
    std::vector<std::string> others;
    for (const KRPeerDiagnostics& peer : broker.getDiagnostics().peers) {
        if (peer.state == KRPeerDiagnostics::State::Refused) {
            continue;
        }
        if (peer.local) {
            ++local;
        } else {
            others.push_back(peer.location + ", " + peer.way);
        }
    }
    std::string text = std::to_string(local) + (local == 1 ? " broker is" : " brokers are") +
                       " called through shared memory";
    if (!others.empty()) {
        text += ", " + std::to_string(others.size()) + " otherwise: " + join(others, "; ");
    }
    return {"ways", true, text, ""};
}

Finding checkMessages(const KRBroker& broker) {
    const KRBrokerDiagnostics diagnostics = broker.getDiagnostics();
    if (diagnostics.malformedMessages == 0 && diagnostics.refusedMessages == 0) {
        return {"messages", true, "all were understood", ""};
    }
    return {"messages", false,
            std::to_string(diagnostics.malformedMessages) + " were malformed, " +
                std::to_string(diagnostics.refusedMessages) + " were refused",
            "find out who else sends on this domain, or use another one: --broker 'dds:?domain=N'"};
}

Finding checkModules(KRBroker& broker) {
    std::vector<std::string> failures;
    int working = 0;
    for (const std::string& module : broker.getModuleList()) {
        try {
            const std::string failure = broker.getProxy(module)->getFailure();
            if (failure.empty()) {
                ++working;
            } else {
                failures.push_back(escapeText(module) + " has failed: " + escapeText(failure));
            }
        } catch (const KRError& error) {
            failures.push_back(escapeText(module) + " does not answer: " + escapeText(describe(error)));
        }
    }
    if (failures.empty()) {
        return {"modules", true, std::to_string(working) + " work", ""};
    }
    return {"modules", false, join(failures, "; "),
            "restart the process that hosts the module; its log has more"};
}

Finding checkOutputs(KRBroker& broker) {
    std::map<std::string, std::vector<std::string>> modulesByOutput;
    for (const std::string& module : broker.getModuleList()) {
        try {
            const auto names = broker.getProxy(module)->call<std::vector<std::string>>("getOutputNames");
            for (const std::string& name : std::set(names.begin(), names.end())) {
                modulesByOutput[name].push_back(module);
            }
        } catch (const KRError&) { // not an extractor
        }
    }
    std::vector<std::string> problems;
    for (const auto& [name, modules] : modulesByOutput) {
        if (modules.size() > 1) {
            problems.push_back(escapeText(join(modules, " and ") + " declare " + name));
        }
    }
    if (problems.empty()) {
        return {"outputs", true, "each event and key is declared by one module", ""};
    }
    return {"outputs", false, join(problems, "; "),
            "end one of the modules, or begin their names with that of the module: getName() + \"/...\""};
}

Finding checkServices(const KRBroker& broker, const std::string& url) {
    const auto modules = broker.getModuleList();
    std::vector<std::string> missing;
    for (const char* service : {"KRMemory", "KRVideoDevice"}) {
        if (std::find(modules.begin(), modules.end(), service) == modules.end()) {
            missing.push_back(service);
        }
    }
    if (missing.empty()) {
        return {"services", true,
                "KRMemory and KRVideoDevice run, " + std::to_string(modules.size()) + " modules in all", ""};
    }
    return {"services", false, "there is no " + join(missing, " and "),
            url == "dds:" ? "kr serve" : "kr serve --broker '" + url + "'"};
}

} // namespace KR::tool
