#include "webtest.hpp"

#include <gmock/gmock.h>

namespace KR {
namespace {

using namespace test;
using testing::HasSubstr;

constexpr const char* kUpgrade =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    "Sec-WebSocket-Protocol: foxglove.websocket.v1\r\n\r\n";

// A WebSocket frame of a client, masked with zeros.
std::string makeFrame(unsigned char operation, const std::string& payload) {
    std::string frame;
    frame.push_back(static_cast<char>(0x80 | operation));
    if (payload.size() < 126) {
        frame.push_back(static_cast<char>(0x80 | payload.size()));
    } else {
        frame.push_back(static_cast<char>(0x80 | 126));
        frame.push_back(static_cast<char>(payload.size() >> 8));
        frame.push_back(static_cast<char>(payload.size() & 0xFF));
    }
    return frame + std::string(4, '\0') + payload;
}

class KRWebLoad : public WebTest {
protected:
    // Channel number, as the server advertises it.
    std::uint32_t findChannel(const std::string& topic) const {
        WebClient client(getPort());
        return client.waitForChannel(topic).at("id");
    }
};

TEST_F(KRWebLoad, AnUnfinishedRequestIsDisconnected) {
    startServer({.patience = std::chrono::milliseconds(500)});
    RawConnection slow(getPort());
    ASSERT_TRUE(slow.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
    EXPECT_EQ(get(getPort(), "/").status, 200); // others are served
    EXPECT_TRUE(slow.readToEnd());
}

TEST_F(KRWebLoad, RequestsAreBounded) {
    startServer();
    RawConnection connection(getPort());
    ASSERT_TRUE(connection.write("GET / HTTP/1.1\r\nX: " + std::string(30000, 'x')));
    EXPECT_THAT(connection.readUntil("\r\n"), HasSubstr("413"));
    RawConnection garbage(getPort());
    ASSERT_TRUE(garbage.write(std::string("\x16\x03\x01\x02\x00\x01\xFC\x03\r\n\r\n", 12)));
    EXPECT_THAT(garbage.readUntil("\r\n"), HasSubstr("400"));
}

TEST_F(KRWebLoad, FramesSentWithTheUpgradeAreRead) {
    startServer();
    RawConnection client(getPort());
    // In one piece, so that the request's parser gets the frames, too.
    ASSERT_TRUE(
        client.write(kUpgrade + makeFrame(1, R"({"op":"first"})") + makeFrame(1, R"({"op":"second"})")));
    EXPECT_THAT(client.readUntil("the operation first"), HasSubstr("the operation first"));
    EXPECT_THAT(client.readUntil("the operation second"), HasSubstr("the operation second"));
}

TEST_F(KRWebLoad, GarbageIsAnsweredWithTheReason) {
    startServer();
    WebClient client(getPort());
    const auto expectStatus = [&](const std::string& text) {
        const Json status = client.readText("status");
        EXPECT_THAT(status.at("message").get<std::string>(), HasSubstr(text));
    };
    client.sendText("no JSON");
    expectStatus("not a JSON object");
    client.sendText("[" + std::string(100000, '['));
    expectStatus("nested more than 128 deep");
    client.sendText("{}");
    expectStatus("\"op\" is missing");
    client.sendText(R"({"op":"subscribe"})");
    expectStatus("\"subscriptions\" is missing");
    client.sendText(R"({"op":"subscribe","subscriptions":[{"id":-1,"channelId":1}]})");
    expectStatus("\"id\" is not a number");
    client.sendText(R"({"op":"subscribe","subscriptions":[{"id":1,"channelId":99999}]})");
    expectStatus("there is no channel 99999");
    client.sendText(R"({"op":"unsubscribe","subscriptionIds":[5]})");
    expectStatus("there is no subscription 5");
    client.sendText(R"({"op":"fetchAsset"})");
    expectStatus("does not have the operation fetchAsset");
    client.sendBinary(std::string("\2\1", 2));
    expectStatus("ends too early");
    client.sendBinary(std::string("\1\1\1\1\1", 5));
    expectStatus("binary operation 1");
    try {
        client.sendText(std::string(2 << 20, ' '));
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the server may close before its end
    }
    EXPECT_TRUE(client.waitForEnd());
}

TEST_F(KRWebLoad, ErrorsOfOneMessageAreCountedNotListed) {
    startServer();
    WebClient client(getPort());
    Json list = Json::array();
    for (int i = 0; i < 1000; ++i) {
        list.push_back({{"id", i}, {"channelId", 99999}});
    }
    client.sendText(Json{{"op", "subscribe"}, {"subscriptions", list}}.dump());
    std::string text;
    int errors = 0;
    do {
        text = client.readText("status").at("message");
        ++errors;
    } while (text == "there is no channel 99999");
    EXPECT_EQ(text, "and 990 more errors in this message");
    EXPECT_EQ(errors, 11);
}

TEST_F(KRWebLoad, NamesOfSubscriptionsAreBounded) {
    startServer();
    WebClient client(getPort());
    const std::string longName(1025, 'x');
    client.sendText(
        Json{{"op", "subscribeParameterUpdates"}, {"parameterNames", Json::array({longName})}}.dump());
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("at most 1024 bytes"));
}

TEST_F(KRWebLoad, TheNumberOfDifferentPicturesIsBounded) {
    startCameras();
    startServer();
    std::vector<std::unique_ptr<RawConnection>> streams;
    for (int quality = 1; quality <= 32; ++quality) {
        streams.push_back(std::make_unique<RawConnection>(getPort()));
        ASSERT_TRUE(streams.back()->write("GET /camera/0.mjpeg?resolution=160x120&quality=" +
                                          std::to_string(quality) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
        ASSERT_THAT(streams.back()->readUntil("image/jpeg"), HasSubstr("image/jpeg"));
    }
    EXPECT_EQ(get(getPort(), "/camera/0.jpg?quality=99").status, 503);
    WebClient client(getPort());
    client.subscribe("/camera/0/image");
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("at most 32"));
}

// Control characters take six times as much space in JSON.
TEST_F(KRWebLoad, ValuesTooLongAsJsonAreLeftOut) {
    startServer();
    KRMemoryProxy memory(broker_);
    memory.insertData("Sample/Long", std::string(3 << 20, '\1'));
    WebClient client(getPort());
    const std::uint32_t log = client.subscribe("/log");
    const std::uint32_t value = client.subscribe("/memory/Sample/Long");
    EXPECT_THAT(client.readJson(log).at("text").get<std::string>(), HasSubstr("is left out: as JSON"));
    EXPECT_THAT(client.call("/KRMemory/getData", {{"key", "Sample/Long"}}).at("failure").get<std::string>(),
                HasSubstr("the limit is 8388608"));
    memory.insertData("Sample/Long", 1);
    EXPECT_EQ(client.readJson(value).at("value"), 1);
}

TEST_F(KRWebLoad, AClientThatDoesNotReadIsDropped) {
    startCameras({"test:snow"}); // large pictures
    startServer({.patience = std::chrono::milliseconds(1000)});
    RawConnection stalled(getPort(), 4096);
    ASSERT_TRUE(stalled.write(kUpgrade));
    ASSERT_THAT(stalled.readUntil("\r\n\r\n"), HasSubstr("101"));
    const std::uint32_t channel = findChannel("/camera/0/image");
    const Json subscription = {{"id", 1}, {"channelId", channel}};
    ASSERT_TRUE(stalled.write(
        makeFrame(1, Json{{"op", "subscribe"}, {"subscriptions", Json::array({subscription})}}.dump())));
    // Others are served meanwhile.
    WebClient client(getPort());
    const std::uint32_t log = client.subscribe("/log");
    const std::uint32_t images = client.subscribe("/camera/0/image");
    client.readData(images);
    const Json line = client.readJson(log);
    EXPECT_THAT(line.at("text").get<std::string>(), HasSubstr("did not read for 1000 ms"));
    EXPECT_EQ(line.at("level"), "warning");
    client.readData(images);
    client.readData(images);
    EXPECT_TRUE(stalled.readToEnd());
}

TEST_F(KRWebLoad, AHundredClientsGetTheSamePictures) {
    startCameras();
    startServer();
    std::vector<std::unique_ptr<WebClient>> clients;
    std::vector<std::uint32_t> subscriptions;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<WebClient>(getPort()));
        subscriptions.push_back(clients.back()->subscribe("/camera/0/image"));
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_FALSE(clients[i]->readData(subscriptions[i]).payload.empty());
    }
    EXPECT_EQ(countSubscriptions(), 1U);
    clients.clear();
    EXPECT_TRUE(becomesTrue([&] { return countSubscriptions() == 0; }));
}

TEST_F(KRWebLoad, ConnectionsAreBounded) {
    startServer();
    WebClient client(getPort());
    const std::uint32_t log = client.subscribe("/log");
    std::vector<std::unique_ptr<RawConnection>> connections;
    for (int i = 0; i < 255; ++i) {
        connections.push_back(std::make_unique<RawConnection>(getPort()));
    }
    for (int i = 0; i < 20; ++i) {
        RawConnection more(getPort());
        ASSERT_THAT(more.readUntil("\r\n"), HasSubstr("503"));
    }
    // The log counts all of them, but not one line each.
    int refused = 0;
    int lines = 0;
    for (; refused < 20; ++lines) {
        const std::string line = client.readJson(log).at("text");
        const int some = std::stoi(line.substr(std::string("refused ").size()));
        ASSERT_EQ(line, "refused " + std::to_string(some) + (some == 1 ? " connection" : " connections") +
                            ": there are 256 already");
        refused += some;
    }
    EXPECT_EQ(refused, 20);
    EXPECT_LT(lines, 20);
    connections.clear();
    EXPECT_TRUE(becomesTrue([&] { return get(getPort(), "/").status == 200; }));
}

TEST_F(KRWebLoad, SubscriptionsPerClientAreBounded) {
    startServer();
    KRMemoryProxy memory(broker_);
    for (int i = 0; i < 1100; ++i) {
        memory.insertData("Sample/" + std::to_string(i), i);
    }
    WebClient client(getPort());
    client.waitForChannel("/memory/Sample/1099");
    Json list = Json::array();
    for (int i = 0; i < 1100; ++i) {
        list.push_back(
            {{"id", i},
             {"channelId", client.waitForChannel("/memory/Sample/" + std::to_string(i)).at("id")}});
    }
    client.sendText(Json{{"op", "subscribe"}, {"subscriptions", list}}.dump());
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("at most 1024"));
    EXPECT_EQ(client.readJson(1000).at("value"), 1000);
}

TEST_F(KRWebLoad, TheServerEndsWithItsClientsConnected) {
    startCameras();
    startServer();
    WebClient client(getPort());
    const std::uint32_t id = client.subscribe("/camera/0/image");
    client.readData(id);
    server_.reset();
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_EQ(countSubscriptions(), 0U);
}

} // namespace
} // namespace KR
