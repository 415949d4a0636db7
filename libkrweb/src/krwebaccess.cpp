#include "krwebaccess.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <fstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <unistd.h>

namespace KR {

namespace {

constexpr std::size_t kShortestToken = 8;
constexpr std::size_t kLongestToken = 256;

bool isToken(std::string_view token) {
    return token.size() >= kShortestToken && token.size() <= kLongestToken &&
           std::ranges::all_of(token, [](unsigned char c) {
               return c < 128 && (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~');
           });
}

constexpr const char* kTokenForm = "a token is 8 to 256 letters, digits, \"-\", \"_\", \".\" and \"~\"";

} // namespace

std::string readWebToken(const std::string& path) {
    std::ifstream file(path);
    std::string token(kLongestToken + 2, '\0');
    file.read(token.data(), static_cast<std::streamsize>(token.size()));
    if (file.bad() || (!file.eof() && !file) || !file.is_open()) {
        throw std::runtime_error(path + ": cannot be read");
    }
    token.resize(static_cast<std::size_t>(file.gcount()));
    token.resize(std::min(token.find_first_of("\r\n"), token.size()));
    if (!isToken(token)) {
        throw std::runtime_error(path + ": its first line is not a token; " + kTokenForm);
    }
    return token;
}

} // namespace KR

namespace KR::web {

namespace {

bool isIpAddress(const std::string& text, bool& isLoopback) {
    in_addr four{};
    if (::inet_pton(AF_INET, text.c_str(), &four) == 1) {
        isLoopback = ntohl(four.s_addr) >> 24 == 127;
        return true;
    }
    in6_addr six{};
    if (::inet_pton(AF_INET6, text.c_str(), &six) == 1) {
        isLoopback = IN6_IS_ADDR_LOOPBACK(&six);
        return true;
    }
    return false;
}

std::string toLower(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower;
}

// The host of "host:port" or "[address]:port".
std::string removePort(std::string_view host) {
    if (host.starts_with('[')) {
        return std::string(host.substr(1, host.find(']') - 1));
    }
    return std::string(host.substr(0, host.rfind(':')));
}

bool isEqual(std::string_view secret, std::string_view given) {
    // The loop depends on what was given alone.
    unsigned difference = secret.size() == given.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i) {
        difference |=
            static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(secret[i % secret.size()]);
    }
    return difference == 0;
}

} // namespace

ListenAddress parseListenAddress(const std::string& text) {
    ListenAddress parsed;
    const std::size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    parsed.address = text.substr(0, std::min(colon, text.size()));
    const bool hasBrackets = parsed.address.starts_with('[') && parsed.address.ends_with(']');
    if (hasBrackets) {
        parsed.address = parsed.address.substr(1, parsed.address.size() - 2);
    }
    if (parsed.address == "localhost") {
        parsed.address = "127.0.0.1";
    }
    const char* const end = port.data() + port.size();
    const auto [last, error] = std::from_chars(port.data(), end, parsed.port);
    if (port.empty() || error != std::errc() || last != end ||
        !isIpAddress(parsed.address, parsed.isLoopback) ||
        hasBrackets != (parsed.address.find(':') != std::string::npos)) {
        throw std::invalid_argument("\"" + escapeText(text, 100) +
                                    "\" is not ADDRESS:PORT with an IP address, such as 127.0.0.1:8765, "
                                    "[::1]:8765 or 0.0.0.0:8765");
    }
    return parsed;
}

Access::Access(const KRWebOptions& options) : token_(options.token) {
    if (!token_.empty() && !isToken(token_)) {
        throw std::invalid_argument(std::string("the token cannot be used; ") + kTokenForm);
    }
    if (!parseListenAddress(options.address).isLoopback && token_.empty() && !options.open) {
        throw std::invalid_argument(
            "listening on " + options.address +
            " would admit everyone who can reach it: give a token, or open it explicitly");
    }
    for (const std::string& origin : options.allowedOrigins) {
        const std::size_t scheme = origin.find("://");
        if ((!origin.starts_with("http://") && !origin.starts_with("https://")) ||
            origin.find('/', scheme + 3) != std::string::npos || origin.size() == scheme + 3) {
            throw std::invalid_argument("\"" + escapeText(origin, 100) +
                                        "\" is not an origin, such as https://viewer.example or "
                                        "http://localhost:8080, without a path");
        }
        allowedOrigins_.push_back(toLower(origin));
    }
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    const std::string name = toLower(host.data());
    names_ = {"localhost", name, name + ".local"};
}

bool Access::isOwnName(std::string_view host) const {
    const std::string name = toLower(removePort(host));
    bool isLoopback = false;
    return isIpAddress(name, isLoopback) || std::ranges::find(names_, name) != names_.end();
}

bool Access::isAllowedOrigin(std::string_view origin) const {
    return std::ranges::find(allowedOrigins_, toLower(origin)) != allowedOrigins_.end();
}

std::optional<std::string> Access::findRefusal(const RequestOrigin& request) const {
    if (token_.empty() && !request.host.empty() && !isOwnName(request.host)) {
        return "this server is not called " + escapeText(request.host, 100) +
               "; use its IP address, or give it a token";
    }
    const std::string origin = toLower(request.origin);
    const std::string host = toLower(request.host);
    const bool isOwn = !host.empty() && (origin == "http://" + host || origin == "https://" + host);
    if (!origin.empty() && !isOwn && !isAllowedOrigin(origin)) {
        return "pages of " + escapeText(request.origin, 100) +
               " may not connect; --allow-origin names those that may";
    }
    const bool isForeign = request.site == "cross-site" || request.site == "same-site";
    if (origin.empty() && isForeign && request.mode != "navigate") {
        return std::string("pages of other servers may not use this one");
    }
    return std::nullopt;
}

bool Access::hasToken(const RequestOrigin& request) const {
    if (token_.empty()) {
        return true;
    }
    constexpr std::string_view kBearer = "Bearer ";
    const std::string_view given = request.authorization.starts_with(kBearer)
                                       ? request.authorization.substr(kBearer.size())
                                       : request.token;
    return isEqual(token_, given);
}

} // namespace KR::web
