// Brokers of one machine that reach each other without DDS.

#include "otherprocess.hpp"
#include "sharedmemory.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <descriptorlimits.hpp>
#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krlocal/krhostdirectory.hpp>
#include <krlocal/krlocalendpoint.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <random>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace KR::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kImage = 614400;
const std::string kOptions = "local=on&lease=300"; // so that nothing is noticed by way of DDS
const std::vector<std::string> kServer{"module", "Server"};

/// How another process is called, as the broker says.
KRPeerDiagnostics describe(const KRBroker& broker, const OtherProcess& other) {
    for (const KRPeerDiagnostics& peer : broker.getDiagnostics().peers) {
        if (peer.location.starts_with("in process " + std::to_string(other.getPid()) + " ")) {
            return peer;
        }
    }
    return {};
}

bool isStillImage(const KRBinary& image, int size) {
    return image.size() == static_cast<std::size_t>(size) &&
           std::all_of(image.data(), image.data() + image.size(), [](unsigned char c) { return c == 'i'; });
}

/// A broker here, a module "Server" in another process.
class KRDDSLocal : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(server.getAnswer(), "ready");
        ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    }

    TestDomain domain;
    OtherProcess server{domain.getUrl(kOptions), kServer};
    boost::shared_ptr<KRBroker> broker = domain.createBroker(kOptions);
    boost::shared_ptr<KRProxy> proxy = broker->getProxy("Server");
};

TEST_F(KRDDSLocal, ABrokerOfThisMachineIsCalledThroughASocket) {
    EXPECT_EQ(proxy->call<int>("getPid"), server.getPid());
    const KRPeerDiagnostics peer = describe(*broker, server);
    EXPECT_TRUE(peer.local);
    EXPECT_EQ(peer.way, "socket and shared memory of this machine");
    EXPECT_EQ(peer.state, KRPeerDiagnostics::State::Connected);
}

TEST_F(KRDDSLocal, AnImageArrivesInTheSharedMemoryOfItsSender) {
    for (const char* method : {"allocateImage", "makeImage"}) { // the second one is copied there
        const auto image = proxy->call<KRBinary>(method, kImage);
        EXPECT_TRUE(isInSharedMemory(image));
        EXPECT_TRUE(isStillImage(image, kImage));
    }
}

TEST_F(KRDDSLocal, AnImageMayBeAnArgument) {
    const KRBinary image = KRBinary::copyOf(std::string(kImage, 'i').data(), kImage);
    EXPECT_TRUE(isStillImage(proxy->call<KRBinary>("echo", image), kImage));
}

TEST_F(KRDDSLocal, MoreImagesThanAMessageHandsOverGoThrough) {
    constexpr std::size_t kMany = 1100;
    const KRBinary image = KRBinary::copyOf(std::string(20000, 'i').data(), 20000);
    const auto got = proxy->call<KRValue>("echo", std::vector<KRValue>(kMany, image));
    ASSERT_EQ(got.getSize(), kMany);
    for (std::size_t i = 0; i < kMany; i += 100) {
        EXPECT_TRUE(isStillImage(got[i].to<KRBinary>(), 20000));
    }
}

TEST_F(KRDDSLocal, AProcessThatIsKilledIsNoticedWithoutACall) {
    server.kill();
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
}

TEST_F(KRDDSLocal, CallsToAProcessThatIsKilledFailAndItsModulesAreGoneByThen) {
    auto blocked = std::async(std::launch::async, [&] { return proxy->call<bool>("block"); });
    ASSERT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == 1; }));
    server.kill();
    try {
        resultOf(blocked);
        FAIL() << "there was an answer";
    } catch (const KRError& error) {
        EXPECT_THAT(error.getDescription(), HasSubstr("is gone or cannot be reached"));
    }
    EXPECT_TRUE(broker->getModuleList().empty());
}

TEST_F(KRDDSLocal, ModulesHearOfACallerThatIsKilled) {
    OtherProcess client(domain.getUrl(kOptions), {"module", "Client"});
    const auto clientProxy = broker->getProxy("Client");
    ASSERT_TRUE(broker->getSession().waitForService("Client", kPatience));
    ASSERT_TRUE(eventually([&] { return clientProxy->call<bool>("isReachable", "Server"); }));
    const auto caller = clientProxy->call<std::string>("callOther", "Server", "callerOf", "");
    client.kill();
    EXPECT_TRUE(eventually([&] { return !proxy->call<std::vector<std::string>>("getGone").empty(); }));
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getGone"), ElementsAre(caller));
}

TEST_F(KRDDSLocal, ABrokerThatLeavesIsNoticedThoughItsProcessStays) {
    auto second = domain.createBroker(kOptions);
    auto module = makeModule(second, "Here", [](TestModule& made) {
        made.add("echo", [](const KRValue& value) { return value; });
    });
    ASSERT_TRUE(broker->getSession().waitForService("Here", kPatience));
    EXPECT_EQ(broker->getProxy("Here")->call<int>("echo", 4), 4);
    module = {};
    second.reset();
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().peers.size() == 1; }));
    EXPECT_EQ(proxy->call<int>("echo", 5), 5);
}

TEST_F(KRDDSLocal, AProcessThatIsFrozenForAMomentGoesOn) {
    std::mt19937 random{8};
    std::atomic<bool> ending = false;
    std::thread caller([&] {
        while (!ending) {
            EXPECT_TRUE(isStillImage(proxy->call<KRBinary>("allocateImage", kImage), kImage));
        }
    });
    for (int round = 0; round < 50; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        server.freeze();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        server.thaw();
    }
    ending = true;
    caller.join();
    EXPECT_TRUE(describe(*broker, server).local);
}

TEST_F(KRDDSLocal, ABrokerWithoutADescriptorCallsOverDDSAndDisturbsNobody) {
    if (!kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    const RecordedLog log;
    const OtherProcess other(domain.getUrl(kOptions), {"module", "Other"});
    ASSERT_TRUE(broker->getSession().waitForService("Other", kPatience));
    EXPECT_EQ(broker->getProxy("Other")->call<int>("getPid"), other.getPid());
    {
        const AllDescriptorsTaken all;
        EXPECT_THROW(proxy->call<KRBinary>("allocateImage", kImage),
                     KRError); // its memory cannot be received
        EXPECT_TRUE(
            log.waitFor(KRLogLevel::Warning, "shared memory cannot be received: Too many open files"));
        EXPECT_TRUE(isStillImage(proxy->call<KRBinary>("allocateImage", kImage), kImage));
        EXPECT_THAT(describe(*broker, server).way, HasSubstr("DDS: no socket: Too many open files"));
        EXPECT_EQ(broker->getProxy("Other")->call<int>("getPid"), other.getPid());
        EXPECT_TRUE(describe(*broker, other).local);
    }
    EXPECT_TRUE(isStillImage(proxy->call<KRBinary>("allocateImage", kImage), kImage));
    EXPECT_EQ(proxy->call<std::vector<std::string>>("getGone").size(), 0U);
}

/// A module "Source" here that shares 8 MiB, and two processes that fetch images from it.
class KRDDSLocalSource : public testing::Test {
protected:
    static constexpr int kMegabyte = 1 << 20;

    void SetUp() override {
        for (const char* name : {"First", "Second"}) {
            ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
            ASSERT_TRUE(
                eventually([&] { return broker->getProxy(name)->call<bool>("isReachable", "Source"); }));
        }
    }
    /// Fetches images there. \return how many of them came in shared memory
    int keep(const std::string& process, int count) {
        return broker->getProxy(process)->call<int>("keepImages", "Source", count, kMegabyte);
    }

    TestDomain domain;
    boost::shared_ptr<KRBroker> broker = domain.createBroker(kOptions + "&local-memory=8M");
    KRModuleHandle<TestModule> source = makeModule(broker, "Source", [](TestModule& module) {
        module.add("allocateImage", [](int size) {
            const auto bytes = KRBinary::allocate(static_cast<std::size_t>(size));
            std::fill_n(bytes.get(), size, static_cast<unsigned char>('i'));
            return KRBinary(bytes, static_cast<std::size_t>(size));
        });
    });
    OtherProcess first{domain.getUrl(kOptions), {"module", "First"}};
    OtherProcess second{domain.getUrl(kOptions), {"module", "Second"}};
};

TEST_F(KRDDSLocalSource, WhatIsBeyondTheBoundGoesThroughTheSocketUntilThereIsRoom) {
    EXPECT_EQ(keep("First", 10), 4); // one process is lent half
    broker->getProxy("First")->call("dropImages");
    EXPECT_EQ(keep("First", 2), 2);
}

TEST_F(KRDDSLocalSource, AReceiverThatIsFrozenKeepsItsOwnSlotsAlone) {
    EXPECT_EQ(keep("First", 4), 4);
    first.freeze();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(keep("Second", 3), 3);
        broker->getProxy("Second")->call("dropImages");
    }
    first.thaw();
}

TEST_F(KRDDSLocalSource, WhatAReceiverHeldIsThereAgainOnceItIsKilled) {
    EXPECT_EQ(keep("First", 4), 4);
    EXPECT_EQ(keep("Second", 3), 3);
    first.kill();
    second.kill();
    const OtherProcess third(domain.getUrl(kOptions), {"module", "Third"});
    ASSERT_TRUE(broker->getSession().waitForService("Third", kPatience));
    ASSERT_TRUE(eventually([&] { return broker->getProxy("Third")->call<bool>("isReachable", "Source"); }));
    EXPECT_EQ(keep("Third", 4), 4);
}

/// Connects to the broker of a test as a program of its own design does.
class Liar : public KRLocalService {
public:
    explicit Liar(const std::string& id) : endpoint_(KRLocalOptions{id, ""}, *this) {}
    ~Liar() override {
        endpoint_.stop();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    void post(std::function<void()> job) override { threads_.emplace_back(std::move(job)); }
    void serve(std::shared_ptr<KRLocalRequest>) noexcept override {}
    void noticeCallerGone(const std::string&) noexcept override {}

    /// \return why there was no answer to a call of this body
    std::string send(const KRLocalAddress& address, const std::string& body) {
        KRLocalMessage request;
        request.body = body;
        try {
            endpoint_.connect(address, kPatience, {})->call(request);
        } catch (const KRError& error) {
            return error.getDescription();
        }
        return "no error";
    }

private:
    std::vector<std::thread> threads_;
    KRLocalEndpoint endpoint_;
};

/// Tells who calls it.
class AskedHere : public TestModule {
public:
    AskedHere(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : TestModule(std::move(broker), name) {
        add("callerOf", [this](const KRValue&) { return xGetCaller(); });
    }
};

TEST_F(KRDDSLocal, ACallInTheNameOfAnotherBrokerIsDroppedAndCounted) {
    Stranger stranger(domain.getNumber());
    const auto here = createModule<AskedHere>(broker, "Here");
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Here"); }));
    const auto victim = proxy->call<std::string>("callOther", "Here", "callerOf", "");
    const auto address = KRLocalAddress::parse(stranger.findUserData(victim, true));
    ASSERT_TRUE(address);
    EXPECT_EQ(address->process, getpid());
    EXPECT_EQ(Liar(victim).send(*address, "anything"), "the call was not answered");
    EXPECT_EQ(broker->getDiagnostics().refusedMessages, 1U);
    EXPECT_EQ(proxy->call<std::string>("callOther", "Here", "callerOf", ""), victim);
}

TEST_F(KRDDSLocal, ARequestThatIsMalformedIsDroppedAndCounted) {
    Stranger stranger(domain.getNumber());
    const auto own = proxy->call<std::string>("getCaller");
    const auto address = KRLocalAddress::parse(stranger.findUserData(own));
    ASSERT_TRUE(address);
    Liar liar(stranger.getId());
    const std::vector<std::string> bodies{"",
                                          "\x01",
                                          "\x92\xa1m\xa1n",     // no arguments
                                          "\x93\xa1m\x01\x90",  // a number for a method
                                          "\x93\xa1m\xa1n\x01", // a number for the arguments
                                          std::string("\x93\xa1m\xa1n\x91\xd6\x01\0\0\0\x07", 12), // binary 7
                                          "\x93\xa1m\xa1n\x90\x90"};
    for (const std::string& body : bodies) {
        EXPECT_EQ(liar.send(*address, body), "the call was not answered");
    }
    // Counted once they have been dropped.
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().malformedMessages == bodies.size(); }));
    EXPECT_EQ(proxy->call<int>("echo", 4), 4);
}

/// Makes a call both ways, and checks how.
void checkCalls(const TestDomain& domain, const std::string& options, const OtherProcess& other,
                const std::string& way) {
    ASSERT_EQ(other.getAnswer(), "ready");
    const auto broker = domain.createBroker(options);
    ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    const auto proxy = broker->getProxy("Server");
    const auto image = proxy->call<KRBinary>("makeImage", kImage);
    EXPECT_TRUE(isStillImage(image, kImage));
    const KRPeerDiagnostics peer = describe(*broker, other);
    EXPECT_THAT(peer.way, HasSubstr(way));
    EXPECT_EQ(isInSharedMemory(image), peer.local);
    const auto here = makeModule(broker, "Here", [](TestModule& module) {
        module.add("echo", [](const KRValue& value) { return value; });
    });
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Here"); }));
    EXPECT_EQ(proxy->call<KRValue>("callOther", "Here", "echo", image), KRValue(image));
}

TEST(KRDDSWays, ABrokerThatOffersNoSocketIsCalledOverDDS) { // as those of earlier versions
    const TestDomain domain;
    const OtherProcess other(domain.getUrl("local=off&lease=30"), kServer);
    checkCalls(domain, kOptions, other, "DDS: it offers no other way");
}

/// An announcement in the host directory: the broker has a module "Ghost".
std::string announceGhost(const std::string& broker, pid_t process) {
    using namespace std::string_literals;
    return broker + "\0"s + "1\0name\0host\0"s + std::to_string(process) +
           "\0\0"
           "0\0"
           "0\0"s +
           "\x91\x95\xa5Ghost\x01\x01\x64\0"s;
}

TEST_F(KRDDSLocal, WhatIsNoAnnouncementInTheHostDirectoryDisturbsNobody) {
    const std::string honest(32, 'a');
    const std::string other(32, 'b');
    const std::vector<std::pair<std::string, std::string>> announcements{
        {honest, announceGhost(honest, getpid())},
        {"liar", announceGhost("liar", getpid())},
        {honest, "text"},
        {honest, announceGhost(honest, getpid() + 1)},
        {honest, announceGhost(other, getpid())},
        {honest, announceGhost(honest, getpid()).substr(0, 60)}};
    for (const auto& [id, text] : announcements) {
        KRHostDirectory liar;
        liar.join({"dds" + std::to_string(domain.getNumber()), id, true});
        liar.publish(text);
        EXPECT_TRUE(eventually([&] {
            liar.wait(std::chrono::milliseconds(5));
            liar.takeNews();
            liar.settle();
            return liar.hasMetAll();
        }));
        // Once they have met, the announcement has taken effect.
        EXPECT_EQ(proxy->call<bool>("take", "Ghost"), &text != &announcements.front().second)
            << escapeText(text);
        proxy->call("giveBack");
        liar.leave();
        EXPECT_TRUE(eventually([&] { // it has left
            const bool isFree = proxy->call<bool>("take", "Ghost");
            proxy->call("giveBack");
            return isFree;
        }));
    }
    const OtherProcess late(domain.getUrl(kOptions), {"module", "Late"});
    EXPECT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Late"); }));
}

/// Name of the socket on which the process accepts calls.
std::string findSocketOf(const OtherProcess& process) {
    std::set<std::string> inodes;
    for (const auto& file :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process.getPid()) + "/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(file.path(), ignored).string();
        if (target.starts_with("socket:[")) {
            inodes.insert(target.substr(8, target.size() - 9));
        }
    }
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number, references, protocol, flags, type, state, inode, path;
        fields >> number >> references >> protocol >> flags >> type >> state >> inode >> path;
        if (inodes.contains(inode) && path.starts_with("@krvision-") &&
            !path.starts_with("@krvision-host-")) {
            return path.substr(1);
        }
    }
    return {};
}

/// A connection to a name in the abstract namespace of sockets.
int connectTo(const std::string& name) {
    const int file = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    (void)connect(file, reinterpret_cast<const sockaddr*>(&address),
                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
    return file;
}

TEST_F(KRDDSLocal, ABrokerWhoseSocketIsTakenUpIsCalledOverDDS) {
    const std::string name = findSocketOf(server);
    ASSERT_NE(name, "");
    // It accepts a limited number of connections that say nothing, for some seconds.
    std::deque<int> silent;
    const auto connectOnce = [&] {
        silent.push_back(connectTo(name));
        if (silent.size() > 200) {
            close(silent.front());
            silent.pop_front();
        }
    };
    ASSERT_TRUE(eventually([&] {
        connectOnce();
        char byte = 0;
        return recv(silent.back(), &byte, 1, MSG_DONTWAIT) == 0; // refused
    }));
    std::atomic<bool> ending = false;
    std::thread flooding([&] {
        while (!ending) {
            connectOnce();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const OtherProcess late(domain.getUrl(kOptions), {"module", "Late"});
    EXPECT_TRUE(broker->getSession().waitForService("Late", kPatience));
    EXPECT_EQ(broker->getProxy("Late")->call<int>("callOther", "Server", "pidOf", ""), server.getPid());
    ending = true;
    flooding.join();
    for (const int file : silent) {
        close(file);
    }
}

TEST(KRDDSWays, BrokersOfOneProcessMayTakeDifferentWays) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(kOptions), kServer);
    const auto local = domain.createBroker(kOptions);
    ASSERT_TRUE(local->getSession().waitForService("Server", kPatience));
    const auto plain = domain.createBroker("local=off&lease=300");
    for (const auto& broker : {local, plain}) {
        ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
        EXPECT_EQ(broker->getProxy("Server")->call<int>("getPid"), other.getPid());
    }
}

TEST(KRDDSWays, ABrokerThatIsToTakeDDSTakesIt) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(kOptions), kServer);
    checkCalls(domain, "local=off&lease=30", other, "DDS: local=off here");
}

TEST(KRDDSWays, SharedMemoryNeedsNoFileSystem) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root has mounts of its own";
    }
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(kOptions), kServer,
                             {"unshare", "--mount", "sh", "-c",
                              "mount -t tmpfs -o size=4k,ro none /dev/shm && exec \"$@\"", "sh"});
    checkCalls(domain, kOptions, other, "socket and shared memory");
}

TEST(KRDDSWays, AnotherUserIsCalledOverDDS) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(kOptions), kServer,
                             {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    checkCalls(domain, kOptions, other, "DDS: it is of user 65534");
}

TEST(KRDDSWays, AnotherUserOfTheGroupIsCalledThroughASocket) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const TestDomain domain;
    const std::string options = "local=group:root&lease=300";
    const OtherProcess other(domain.getUrl(options), kServer,
                             {"setpriv", "--reuid=65534", "--regid=0", "--clear-groups"});
    checkCalls(domain, options, other, "socket and shared memory");
}

TEST(KRDDSWays, OptionsThatCannotBeAreRefusedWithTheReason) {
    const auto refusal = [](const std::string& options) -> std::string {
        try {
            KRBroker::create("dds:?domain=100&interfaces=lo&" + options);
        } catch (const KRError& error) {
            return error.getDescription();
        }
        return "no error";
    };
    EXPECT_THAT(refusal("local=maybe"), HasSubstr("local is \"maybe\", not on, off or group:NAME"));
    EXPECT_THAT(refusal("local=group:"), HasSubstr("local is \"group:\", not on, off or group:NAME"));
    EXPECT_THAT(refusal("local=group:nosuchgroup"), HasSubstr("there is no group named nosuchgroup"));
    EXPECT_THAT(refusal("local-memory=much"), HasSubstr("local-memory is \"much\", not a number of bytes"));
    EXPECT_THAT(refusal("local-memory=2000G"), HasSubstr("up to 1024G"));
    EXPECT_THAT(refusal("local-memory=12X"), HasSubstr("local-memory is \"12X\""));
}

} // namespace

} // namespace KR::test
