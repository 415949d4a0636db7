#pragma once

#include <krweb/krweb.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace KR::web {

/// "127.0.0.1:8765", split. \throws std::invalid_argument it is not ADDRESS:PORT
struct ListenAddress {
    std::string address; ///< IP address without brackets
    unsigned short port = 0;
    bool isLoopback = false;
};
ListenAddress parseListenAddress(const std::string& text);

/// The origin of a request, according to its fields; "" for missing ones.
struct RequestOrigin {
    std::string_view host;          ///< field Host
    std::string_view origin;        ///< field Origin
    std::string_view site;          ///< field Sec-Fetch-Site
    std::string_view mode;          ///< field Sec-Fetch-Mode
    std::string_view token;         ///< of the address
    std::string_view authorization; ///< field Authorization
};

/// Who may see and do what. Reentrant.
class Access {
public:
    /// \throws std::invalid_argument a malformed option; an address beyond this machine without a token and not open
    explicit Access(const KRWebOptions& options);

    /// Why a request is refused regardless of its target; nullopt: it is not.
    ///
    /// Origin and Sec-Fetch-Site keep out pages from other servers in the same browser. Against DNS rebinding, where a
    /// foreign name resolves to this machine, Host must be an IP address or a name of this machine unless there is a
    /// token.
    std::optional<std::string> findRefusal(const RequestOrigin& request) const;
    /// Whether the request has the token, if one is needed. In constant time.
    bool hasToken(const RequestOrigin& request) const;

private:
    bool isOwnName(std::string_view host) const;
    bool isAllowedOrigin(std::string_view origin) const;

    std::string token_;
    std::vector<std::string> allowedOrigins_;
    std::vector<std::string> names_; // of this machine
};

} // namespace KR::web
