#include "webtest.hpp"

#include <gmock/gmock.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace KR {
namespace {

using namespace test;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr const char* kToken = "correct-horse-battery";

class KRWebAccess : public WebTest {
protected:
    // HTTP status of the answer to a WebSocket upgrade: 101 if allowed.
    int connect(Headers headers, const std::string& target = "/",
                const std::string& protocol = "foxglove.websocket.v1") const {
        headers.insert(headers.end(), {{"Connection", "Upgrade"},
                                       {"Upgrade", "websocket"},
                                       {"Sec-WebSocket-Version", "13"},
                                       {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="},
                                       {"Sec-WebSocket-Protocol", protocol}});
        return get(getPort(), target, headers).status;
    }
    std::string own() const { return "127.0.0.1:" + std::to_string(getPort()); }
};

TEST_F(KRWebAccess, PagesOfOtherOriginsMayNotConnect) {
    startServer();
    EXPECT_EQ(connect({}), 101); // not a browser
    EXPECT_EQ(connect({{"Origin", "http://" + own()}}), 101);
    EXPECT_EQ(connect({{"Origin", "http://evil.example"}}), 403);
    EXPECT_EQ(connect({{"Origin", "http://127.0.0.1:1"}}), 403);
    EXPECT_EQ(connect({{"Origin", "null"}}), 403);
}

TEST_F(KRWebAccess, PagesOfAllowedOriginsMayConnect) {
    startServer({.allowedOrigins = {"https://viewer.example"}});
    EXPECT_EQ(connect({{"Origin", "https://viewer.example"}}), 101);
    EXPECT_EQ(connect({{"Origin", "https://viewer.example.evil"}}), 403);
}

TEST_F(KRWebAccess, AForeignHostNameForThisMachineIsRefused) {
    startServer();
    // DNS rebinding: the origin equals the host.
    EXPECT_EQ(connect({{"Host", "evil.example"}, {"Origin", "http://evil.example"}}), 403);
    EXPECT_EQ(get(getPort(), "/camera/0.jpg", {{"Host", "evil.example"}}).status, 403);
    EXPECT_EQ(connect({{"Host", "localhost:80"}, {"Origin", "http://localhost:80"}}), 101);
}

TEST_F(KRWebAccess, PagesOfOtherOriginsMayNotShowPictures) {
    startServer();
    EXPECT_EQ(
        get(getPort(), "/camera/0.mjpeg", {{"Sec-Fetch-Site", "cross-site"}, {"Sec-Fetch-Mode", "no-cors"}})
            .status,
        403);
    EXPECT_EQ(get(getPort(), "/", {{"Sec-Fetch-Site", "cross-site"}, {"Sec-Fetch-Mode", "navigate"}}).status,
              200); // a link
}

TEST_F(KRWebAccess, ATokenIsRequiredIfConfigured) {
    startCameras();
    startServer({.token = kToken});
    EXPECT_EQ(get(getPort(), "/").status, 200); // the page is not secret
    EXPECT_EQ(get(getPort(), "/camera/0.jpg").status, 401);
    EXPECT_EQ(get(getPort(), "/camera/0.jpg?token=correct-horse-batterz").status, 401);
    EXPECT_EQ(get(getPort(), "/camera/0.jpg?token=correct-horse").status, 401);
    EXPECT_EQ(get(getPort(), std::string("/camera/0.jpg?token=") + kToken).status, 200);
    EXPECT_EQ(get(getPort(), "/camera/0.jpg", {{"Authorization", std::string("Bearer ") + kToken}}).status,
              200);
    EXPECT_EQ(connect({}), 401);
    EXPECT_EQ(connect({}, "/?token=wrong"), 401);
    EXPECT_EQ(connect({}, std::string("/?token=") + kToken), 101);
    EXPECT_EQ(countSubscriptions(), 1U); // for the allowed picture
}

TEST_F(KRWebAccess, OtherSubprotocolsAreRefused) {
    startServer();
    EXPECT_EQ(connect({}, "/", "chat"), 400);
    EXPECT_EQ(connect({}, "/", ""), 400);
}

TEST_F(KRWebAccess, OnlyGetAndHeadAreAnswered) {
    startServer();
    EXPECT_EQ(get(getPort(), "/", {}, "POST").status, 405);
    const HttpAnswer head = get(getPort(), "/", {}, "HEAD");
    EXPECT_EQ(head.status, 200);
    EXPECT_NE(head.fields.at("Content-Length"), "0");
    EXPECT_THAT(get(getPort(), "/").fields.at("Content-Security-Policy"), HasSubstr("default-src 'self'"));
}

TEST_F(KRWebAccess, ListeningBeyondLoopbackMustBeExplicit) {
    const auto start = [&](KRWebOptions options) { const KRWebServer server(broker_, options); };
    EXPECT_THAT([&] { start({.address = "0.0.0.0:0"}); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("give a token")));
    EXPECT_NO_THROW(start({.address = "0.0.0.0:0", .token = kToken}));
    EXPECT_NO_THROW(start({.address = "0.0.0.0:0", .open = true}));
    EXPECT_THAT([&] { start({.address = "127.0.0.1"}); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("is not ADDRESS:PORT")));
    EXPECT_THAT([&] { start({.address = "robot:80"}); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("with an IP address")));
    EXPECT_THAT([&] { start({.address = "127.0.0.1:0", .token = "short"}); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("8 to 256")));
    EXPECT_THAT(([&] { start({.address = "127.0.0.1:0", .allowedOrigins = {"viewer.example"}}); }),
                ThrowsMessage<std::invalid_argument>(HasSubstr("is not an origin")));
}

TEST_F(KRWebAccess, AnAddressInUseIsNamed) {
    startServer();
    EXPECT_THAT(([&] { const KRWebServer second(broker_, {.address = own()}); }),
                ThrowsMessage<std::runtime_error>(HasSubstr("cannot listen on " + own())));
}

TEST_F(KRWebAccess, ATokenIsTheFirstLineOfItsFile) {
    const std::string path = testing::TempDir() + "krweb-token-" + std::to_string(::getpid());
    std::ofstream(path) << kToken << "\nmore\n";
    EXPECT_EQ(readWebToken(path), kToken);
    std::ofstream(path) << "with space\n";
    EXPECT_THAT([&] { readWebToken(path); }, ThrowsMessage<std::runtime_error>(HasSubstr("is not a token")));
    std::filesystem::remove(path);
    EXPECT_THAT([&] { readWebToken(path); }, ThrowsMessage<std::runtime_error>(HasSubstr("cannot be read")));
}

} // namespace
} // namespace KR
