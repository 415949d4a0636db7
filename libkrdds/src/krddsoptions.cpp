#include "krddsoptions.hpp"

#include "krannouncement.hpp"
#include "krbytes.hpp"
#include "krdds/krdds.hpp"

#include <krplatform/krerror.hpp>

#include <dds/dds.h>
#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>

namespace KR {

namespace {

constexpr std::string_view kScheme = "dds:";
constexpr std::uint32_t kMaxDomain = 230;
constexpr std::string_view kGroup = "group:";

class Parser {
public:
    explicit Parser(const std::string& url) : url_(url) {}

    [[noreturn]] void refuse(const std::string& why) const {
        throw KRError("KRBroker", "create",
                      "broker address \"" + url_ + "\": " + why +
                          "; an example is dds:?domain=3&memory=here&peers=localhost");
    }

    /// The text as a number.
    template <class Number>
    Number toNumber(const std::string& option, const std::string& text, Number low, Number high) const {
        Number number{};
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || end != text.data() + text.size() || !(number >= low && number <= high)) {
            std::ostringstream why;
            why << option << " is \"" << text << "\", not a number from " << low << " to " << high;
            refuse(why.str());
        }
        return number;
    }

    /// The text, "256M" for instance, as a number of bytes.
    std::size_t toSize(const std::string& option, const std::string& text) const {
        constexpr std::size_t kMost = std::size_t{1} << 40;
        std::size_t number = 0;
        const char* const last = text.data() + text.size();
        const auto [end, error] = std::from_chars(text.data(), last, number);
        const std::string unit(end, last);
        const std::size_t factor = unit.empty()  ? 1
                                   : unit == "K" ? std::size_t{1} << 10
                                   : unit == "M" ? std::size_t{1} << 20
                                   : unit == "G" ? std::size_t{1} << 30
                                                 : 0;
        if (error != std::errc() || factor == 0 || number > kMost / factor) {
            refuse(option + " is \"" + text +
                   "\", not a number of bytes up to 1024G; K, M and G may follow it");
        }
        return number * factor;
    }

    std::vector<std::string> toList(const std::string& option, const std::string& text) const {
        std::vector<std::string> list;
        std::istringstream parts(text);
        for (std::string part; std::getline(parts, part, ',');) {
            const bool fits = !part.empty() && std::all_of(part.begin(), part.end(), [](unsigned char c) {
                return std::isalnum(c) != 0 ||
                       std::string_view(".:-_@[]%").find(static_cast<char>(c)) != std::string_view::npos;
            });
            if (!fits) {
                refuse(option + " contains \"" + part + "\", which is not a name");
            }
            list.push_back(part);
        }
        if (list.empty()) {
            refuse(option + " is empty");
        }
        return list;
    }

private:
    const std::string& url_;
};

std::string getProgramName() {
    std::ifstream file("/proc/self/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

/// Path of a security plugin. Distributions put them into a folder beside the engine that is not on the loader's path.
std::string findSecurityLibrary(const std::string& name) {
    Dl_info engine{};
    if (dladdr(reinterpret_cast<void*>(&dds_create_domain), &engine) != 0 && engine.dli_fname != nullptr) {
        std::error_code ignored;
        const auto folder = std::filesystem::canonical(engine.dli_fname, ignored).parent_path();
        std::vector<std::filesystem::path> folders{folder};
        for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
            if (entry.path().filename().string().starts_with("libddsc") && entry.is_directory(ignored)) {
                folders.push_back(entry.path());
            }
        }
        for (const auto& each : folders) {
            const auto file = each / ("lib" + name + ".so");
            if (std::filesystem::exists(file, ignored)) {
                return file.string();
            }
        }
    }
    return name;
}

std::string escapeXml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

} // namespace

KRDDSOptions KRDDSOptions::parse(const std::string& url) {
    const Parser parser(url);
    KRDDSOptions options;
    std::string rest = url.substr(std::min(url.size(), kScheme.size()));
    if (!rest.empty() && rest.front() != '?') {
        parser.refuse("expected \"?\" and options after dds:");
    }
    std::istringstream list(rest.empty() ? rest : rest.substr(1));
    std::set<std::string> given;
    for (std::string option; std::getline(list, option, '&');) {
        const auto equals = option.find('=');
        const std::string name = option.substr(0, equals);
        if (!given.insert(name).second) {
            parser.refuse(name + " is given twice");
        }
        const std::string value = equals == std::string::npos ? "" : option.substr(equals + 1);
        if (name == "domain") {
            options.domain = parser.toNumber<std::uint32_t>(name, value, 0, kMaxDomain);
        } else if (name == "name") {
            if (value.size() > KRAnnouncement::kMaxText) {
                parser.refuse("name is " + std::to_string(value.size()) + " bytes long, more than " +
                              std::to_string(KRAnnouncement::kMaxText));
            }
            options.name = value;
        } else if (name == "memory") {
            if (value != "here" && value != "none") {
                parser.refuse("memory is \"" + value + "\", not here or none");
            }
            options.memory = value == "here";
        } else if (name == "peers") {
            options.peers = parser.toList(name, value);
        } else if (name == "interfaces") {
            options.interfaces = parser.toList(name, value);
        } else if (name == "lease") {
            const auto seconds = parser.toNumber<double>(name, value, 0.1, 3600.0);
            options.lease = std::chrono::milliseconds(static_cast<int>(1000 * seconds));
        } else if (name == "fragment") {
            options.fragment = parser.toNumber<std::uint32_t>(name, value, 512, 65000);
        } else if (name == "security") {
            if (value.empty()) {
                parser.refuse("security needs a folder");
            }
            options.security = value;
        } else if (name == "local") {
            options.local = value != "off";
            if (value.starts_with(kGroup)) {
                options.localGroup = value.substr(kGroup.size());
            }
            if (value != "on" && value != "off" && options.localGroup.empty()) {
                parser.refuse("local is \"" + value + "\", not on, off or group:NAME");
            }
        } else if (name == "local-memory") {
            options.localMemory = parser.toSize(name, value);
        } else {
            parser.refuse("unknown option \"" + option + "\"");
        }
    }
    if (options.name.empty()) {
        options.name = getProgramName();
    }
    if (!options.security.empty() && !given.contains("local")) {
        options.local = false; // as it uses neither certificates nor encryption
    }
    return options;
}

bool KRDDSOptions::agreesWith(const KRDDSOptions& other) const {
    return peers == other.peers && interfaces == other.interfaces && lease == other.lease &&
           fragment == other.fragment && security == other.security;
}

bool KRDDSOptions::staysOnHost(const KRHostNetwork& network) const {
    return interfaces.empty() ? network.alone : interfaces == std::vector{network.loopback};
}

bool KRDDSOptions::usesMulticast(const KRHostNetwork& network) const {
    return staysOnHost(network) ? network.loopbackMulticast : network.multicast;
}

std::string KRDDSOptions::getConfiguration(const KRHostNetwork& network, bool place) const {
    std::ostringstream xml;
    xml << "<CycloneDDS><Domain Id=\"any\"><General>";
    auto used = interfaces;
    if (used.empty() && network.alone && network.loopbackMulticast) {
        used = {network.loopback};
    }
    if (!used.empty()) {
        xml << "<Interfaces>";
        for (const std::string& interface : used) {
            xml << "<NetworkInterface name=\"" << escapeXml(interface) << '"'
                << (interface == network.loopback && network.loopbackMulticast ? " multicast=\"true\"" : "")
                << "/>";
        }
        xml << "</Interfaces>";
    }
    // The headers of a fragment take up to 128 bytes.
    xml << "<MaxMessageSize>" << std::min<std::uint32_t>(fragment + 128, 65500) << "B</MaxMessageSize>"
        << "<FragmentSize>" << fragment << "B</FragmentSize></General>";
    // With an index each process on a host has its own well-known port, where others find it without multicast. 119 is the
    // last index whose port does not belong to the next domain.
    static_assert(kMaxDDSProcesses == 120);
    xml << "<Discovery><ParticipantIndex>" << (place ? "auto" : "none") << "</ParticipantIndex>"
        << "<MaxAutoParticipantIndex>119</MaxAutoParticipantIndex><Peers>";
    for (const std::string& peer : peers) {
        xml << "<Peer Address=\"" << escapeXml(peer) << "\"/>";
    }
    if (std::find(peers.begin(), peers.end(), "localhost") != peers.end()) {
        // is in the list already
    } else if (!usesMulticast(network)) {
        xml << "<Peer Address=\"127.0.0.1\"/>"; // on every port of another process
    } else if (!network.alone) {
        // Earlier processes on another interface. Later ones look for this one.
        for (const std::uint16_t port : network.findPlaces(domain)) {
            xml << "<Peer Address=\"127.0.0.1:" << port << "\"/>";
        }
    }
    // Processes of one host see each other's pulses. Otherwise the engine's heartbeats would be most of the work of
    // many processes.
    constexpr std::chrono::milliseconds kLeaseOnHost{30000};
    const auto shown = staysOnHost(network) ? std::max(lease, kLeaseOnHost) : lease;
    xml << "</Peers><LeaseDuration>" << shown.count() << "ms</LeaseDuration></Discovery>";
    // A whole image fits the receive buffer, if the system allows that much, and the writer's cache.
    xml << "<Internal><SocketReceiveBufferSize min=\"default\" max=\"4MB\"/>"
        << "<MaxSampleSize>" << KRReceivedBytes::kMax << "B</MaxSampleSize>"
        << "<Watermarks><WhcHigh>2MB</WhcHigh></Watermarks></Internal>";
    // Each of three threads touches all of its buffer. Images on one host do not come this way.
    if (staysOnHost(network)) {
        xml << "<Sizing><ReceiveBufferSize>256KiB</ReceiveBufferSize></Sizing>";
    }
    if (!security.empty()) {
        const auto file = [&](const char* element, const char* fileName) {
            xml << '<' << element << ">file:" << escapeXml(security) << '/' << fileName << "</" << element
                << '>';
        };
        const auto library = [&](const char* plugin, const char* function) {
            xml << "<Library path=\"" << escapeXml(findSecurityLibrary(plugin)) << "\" initFunction=\"init_"
                << function << "\" finalizeFunction=\"finalize_" << function << "\"/>";
        };
        xml << "<Security><Authentication>";
        library("dds_security_auth", "authentication");
        file("IdentityCertificate", "identity.pem");
        file("IdentityCA", "identity-ca.pem");
        file("PrivateKey", "key.pem");
        xml << "</Authentication><AccessControl>";
        library("dds_security_ac", "access_control");
        file("PermissionsCA", "permissions-ca.pem");
        file("Governance", "governance.p7s");
        file("Permissions", "permissions.p7s");
        xml << "</AccessControl><Cryptographic>";
        library("dds_security_crypto", "crypto");
        xml << "</Cryptographic></Security>";
    }
    xml << "</Domain></CycloneDDS>";
    return xml.str();
}

} // namespace KR
