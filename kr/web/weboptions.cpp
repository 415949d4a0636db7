#include "web/weboptions.hpp"

#include "tool/arguments.hpp"
#include "tool/command.hpp"

#include <krweb/krweb.hpp>

#include <stdexcept>

namespace KR::tool {

void WebOptions::declare(Arguments& arguments) {
    address_ = KRWebOptions::kDefaultAddress;
    arguments.add("--listen", address_, "IP address and port to listen on")
        .valueName("ADDRESS:PORT")
        .showDefault();
    declareAccess(arguments, "--");
}

void WebOptions::declareForServe(Arguments& arguments) {
    arguments.add("--web", address_, "web page and Foxglove server, as of kr web, at this address")
        .valueName("[ADDRESS:PORT]")
        .optionalValue(KRWebOptions::kDefaultAddress);
    declareAccess(arguments, "--web-");
}

void WebOptions::declareAccess(Arguments& arguments, const std::string& prefix) {
    arguments.add(prefix + "token", tokenFile_, "file with a secret that URLs must contain as ?token=")
        .valueName("FILE");
    arguments.addFlag(prefix + "open", open_, "access from other machines without a token");
    arguments
        .add(prefix + "allow-origin", allowedOrigins_,
             "page of another server that may connect, such as https://viewer.example")
        .valueName("ORIGIN")
        .repeatable();
    arguments.addFlag(prefix + "read-only", readOnly_, "refusal of all calls and parameter changes");
}

std::optional<RobotWeb> WebOptions::getWeb() const {
    if (address_.empty()) {
        return std::nullopt;
    }
    return RobotWeb{.listen = address_,
                    .token = tokenFile_,
                    .open = open_,
                    .readOnly = readOnly_,
                    .allowedOrigins = allowedOrigins_};
}

void WebOptions::setWeb(const RobotWeb& web) {
    address_ = web.listen.empty() ? KRWebOptions::kDefaultAddress : web.listen;
    tokenFile_ = web.token;
    open_ = web.open;
    readOnly_ = web.readOnly;
    allowedOrigins_ = web.allowedOrigins;
}

std::unique_ptr<KRWebServer> WebOptions::start(const boost::shared_ptr<KRBroker>& broker,
                                               const std::string& domain) const {
    if (address_.empty()) {
        return nullptr;
    }
    KRWebOptions options;
    options.address = address_;
    options.token = tokenFile_.empty() ? "" : readWebToken(tokenFile_);
    options.open = open_;
    options.readOnly = readOnly_;
    options.allowedOrigins = allowedOrigins_;
    options.domain = domain;
    try {
        auto server = std::make_unique<KRWebServer>(broker, options);
        printNotice("open " + server->getUrl() +
                    (tokenFile_.empty() ? "" : "?token=TOKEN, with the token in " + tokenFile_));
        return server;
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
}

} // namespace KR::tool
