#include "checks.hpp"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/timex.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

namespace KR::tool {

Finding checkReceiveBuffer() {
    constexpr long kWanted = 4 << 20; // a 1280x960 image of YUV422, and some
    long bytes = 0;
    std::ifstream("/proc/sys/net/core/rmem_max") >> bytes;
    const std::string text = "net.core.rmem_max is " + std::to_string(bytes) + " bytes";
    if (bytes >= kWanted) {
        return {"receive buffer", true, text, ""};
    }
    const std::string setting = "net.core.rmem_max=" + std::to_string(kWanted);
    return {"receive buffer", false, text + "; large images from other processes get lost and are sent again",
            "sudo sysctl -w " + setting + "   (for good: echo " + setting +
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
    const auto list = [](const std::set<std::string>& names) {
        std::string text;
        for (const std::string& name : names) {
            text += (text.empty() ? "" : ", ") + name;
        }
        return text;
    };
    if (!with.empty()) {
        return {"multicast", true, "possible on " + list(with), ""};
    }
    if (!without.empty()) {
        return {"multicast", false,
                "no interface has it, so brokers on other machines are not found by themselves",
                "sudo ip link set " + *without.begin() +
                    " multicast on   (or name them: --broker 'dds:?peers=HOST')"};
    }
    return {"multicast", false, "there is no network but the loopback; other machines cannot be reached",
            "ip link   (for processes on this machine nothing is needed)"};
}

Finding checkParticipants(const std::string& url) {
    // The port of participant i on domain d is 7400 + 250 * d + 10 + 2 * i: DDSI-RTPS, 9.6.1.1.
    constexpr int kLast = 119; // the next one's port is that of another domain
    int domain = 0;
    const auto option = url.find("domain=");
    if (option != std::string::npos) {
        domain = std::atoi(url.c_str() + option + 7);
    }
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
    int used = 0;
    for (int i = 0; i <= kLast; ++i) {
        used += static_cast<int>(ports.count(7400 + 250 * domain + 10 + 2 * i));
    }
    const std::string text = std::to_string(used) + " of " + std::to_string(kLast + 1) +
                             " places for processes on domain " + std::to_string(domain) + " are taken";
    if (used <= kLast - 10) {
        return {"participants", true, text, ""};
    }
    return {"participants", false, text + "; brokers will soon be refused",
            "ss --udp --listening --processes   (end what is not needed, or use another domain: "
            "--broker 'dds:?domain=N')"};
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

BrokerComplaints::BrokerComplaints()
    : listener_([this](const KRLogRecord& record) {
          if (record.category == "krdds" && record.level == KRLogLevel::Error) {
              const std::lock_guard lock(mutex_);
              complaints_.push_back(record.message);
          }
      }) {}

Finding BrokerComplaints::check() const {
    flushLog();
    const std::lock_guard lock(mutex_);
    if (complaints_.empty()) {
        return {"brokers", true, "no two modules of one name, and one version everywhere", ""};
    }
    std::string text;
    for (const std::string& complaint : complaints_) {
        text += (text.empty() ? "" : "; ") + complaint;
    }
    return {"brokers", false, text,
            "end the broker that is not wanted: kill PROCESS, on the host that is named"};
}

Finding checkServices(const KRBroker& broker, const std::string& url) {
    const auto modules = broker.getModuleList();
    std::string missing;
    for (const char* service : {"KRMemory", "KRVideoDevice"}) {
        if (std::find(modules.begin(), modules.end(), service) == modules.end()) {
            missing += (missing.empty() ? "" : " and ") + std::string(service);
        }
    }
    if (missing.empty()) {
        return {"services", true,
                "KRMemory and KRVideoDevice answer, " + std::to_string(modules.size()) + " modules in all",
                ""};
    }
    return {"services", false, "there is no " + missing,
            url == "dds:" ? "kr serve" : "kr serve --broker '" + url + "'"};
}

} // namespace KR::tool
