// Behaviour between processes when one of them is killed or frozen at any moment.

#include "krlocal/krlocalendpoint.hpp"

#include "images.hpp"
#include "otherprocess.hpp"
#include "patience.hpp"
#include "processuse.hpp"
#include "testservice.hpp"

#include <krplatform/krerror.hpp>

#include <gtest/gtest.h>

#include <grp.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

namespace KR {
namespace {

using test::fetchImage;
using test::isImage;
using test::kPatience;
using test::OtherProcess;
using test::readMappedMemory;

constexpr std::size_t kSmall = 614400;
constexpr std::size_t kLarge = 2457600;
constexpr int kRounds = 50;

KRLocalAddress getAddress(const OtherProcess& process) {
    KRLocalAddress address;
    std::istringstream(process.getAnswer()) >> address.machine >> address.socket >> address.secret;
    return address;
}

std::vector<std::string> toFetchFrom(const KRLocalAddress& address) {
    return {"fetch", address.machine, address.socket, address.secret};
}

/// A server in this process, from which others fetch images.
class KRLocalReaders : public testing::Test {
protected:
    void TearDown() override { endpoint.stop(); }
    /// Whether this process also serves another client.
    bool servesOthers() {
        const auto connection = endpoint.connect(endpoint.getAddress(), kPatience, {});
        return isImage(fetchImage(*connection, kSmall));
    }
    bool hasEverythingBack() {
        return test::eventually([&] { return endpoint.getStatistics().lent == 0; });
    }

    std::atomic<std::uint64_t> served = 0;
    test::TestService service{[this](KRLocalRequest& request) {
        test::serveImages(request);
        ++served;
    }};
    KRLocalEndpoint endpoint{KRLocalOptions{"this process", "", std::size_t{64} << 20}, service};
    std::mt19937 random{7};
};

TEST_F(KRLocalReaders, ThatAreKilledGiveEverythingBack) {
    std::size_t memory = 0;
    std::size_t resident_kB = 0;
    for (int round = 0; round < kRounds; ++round) {
        OtherProcess reader(toFetchFrom(endpoint.getAddress()));
        ASSERT_EQ(reader.getAnswer(), "ready");
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        reader.kill();
        ASSERT_TRUE(hasEverythingBack()) << "round " << round;
        ASSERT_TRUE(servesOthers());
        if (round == 5) {
            memory = endpoint.getStatistics().memory;
            resident_kB = readMappedMemory().resident_kB;
        }
    }
    EXPECT_TRUE(test::eventually([&] { return endpoint.getStatistics().connections == 0; }));
    EXPECT_LE(endpoint.getStatistics().memory, memory);
    EXPECT_LE(readMappedMemory().resident_kB, resident_kB + 2 * kLarge / 1024); // a slot not used until then
    EXPECT_EQ(endpoint.getStatistics().streamed, 0u);
}

TEST_F(KRLocalReaders, ThatAreFrozenKeepOnlyWhatTheyHave) {
    OtherProcess frozen(toFetchFrom(endpoint.getAddress()));
    OtherProcess other(toFetchFrom(endpoint.getAddress()));
    ASSERT_EQ(frozen.getAnswer(), "ready");
    ASSERT_EQ(other.getAnswer(), "ready");
    for (int round = 0; round < kRounds; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        frozen.freeze();
        const std::uint64_t before = served;
        EXPECT_TRUE(servesOthers());
        EXPECT_TRUE(test::eventually([&] { return served > before + 5; })); // the other one goes on
        EXPECT_LE(endpoint.getStatistics().lent, 16u);
        frozen.thaw();
    }
    EXPECT_EQ(frozen.stop(), 0);
    EXPECT_EQ(other.stop(), 0);
    EXPECT_TRUE(hasEverythingBack());
    EXPECT_EQ(endpoint.getStatistics().streamed, 0u);
}

TEST_F(KRLocalReaders, ThatAreKilledWhileFrozenGiveEverythingBack) {
    OtherProcess reader(toFetchFrom(endpoint.getAddress()));
    ASSERT_EQ(reader.getAnswer(), "ready");
    reader.freeze();
    EXPECT_GT(endpoint.getStatistics().lent, 0u);
    reader.kill();
    EXPECT_TRUE(hasEverythingBack());
}

/// A server in another process, from which this one fetches images.
class KRLocalServers : public testing::Test {
protected:
    std::shared_ptr<KRLocalConnection> connect(const OtherProcess& server) {
        return endpoint.connect(getAddress(server), kPatience, [this](const std::string&) { ++gone; });
    }

    std::atomic<int> gone = 0;
    test::TestService idle;
    KRLocalEndpoint endpoint{KRLocalOptions{"this process", ""}, idle};
    std::mt19937 random{8};
};

TEST_F(KRLocalServers, ThatAreKilledFailTheCallsToThemAndLeaveTheirImages) {
    const OtherProcess undisturbed({"serve"});
    const auto other = connect(undisturbed);
    fetchImage(*other, kSmall);
    std::size_t mappings = 0;
    for (int round = 0; round < kRounds; ++round) {
        OtherProcess server({"serve"});
        const auto connection = connect(server);
        KRBinary kept = fetchImage(*connection, kLarge);
        std::vector<std::thread> callers;
        for (int i = 0; i < 3; ++i) {
            callers.emplace_back([&] {
                try {
                    for (;;) {
                        EXPECT_TRUE(isImage(fetchImage(*connection, kSmall)));
                    }
                } catch (const KRError&) { // as it must end
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        server.kill();
        for (std::thread& caller : callers) {
            caller.join();
        }
        EXPECT_TRUE(test::eventually([&] { return gone == round + 1; }));
        EXPECT_FALSE(connection->isOpen());
        EXPECT_TRUE(isImage(kept));
        EXPECT_TRUE(isImage(fetchImage(*other, kSmall)));
        if (round == 0) {
            mappings = readMappedMemory().mappings;
        }
    }
    EXPECT_TRUE(test::eventually([&] { return readMappedMemory().mappings <= mappings; }));
}

TEST_F(KRLocalServers, ThatAreFrozenAnswerWhenTheyGoOn) {
    const OtherProcess server({"serve"});
    const OtherProcess undisturbed({"serve"});
    const auto connection = connect(server);
    const auto other = connect(undisturbed);
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<bool> ending = false;
        std::thread caller([&] {
            while (!ending) {
                EXPECT_TRUE(isImage(fetchImage(*connection, kSmall)));
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        server.freeze();
        EXPECT_TRUE(isImage(fetchImage(*other, kSmall)));
        ending = true;
        server.thaw();
        caller.join();
    }
    EXPECT_EQ(gone, 0);
}

TEST_F(KRLocalServers, ThatAreKilledAreNoticedWithoutACall) {
    OtherProcess server({"serve"});
    const auto connection = connect(server);
    server.kill();
    EXPECT_TRUE(test::eventually([&] { return gone == 1; }));
}

TEST_F(KRLocalServers, AnswerAHundredCallersAtOnce) {
    const OtherProcess server({"serve"});
    const auto connection = connect(server);
    std::vector<std::thread> callers;
    std::atomic<int> wrong = 0;
    for (int caller = 0; caller < 100; ++caller) {
        callers.emplace_back([&, caller] {
            for (int i = 0; i < 20; ++i) {
                const auto number = static_cast<std::uint32_t>(caller * 1000 + i);
                wrong += connection->call(test::makeMessage(number, "")).code != number ? 1 : 0;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(wrong, 0);
}

/// How often the threads of a process have waited.
std::int64_t countAllWaits(pid_t process) {
    std::int64_t count = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) {
                count += std::stoll(line.substr(line.find(':') + 1));
            }
        }
    }
    return count;
}

TEST_F(KRLocalServers, WakeOneThreadOnEachSideForACallWithOrWithoutAnImage) {
    const OtherProcess server({"serve"});
    const auto connection = connect(server);
    const KRBinary outside = test::makeBinary(kSmall, 5); // copied on its way there and back
    const std::vector<std::function<void()>> kinds{
        [&] { connection->call(test::makeMessage(1, "")); },
        [&] { fetchImage(*connection, kSmall); },
        [&] { connection->call(test::makeMessage(1, "", {outside})); },
    };
    constexpr int kCalls = 400;
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
        kinds[kind]();
        const std::int64_t before = countAllWaits(getpid()) + countAllWaits(server.getPid());
        for (int i = 0; i < kCalls; ++i) {
            kinds[kind]();
        }
        const std::int64_t waits = countAllWaits(getpid()) + countAllWaits(server.getPid()) - before;
        EXPECT_LE(waits, 2 * kCalls + kCalls / 4) << kind; // the threads that tick wait, too
    }
}

TEST_F(KRLocalServers, GetTheirMemoryBackFromAnIdleClient) {
    const OtherProcess server({"serve"});
    const auto connection = connect(server);
    fetchImage(*connection, kLarge);
    const std::size_t before = readMappedMemory().mappings;
    // The server frees it after a few idle seconds, and says so.
    EXPECT_TRUE(test::eventually([&] { return readMappedMemory().mappings < before; }));
    EXPECT_TRUE(isImage(fetchImage(*connection, kLarge)));
}

/// How often the threads of endpoints in this process have waited for something.
long countWaits() {
    long count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        std::ifstream status(task.path() / "status");
        for (std::string line; name == "KRLocal" && std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) {
                count += std::stol(line.substr(line.find('\t')));
            }
        }
    }
    return count;
}

TEST_F(KRLocalServers, DoNotWakeTheThreadOfAClientUntilThereIsMemoryToLookAfter) {
    const OtherProcess server({"serve"});
    const auto connection = connect(server);
    EXPECT_EQ(connection->call(test::makeMessage(7, "")).code, 7U);
    EXPECT_TRUE(test::eventually([] { // with memory it wakes once a second
        const long before = countWaits();
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        return countWaits() == before;
    }));
    fetchImage(*connection, kLarge);
    const std::size_t before = readMappedMemory().mappings;
    EXPECT_TRUE(test::eventually([&] { return readMappedMemory().mappings < before; }));
}

TEST_F(KRLocalReaders, MayComeLaterThanMemoryThatIsNotUsed) {
    KRBinary::allocate(kLarge);
    EXPECT_GT(endpoint.getStatistics().memory, 0U);
    EXPECT_TRUE(test::eventually([&] { return endpoint.getStatistics().memory == 0; }));
}

TEST(KRLocalEndpoint, FreesMemoryThatAnEarlierOneHasLeft) {
    test::TestService service;
    {
        KRLocalEndpoint earlier(KRLocalOptions{"earlier", ""}, service);
        KRBinary::allocate(kLarge);
        earlier.stop();
    }
    KRLocalEndpoint endpoint(KRLocalOptions{"this process", ""}, service);
    EXPECT_GT(endpoint.getStatistics().memory, 0U);
    EXPECT_TRUE(test::eventually([&] { return endpoint.getStatistics().memory == 0; }));
    endpoint.stop();
}

std::vector<std::string> operator+(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// Whether this process may start others as another user, who can read the test program.
bool canChangeUser() {
    return geteuid() == 0 &&
           OtherProcess({"as", "65534", "65534", "serve"}).getAnswer().find("krvision-") != std::string::npos;
}

TEST(KRLocalUsers, OfDifferentUsersNeitherConnects) {
    if (!canChangeUser()) {
        GTEST_SKIP() << "must run as root";
    }
    test::TestService service(test::serveImages);
    KRLocalEndpoint endpoint(KRLocalOptions{"this process", ""}, service);
    const OtherProcess reader(std::vector<std::string>{"as", "65534", "65534"} +
                              toFetchFrom(endpoint.getAddress()));
    EXPECT_EQ(reader.getAnswer().find("process " + std::to_string(getpid()) + " is of user 0"), 0u)
        << reader.getAnswer();
    EXPECT_TRUE(test::eventually([&] { return endpoint.getStatistics().refused == 1; }));
    endpoint.stop();
}

TEST(KRLocalUsers, OfOneGroupConnectIfBothNameIt) {
    if (!canChangeUser() || getgrnam("nogroup") == nullptr) {
        GTEST_SKIP() << "must run as root, where there is a group named nogroup";
    }
    const std::string gid = std::to_string(getgrnam("nogroup")->gr_gid);
    const OtherProcess server({"as", "65534", gid, "in", "nogroup", "serve"});
    OtherProcess member(std::vector<std::string>{"as", "1", gid, "in", "nogroup"} +
                        toFetchFrom(getAddress(server)));
    EXPECT_EQ(member.getAnswer(), "ready");
    EXPECT_EQ(member.stop(), 0);
    const OtherProcess stranger(std::vector<std::string>{"as", "1", "1", "in", "nogroup"} +
                                toFetchFrom(getAddress(server)));
    EXPECT_NE(stranger.getAnswer(), "ready");
    const OtherProcess unaware(std::vector<std::string>{"as", "1", gid} + toFetchFrom(getAddress(server)));
    EXPECT_NE(unaware.getAnswer(), "ready");
}

} // namespace
} // namespace KR
