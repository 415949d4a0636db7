#include "krlocal/krlocalendpoint.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"
#include "testservice.hpp"

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace KR {
namespace {

using test::kPatience;
using test::makeBinary;
using test::makeMessage;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr std::size_t kImage = 614400;

/// A server and a client, each with an endpoint of its own.
class Connection : public testing::Test {
protected:
    void serve(test::TestService::Function function, KRLocalOptions options = {"server", ""}) {
        connection = nullptr;
        server = nullptr;
        service = std::make_unique<test::TestService>(std::move(function));
        server = std::make_unique<KRLocalEndpoint>(std::move(options), *service);
        connection = connect();
    }
    void serveEcho() {
        serve([](KRLocalRequest& request) { request.reply(request.message); });
    }
    std::shared_ptr<KRLocalConnection> connect() {
        return client->connect(server->getAddress(), kPatience, [this](const std::string& why) {
            const std::lock_guard lock(mutex);
            gone.push_back(why);
        });
    }
    std::vector<std::string> getGone() const {
        const std::lock_guard lock(mutex);
        return gone;
    }

    mutable std::mutex mutex;
    std::vector<std::string> gone;
    test::TestService idle;
    std::unique_ptr<KRLocalEndpoint> client =
        std::make_unique<KRLocalEndpoint>(KRLocalOptions{"client", ""}, idle);
    std::unique_ptr<test::TestService> service;
    std::unique_ptr<KRLocalEndpoint> server;
    std::shared_ptr<KRLocalConnection> connection;
};

TEST_F(Connection, ACallIsAnsweredWithWhatTheServerReplies) {
    serve([](KRLocalRequest& request) {
        request.reply(
            makeMessage(request.message.code + 1, request.message.body + " from " + request.getCaller()));
    });
    const KRLocalMessage reply = connection->call(makeMessage(41, "hello"));
    EXPECT_EQ(reply.code, 42u);
    EXPECT_EQ(reply.body, "hello from client");
    EXPECT_TRUE(connection->isOpen());
}

TEST_F(Connection, BodiesAndBinariesOfEverySizeComeBackAsTheyWent) {
    serveEcho();
    for (const std::size_t size : {0, 1, 4095, 16383, 16384, 65400, 65536, 200000, 3000000}) {
        const std::string body(size, 'b');
        std::vector<KRBinary> binaries{makeBinary(size, 1), makeBinary(0, 2), makeBinary(100, 3),
                                       makeBinary(size, 4)};
        const KRLocalMessage reply = connection->call(makeMessage(0, body, binaries));
        EXPECT_EQ(reply.body, body);
        EXPECT_EQ(reply.binaries, binaries) << size;
    }
}

TEST_F(Connection, WithoutSharedMemoryEverythingGoesThroughTheSocket) {
    serve([](KRLocalRequest& request) { request.reply(request.message); }, {"server", "", 0});
    const std::vector<KRBinary> binaries{makeBinary(3000000, 1), makeBinary(16384, 2), makeBinary(16384, 3)};
    const KRLocalMessage reply = connection->call(makeMessage(0, std::string(100000, 'b'), binaries));
    EXPECT_EQ(reply.body.size(), 100000u);
    EXPECT_EQ(reply.binaries, binaries);
    EXPECT_EQ(server->getStatistics().shared, 0u);
    EXPECT_EQ(server->getStatistics().streamed, 3u);
}

TEST_F(Connection, AnAllocatedBinaryIsHandedOverInPlace) {
    const auto bytes = KRBinary::allocate(kImage);
    std::fill_n(bytes.get(), kImage, static_cast<unsigned char>(1));
    KRLocalMessage got;
    serve([&](KRLocalRequest& request) {
        got = request.message;
        request.reply({});
    });
    connection->call(makeMessage(0, "", {KRBinary(bytes, kImage)}));
    ASSERT_EQ(got.binaries.size(), 1u);
    EXPECT_NE(got.binaries[0].data(), bytes.get());
    bytes[7] = 9; // nobody else may do that; shows that nothing was copied
    EXPECT_EQ(got.binaries[0].data()[7], 9);
    EXPECT_EQ(client->getStatistics().lent, 1u);
    got = {};
    // The request that had it as well ends a little after its reply.
    EXPECT_TRUE(test::eventually([&] { return client->getStatistics().lent == 0; }));
}

TEST_F(Connection, AReceiverThatKeepsTooMuchGetsTheRestThroughTheSocket) {
    serve([](KRLocalRequest& request) { request.reply(makeMessage(0, "", {makeBinary(kImage, 7)})); },
          {"server", "", 8 << 20});
    std::vector<KRLocalMessage> kept;
    for (int i = 0; i < 40; ++i) {
        kept.push_back(connection->call({}));
        EXPECT_EQ(kept.back().binaries[0].data()[kImage - 1], 7);
    }
    const KRLocalStatistics full = server->getStatistics();
    EXPECT_GT(full.shared, 0u);
    EXPECT_GT(full.streamed, 0u);
    EXPECT_LE(full.memory, 8u << 20);
    kept.clear();
    connection->call({});
    EXPECT_EQ(server->getStatistics().shared, full.shared + 1);
    EXPECT_TRUE(test::eventually([&] { return server->getStatistics().lent == 0; }));
}

TEST_F(Connection, AHundredCallersAtOnceEachGetTheirOwnReply) {
    serve([](KRLocalRequest& request) { request.reply(request.message); });
    std::atomic<int> wrong = 0;
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 100; ++caller) {
        callers.emplace_back([&, caller] {
            for (int i = 0; i < 30; ++i) {
                const std::string body = std::to_string(caller) + "/" + std::to_string(i);
                const bool image = i % 10 == 0;
                std::vector<KRBinary> binaries;
                if (image) {
                    binaries.push_back(makeBinary(20000, static_cast<unsigned char>(caller)));
                }
                const KRLocalMessage reply = connection->call(makeMessage(0, body, binaries));
                wrong += reply.body != body || reply.binaries != binaries ? 1 : 0;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(Connection, CallsThatTakeLongHoldUpNoOther) {
    test::Event release;
    std::atomic<int> running = 0;
    serve([&](KRLocalRequest& request) {
        if (request.message.body == "long") {
            ++running;
            EXPECT_TRUE(release.wait());
        }
        request.reply(request.message);
    });
    std::vector<std::thread> callers;
    for (int i = 0; i < 20; ++i) {
        callers.emplace_back([&] { EXPECT_EQ(connection->call(makeMessage(0, "long")).body, "long"); });
    }
    {
        const test::SetAtEnd atEnd(release);
        EXPECT_TRUE(test::eventually([&] { return running == 20; }));
        EXPECT_EQ(connection->call(makeMessage(0, "short")).body, "short");
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
}

TEST_F(Connection, CallsThatWaitForEachOtherAllMeet) {
    constexpr int kCallers = 6;
    constexpr int kRounds = 300;
    std::mutex meeting;
    std::condition_variable changed;
    int met = 0;
    std::atomic<int> alone = 0;
    serve([&](KRLocalRequest& request) {
        if (request.message.body == "meet") {
            std::unique_lock lock(meeting);
            const int round = met++ / kCallers;
            changed.notify_all();
            alone += changed.wait_for(lock, kPatience, [&] { return met >= (round + 1) * kCallers; }) ? 0 : 1;
        }
        request.reply(request.message);
    });
    std::vector<std::thread> callers;
    for (int caller = 0; caller < kCallers; ++caller) {
        callers.emplace_back([&, caller] {
            for (int round = 0; round < kRounds && alone == 0; ++round) {
                for (int i = 0; i < (caller + round) % 3; ++i) {
                    connection->call(makeMessage(0, "short"));
                }
                connection->call(makeMessage(0, "meet"));
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(alone, 0);
    EXPECT_EQ(met, kCallers * kRounds);
}

TEST_F(Connection, ACallAfterAPauseIsAnswered) {
    serveEcho();
    for (const int pause_ms :
         {0, 190, 200, 210, 300}) { // about as long as a thread waits for one caller alone
        std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        EXPECT_EQ(connection->call(makeMessage(0, "here again")).body, "here again");
    }
}

TEST_F(Connection, MoreCallersThanThreadsThatWaitForOneAreServed) {
    serveEcho();
    std::vector<std::shared_ptr<KRLocalConnection>> connections;
    for (int i = 0; i < 40; ++i) {
        connections.push_back(connect());
    }
    for (int round = 0; round < 20; ++round) {
        for (const auto& each : connections) {
            EXPECT_EQ(each->call(makeMessage(0, "one of many")).body, "one of many");
        }
    }
}

/// A connection through which several threads call at once, again and again.
class BusyConnection : public Connection {
protected:
    static constexpr int kCallers = 4;

    /// Serves calls that are answered once kCallers of them are there.
    void serveMeetings(KRLocalOptions options = {"server", ""}, const KRBinary& answer = {}) {
        serve(
            [this, answer](KRLocalRequest& request) {
                if (request.message.body == "meet") {
                    std::unique_lock lock(meeting_);
                    const int round = met_++ / kCallers;
                    changed_.notify_all();
                    EXPECT_TRUE(
                        changed_.wait_for(lock, kPatience, [&] { return met_ >= (round + 1) * kCallers; }));
                }
                request.reply(makeMessage(0, request.message.body, {answer}));
            },
            std::move(options));
    }
    static void meet(KRLocalConnection& through) {
        std::vector<std::thread> callers;
        for (int i = 0; i < kCallers; ++i) {
            callers.emplace_back([&] { EXPECT_EQ(through.call(makeMessage(0, "meet")).body, "meet"); });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
    }
    /// Until each of the calls that meet has a socket.
    [[nodiscard]] bool meetUntilEachHasASocket() {
        return test::eventually([&] {
            meet(*connection);
            return server->getStatistics().connections == kCallers;
        });
    }

private:
    std::mutex meeting_;
    std::condition_variable changed_;
    int met_ = 0;
};

TEST_F(BusyConnection, HasASocketForEachCallAtOnceUntilTheyAreNotNeeded) {
    serveMeetings();
    ASSERT_TRUE(meetUntilEachHasASocket());
    EXPECT_TRUE(test::eventually([&] { return server->getStatistics().connections == 1; }));
    EXPECT_EQ(connection->call(makeMessage(0, "alone")).body, "alone");
    meet(*connection);
    EXPECT_TRUE(connection->isOpen());
    EXPECT_TRUE(getGone().empty());
    EXPECT_TRUE(service->getGone().empty());
}

TEST_F(BusyConnection, EndsOnceForBothSidesHoweverManySocketsItHas) {
    serveMeetings();
    ASSERT_TRUE(meetUntilEachHasASocket());
    connection->close("enough");
    EXPECT_THAT(getGone(), ElementsAre("enough"));
    EXPECT_THAT([&] { connection->call({}); }, ThrowsMessage<KRError>(HasSubstr("enough")));
    EXPECT_TRUE(test::eventually([&] { return !service->getGone().empty(); }));
    EXPECT_EQ(server->getStatistics().connections, 0U);
    EXPECT_THAT(service->getGone(), ElementsAre("client"));

    connection = connect();
    ASSERT_TRUE(meetUntilEachHasASocket());
    server->stop();
    EXPECT_TRUE(test::eventually([&] { return getGone().size() == 2; }));
    EXPECT_FALSE(connection->isOpen());
}

TEST_F(BusyConnection, IsLentHalfOfThePoolThroughAllOfItsSockets) {
    constexpr std::size_t kMemory = 8 << 20;
    serveMeetings({"server", "", kMemory}, makeBinary(kImage, 7));
    ASSERT_TRUE(meetUntilEachHasASocket());
    std::mutex keeping;
    std::vector<KRLocalMessage> kept;
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.emplace_back([&] {
            for (int fetch = 0; fetch < 10; ++fetch) {
                KRLocalMessage reply = connection->call(makeMessage(0, "meet"));
                const std::lock_guard lock(keeping);
                kept.push_back(std::move(reply));
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(server->getStatistics().connections, kCallers);
    EXPECT_LE(server->getStatistics().lent, kMemory / 2 / kImage);
    EXPECT_GT(server->getStatistics().lent, 1U);
    const std::uint64_t streamed = server->getStatistics().streamed;
    kept.clear();
    for (std::size_t image = 0; image < kMemory / 2 / kImage; ++image) {
        kept.push_back(connection->call({})); // through the first socket
    }
    EXPECT_EQ(server->getStatistics().streamed, streamed)
        << "what came back through the others counts no more";
}

TEST_F(BusyConnection, SharesASocketWhereThereAreTooMany) {
    constexpr std::size_t kSockets = 128; // from which on no side opens further ones for a connection
    const test::RecordedLog log;
    serveMeetings();
    std::vector<std::shared_ptr<KRLocalConnection>> connections{connection};
    while (connections.size() < kSockets) {
        connections.push_back(connect());
    }
    test::TestService otherService;
    KRLocalEndpoint other({"other", ""}, otherService);
    connections.push_back(other.connect(server->getAddress(), kPatience, {}));
    for (int round = 0; round < 3; ++round) {
        meet(*connection);            // the client has too many
        meet(*connections[kSockets]); // the server has
    }
    EXPECT_EQ(server->getStatistics().connections, kSockets + 1);
    EXPECT_EQ(server->getStatistics().refused, 0U);
    EXPECT_TRUE(getGone().empty());
}

TEST_F(Connection, AServerMayCallItsCallerBack) {
    service = std::make_unique<test::TestService>([&](KRLocalRequest& request) {
        const auto back = server->connect(client->getAddress(), kPatience, {});
        request.reply(back->call(request.message));
    });
    test::TestService own([](KRLocalRequest& request) {
        request.reply(makeMessage(0, request.message.body + " by " + request.getCaller()));
    });
    client = std::make_unique<KRLocalEndpoint>(KRLocalOptions{"client", ""}, own);
    server = std::make_unique<KRLocalEndpoint>(KRLocalOptions{"server", ""}, *service);
    connection = connect();
    EXPECT_EQ(connection->call(makeMessage(0, "called back")).body, "called back by server");
    server->stop();
    client->stop();
}

TEST_F(Connection, ARequestThatIsDroppedFailsItsCall) {
    serve([](KRLocalRequest&) {});
    EXPECT_THAT([&] { connection->call({}); }, ThrowsMessage<KRError>(HasSubstr("was not answered")));
    EXPECT_TRUE(connection->isOpen());
}

TEST_F(Connection, OnlyTheFirstAnswerCounts) {
    serve([](KRLocalRequest& request) {
        request.reply(makeMessage(1, "first"));
        request.reply(makeMessage(2, "second"));
    });
    EXPECT_EQ(connection->call({}).body, "first");
    EXPECT_EQ(connection->call({}).body, "first");
}

TEST_F(Connection, AMessageBeyondTheBoundsIsAnErrorOfItsSenderAlone) {
    serve([](KRLocalRequest& request) {
        EXPECT_THROW(
            request.reply(makeMessage(0, "", std::vector<KRBinary>(KRLocalMessage::kMaxBinaries + 1))),
            KRError);
        request.reply(makeMessage(0, "small"));
    });
    EXPECT_THROW(
        connection->call(makeMessage(0, "", std::vector<KRBinary>(KRLocalMessage::kMaxBinaries + 1))),
        KRError);
    EXPECT_EQ(connection->call({}).body, "small");
}

TEST_F(Connection, AServerThatStopsFailsTheCallsUnderWay) {
    test::Event release;
    test::Event begun;
    serve([&](KRLocalRequest&) {
        begun.set();
        EXPECT_TRUE(release.wait());
    });
    std::thread caller([&] {
        EXPECT_THAT([&] { connection->call({}); },
                    ThrowsMessage<KRError>(HasSubstr("closed the connection")));
        release.set();
    });
    EXPECT_TRUE(begun.wait());
    server->stop();
    caller.join();
    EXPECT_FALSE(connection->isOpen());
    EXPECT_THROW(connection->call({}), KRError);
    EXPECT_EQ(getGone().size(), 1u);
}

TEST_F(Connection, ACallerThatStopsIsNoticed) {
    serveEcho();
    const auto second = connect();
    connection->call({});
    second->call({});
    second->close("enough");
    EXPECT_EQ(getGone().size(), 1u);
    EXPECT_THAT([&] { second->call({}); }, ThrowsMessage<KRError>(HasSubstr("enough")));
    EXPECT_TRUE(test::eventually([&] { return server->getStatistics().connections == 1; }));
    EXPECT_TRUE(service->getGone().empty()); // it has a connection yet
    client->stop();
    EXPECT_TRUE(test::eventually([&] { return !service->getGone().empty(); }));
    EXPECT_THAT(service->getGone(), ElementsAre("client"));
    EXPECT_EQ(getGone().size(), 1u);
    EXPECT_THROW(connection->call({}), KRError);
}

TEST_F(Connection, AClosedConnectionWakesEveryCaller) {
    test::Event release;
    std::atomic<int> begun = 0;
    serve([&](KRLocalRequest&) {
        ++begun;
        EXPECT_TRUE(release.wait());
    });
    std::atomic<int> failed = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 10; ++i) {
        callers.emplace_back([&] {
            EXPECT_THAT([&] { connection->call({}); }, ThrowsMessage<KRError>(HasSubstr("it is over")));
            ++failed;
        });
    }
    EXPECT_TRUE(test::eventually([&] { return begun == 10; }));
    connection->close("it is over");
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(failed, 10);
    release.set();
    server->stop(); // nobody waits any more
}

TEST_F(Connection, BinariesOutliveTheConnectionAndBothEndpoints) {
    serve([](KRLocalRequest& request) { request.reply(makeMessage(0, "", {makeBinary(kImage, 7)})); });
    const KRBinary got = connection->call({}).binaries[0];
    connection = nullptr;
    client->stop();
    server->stop();
    for (int i = 0; i < 20; ++i) { // would be written where the binary lies
        const auto other = KRBinary::allocate(kImage);
        std::fill_n(other.get(), kImage, static_cast<unsigned char>(9));
    }
    EXPECT_EQ(got, makeBinary(kImage, 7));
}

TEST_F(Connection, NeedsTheSecret) {
    serveEcho();
    test::RecordedLog log;
    KRLocalAddress address = server->getAddress();
    address.secret.back() = address.secret.back() == '0' ? '1' : '0';
    EXPECT_THAT([&] { client->connect(address, kPatience, {}); },
                ThrowsMessage<KRError>(HasSubstr("refuses the connection")));
    EXPECT_EQ(server->getStatistics().refused, 1u);
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "does not know the secret"));
    EXPECT_EQ(connection->call(makeMessage(0, "undisturbed")).body, "undisturbed");
}

TEST_F(Connection, IsOnlyMadeWhereSocketsReach) {
    serveEcho();
    KRLocalAddress address = server->getAddress();
    EXPECT_TRUE(address.isOnThisMachine());
    address.machine += "0";
    EXPECT_FALSE(address.isOnThisMachine());
    EXPECT_THAT([&] { client->connect(address, kPatience, {}); },
                ThrowsMessage<KRError>(HasSubstr("another machine")));
}

TEST_F(Connection, IsNotMadeToAnEndpointThatHasBeenStopped) {
    serveEcho();
    const KRLocalAddress address = server->getAddress();
    server->stop();
    EXPECT_EQ(client->connect(address, kPatience, {}), nullptr);
    server = nullptr;
    EXPECT_EQ(client->connect(address, kPatience, {}), nullptr);
}

TEST_F(Connection, IsOnlyMadeToTheProcessOfTheAddress) {
    serveEcho();
    KRLocalAddress address = server->getAddress();
    EXPECT_EQ(address.process, getpid());
    address.process = getppid();
    EXPECT_THAT([&] { client->connect(address, kPatience, {}); },
                ThrowsMessage<KRError>(HasSubstr("not process " + std::to_string(getppid()))));
}

TEST_F(Connection, AnAddressIsTheSameAfterItsWayThroughText) {
    serveEcho();
    const KRLocalAddress address = server->getAddress();
    const auto parsed = KRLocalAddress::parse(address.toText());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->toText(), address.toText());
    EXPECT_EQ(parsed->user, geteuid());
    EXPECT_NE(client->connect(*parsed, kPatience, {}), nullptr);
}

TEST(KRLocalAddress, IsNotReadFromOtherText) {
    const std::string good = "KRLocal/2 boot/1 1000 4711 krvision-0 secret";
    EXPECT_TRUE(KRLocalAddress::parse(good));
    for (const std::string& bad :
         {std::string(), std::string("KRLocal/2"), good + " more", "KRLocal/1" + good.substr(9),
          std::string("KRLocal/2 boot/1 user 4711 krvision-0 secret"),
          std::string("KRLocal/2 boot/1 1000 -4711 krvision-0 secret"), good + std::string(600, 'x'),
          good.substr(0, good.rfind(' '))}) {
        EXPECT_FALSE(KRLocalAddress::parse(bad)) << bad;
    }
}

TEST_F(Connection, AGroupThatDoesNotExistIsAnError) {
    EXPECT_THAT(
        [&] {
            KRLocalEndpoint(KRLocalOptions{"x", "no such group"}, idle);
        },
        ThrowsMessage<KRError>(HasSubstr("there is no group named no such group")));
    EXPECT_THROW(KRLocalEndpoint(KRLocalOptions{"", ""}, idle), KRError);
}

TEST_F(Connection, MoreRequestsThanMayRunWaitInTheSocket) {
    test::Event release;
    std::atomic<int> running = 0;
    serve([&](KRLocalRequest& request) {
        ++running;
        EXPECT_TRUE(release.wait());
        request.reply({});
    });
    std::atomic<int> answered = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 530; ++i) {
        callers.emplace_back([&] {
            connection->call({});
            ++answered;
        });
    }
    EXPECT_TRUE(test::eventually([&] { return running >= 512; }));
    EXPECT_LE(running, 512 + 15) << "one more for each further socket";
    release.set();
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(answered, 530);
}

TEST_F(Connection, ConnectionsComeAndGoWhileImagesFlow) {
    serve([](KRLocalRequest& request) { request.reply(makeMessage(0, "", {makeBinary(kImage, 7)})); });
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                const auto own = connect();
                std::vector<KRLocalMessage> kept;
                for (int fetch = 0; fetch < 5; ++fetch) {
                    kept.push_back(own->call({}));
                    EXPECT_EQ(kept.back().binaries[0].data()[kImage - 1], 7);
                }
                if (i % 2 == 0) {
                    own->close("enough");
                }
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_TRUE(test::eventually([&] { return server->getStatistics().connections == 1; }));
    EXPECT_TRUE(test::eventually([&] { return server->getStatistics().lent == 0; }));
}

} // namespace
} // namespace KR
