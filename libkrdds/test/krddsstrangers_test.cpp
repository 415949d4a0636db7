// Misbehaviour of other participants, accidental or malicious, must not harm the brokers.

#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krdds/krdds.hpp>
#include <krplatform/krproxy.hpp>

#include "krincomingcalls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace KR::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Bytes = std::vector<std::uint8_t>;
const Bytes kNoModules{0x90};
const Bytes kNoArguments{0x90};

/// [["Ghost", 1, 1, 100, 0]]: one module that can be called.
const Bytes kGhost{0x91, 0x95, 0xa5, 'G', 'h', 'o', 's', 't', 1, 1, 100, 0};

class KRDDSStrangers : public testing::Test {
protected:
    std::uint64_t countRefused() const { return broker->getDiagnostics().refusedMessages; }
    std::uint64_t countMalformed() const { return broker->getDiagnostics().malformedMessages; }
    /// Waits until the broker has taken all that the stranger has sent before.
    bool awaitArrival(Stranger& from, std::uint64_t number) {
        const std::uint64_t before = countMalformed();
        from.request(id, number, "Module", "run", {0xc1});
        return eventually([&] { return countMalformed() > before; });
    }
    /// Waits for so many replies. \return how many have come
    static int takeReplies(dds_entity_t reader, int count) {
        int taken = 0;
        (void)eventually([&] {
            void* sample = nullptr;
            dds_sample_info_t info;
            while (dds_take(reader, &sample, &info, 1, 1) == 1) {
                taken += info.valid_data ? 1 : 0;
                dds_return_loan(reader, &sample, 1);
            }
            return taken >= count;
        });
        return taken;
    }

    TestDomain domain;
    boost::shared_ptr<KRBroker> broker = domain.createBroker();
    std::atomic<int> runs = 0;
    KRModuleHandle<TestModule> module = makeModule(
        broker, "Module", [this](TestModule& made) { made.add("run", [this] { return ++runs; }); });
    Stranger stranger{domain.getNumber()};
    const std::string id = stranger.findBroker();
};

// ---- announcements

TEST_F(KRDDSStrangers, AnAnnouncementOfWhatIsNotAnIdentityIsDropped) {
    for (const std::string& claimed : {std::string(70000, 'x'), std::string(31, 'a'), std::string(33, 'a'),
                                       std::string(32, 'A'), std::string("*"), std::string()}) {
        const std::uint64_t before = countMalformed();
        Stranger odd(domain.getNumber());
        odd.pretendToBe(claimed);
        odd.announce(1, kGhost);
        EXPECT_TRUE(eventually([&] { return countMalformed() > before; })) << claimed.size();
    }
    EXPECT_THAT(broker->getDiagnostics().peers, IsEmpty());
}

TEST_F(KRDDSStrangers, AnnouncementsBeyondTheirBoundsAreDropped) {
    std::string name = "name";
    std::string host = "host";
    Bytes modules = kGhost;
    std::string own = stranger.getId();
    const auto isDropped = [&] {
        KRVision_Announcement announcement{};
        announcement.broker = own.data();
        announcement.name = name.data();
        announcement.host = host.data();
        announcement.protocol = 1;
        announcement.modules._buffer = modules.data();
        announcement.modules._length = announcement.modules._maximum =
            static_cast<std::uint32_t>(modules.size());
        const std::uint64_t before = countMalformed();
        stranger.announce(announcement);
        return eventually(
                   [&] { return countMalformed() > before || !broker->getDiagnostics().peers.empty(); }) &&
               countMalformed() > before;
    };
    name.assign(256, 'n');
    EXPECT_TRUE(isDropped());
    name = "name";
    host.assign(256, 'h');
    EXPECT_TRUE(isDropped());
    host = "host";
    for (const Bytes& odd : std::vector<Bytes>{
             {},                                                                      // nothing
             {0x01},                                                                  // not an array
             {0x91, 0x94, 0xa1, 'G', 1, 1, 100},                                      // a field is missing
             {0x91, 0x95, 0xa0, 1, 1, 100, 0},                                        // no name
             {0x91, 0x95, 0xa1, 0x1b, 1, 1, 100, 0},                                  // ESC
             {0x91, 0x95, 0xa1, 'G', 1, 1, 100, 0xff},                                // -1 microseconds
             {0x92, 0x95, 0xa1, 'G', 1, 1, 100, 0, 0x95, 0xa1, 'G', 2, 1, 100, 0}}) { // twice the same name
        modules = odd;
        EXPECT_TRUE(isDropped()) << odd.size() << " bytes";
    }
    modules.assign(std::size_t{2} << 20, 0xc0);
    EXPECT_TRUE(isDropped());
    modules = kGhost;
    EXPECT_FALSE(isDropped());
}

TEST_F(KRDDSStrangers, ANameThatOthersWouldRefuseIsRefused) {
    EXPECT_THROW(makeModule(broker, std::string(256, 'x')), KRError);
    EXPECT_THROW(makeModule(broker, "red\x1b[31m"), KRError);
    EXPECT_EQ(makeModule(broker, std::string(255, 'x'))->getName().size(), 255U);
}

TEST_F(KRDDSStrangers, WhatABrokerCallsItselfIsEscapedWhereverItIsPrinted) {
    Stranger red(domain.getNumber(), "red\x1b[31m\n");
    const RecordedLog log;
    red.announce(2, kNoModules);
    const auto line = log.waitFor(KRLogLevel::Error, "speaks protocol 2");
    ASSERT_TRUE(line);
    EXPECT_THAT(line->message,
                testing::AllOf(HasSubstr("(red"), Not(HasSubstr("\x1b")), Not(HasSubstr("\n"))));
    const KRBrokerDiagnostics found = broker->getDiagnostics();
    ASSERT_EQ(found.peers.size(), 1U);
    EXPECT_THAT(found.peers[0].location, Not(HasSubstr("\x1b")));
}

TEST_F(KRDDSStrangers, BrokersOfAnotherVersionDoNotFloodTheLog) {
    const RecordedLog log;
    std::vector<std::unique_ptr<Stranger>> many;
    for (int i = 0; i < 8; ++i) {
        many.push_back(std::make_unique<Stranger>(domain.getNumber()));
        many.back()->announce(2, kNoModules);
    }
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().peers.size() == many.size(); }));
    EXPECT_EQ(log.find(KRLogLevel::Error, "speaks protocol 2").size(), KRLimitedLog::kLines);
}

// The sanitizers' allocators keep freed memory.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
long getResidentKilobytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    long size = 0;
    long resident = 0;
    file >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(KRDDSStrangers, AnnouncementsInEverNewNamesTakeNoMemory) {
    // So that DDS connects it to this process.
    const OtherProcess other(domain.getUrl("local=off"), {"module", "Other"});
    const auto proxy = broker->getProxy("Other");
    ASSERT_TRUE(broker->getSession().waitForService("Other", kPatience));
    const long before = getResidentKilobytes(other.getPid());
    const std::string own = stranger.getId();
    stranger.readRequests(); // so that its module can be called
    constexpr int kNames = 2000;
    for (int i = 0; i < kNames; ++i) {
        std::string name = std::to_string(i) + "-";
        name.resize(i % 2 == 0 ? 32 : 65000, 'a');
        stranger.pretendToBe(name);
        stranger.announce(1, kNoModules);
    }
    stranger.pretendToBe(own);
    stranger.announce(1, kGhost);
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Ghost"); }));
    EXPECT_LT(getResidentKilobytes(other.getPid()), before + 65 * kNames / 4);
    EXPECT_TRUE(eventually([&] { return countMalformed() == kNames; }));
}
#endif

TEST_F(KRDDSStrangers, AForgedDepartureOrAnnouncementChangesNothing) {
    Stranger watcher(domain.getNumber());
    auto service = domain.createBroker();
    auto served = makeModule(service, "Service", [](TestModule& made) { made.add("run", [] { return 7; }); });
    ASSERT_TRUE(broker->getSession().waitForService("Service", kPatience));
    stranger.pretendToBe(watcher.findBroker(id));
    stranger.announce(1, kNoModules);
    stranger.withdraw();
    EXPECT_TRUE(eventually([&] { return countRefused() > 0; }));
    // Once the next announcement has been seen, the broker has handled this one.
    Stranger next(domain.getNumber());
    next.announce(1, kNoModules);
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().peers.size() == 2; }));
    EXPECT_THAT(broker->getModuleList(), ElementsAre("Module", "Service"));
    EXPECT_EQ(broker->getProxy("Service")->call<int>("run"), 7);
    const auto late = makeModule(service, "Late");
    EXPECT_TRUE(broker->getSession().waitForService("Late", kPatience));
    // Its real departure is noticed nevertheless.
    served.reset();
    EXPECT_TRUE(eventually([&] {
        return broker->getModuleList() == std::vector<std::string>{"Late", "Module"};
    }));
}

// ---- messages

TEST_F(KRDDSStrangers, ACallInAnotherBrokersNameDoesNotRun) {
    Stranger honest(domain.getNumber());
    honest.announce(1, kNoModules);
    const dds_entity_t replies = honest.readReplies();
    stranger.pretendToBe(honest.getId());
    stranger.request(id, 5, "Module", "run", kNoArguments);
    EXPECT_TRUE(eventually([&] { return countRefused() == 1; }));
    honest.request(id, 6, "Module", "run", kNoArguments);
    EXPECT_EQ(takeReplies(replies, 1), 1);
    EXPECT_EQ(runs, 1);
}

TEST_F(KRDDSStrangers, AReplyInAnotherBrokersNameIsDropped) {
    Stranger honest(domain.getNumber());
    const dds_entity_t requests = honest.readRequests();
    honest.announce(1, kGhost);
    ASSERT_TRUE(broker->getSession().waitForService("Ghost", kPatience));
    auto call = std::async(std::launch::async, [&] { return broker->getProxy("Ghost")->call<int>("go"); });
    std::uint64_t number = 0;
    ASSERT_TRUE(eventually([&] {
        void* sample = nullptr;
        dds_sample_info_t info;
        if (dds_take(requests, &sample, &info, 1, 1) != 1) {
            return false;
        }
        number = static_cast<KRVision_Request*>(sample)->number;
        dds_return_loan(requests, &sample, 1);
        return true;
    }));
    stranger.pretendToBe(honest.getId());
    stranger.reply(id, number, 0, {13});
    EXPECT_TRUE(eventually([&] { return countRefused() == 1; }));
    honest.reply(id, number, 0, {7});
    EXPECT_EQ(resultOf(call), 7);
}

TEST_F(KRDDSStrangers, CallsOfABrokerThatHasNotAnnouncedItselfWaitWithoutThreadsAndWithinBounds) {
    constexpr int kCalls = 1500;
    for (int i = 0; i < kCalls; ++i) {
        stranger.request(id, 100 + static_cast<std::uint64_t>(i), "Module", "run", kNoArguments);
    }
    ASSERT_TRUE(awaitArrival(stranger, 1));
    EXPECT_EQ(countRefused(), kCalls - KRIncomingCalls::kMaxStrangersCalls);
    EXPECT_LT(broker->getCallThreadCount(), 20U);
    EXPECT_EQ(runs, 0);
    // Those that were kept run once it has.
    const dds_entity_t replies = stranger.readReplies();
    stranger.announce(1, kNoModules);
    const int kept = static_cast<int>(KRIncomingCalls::kMaxStrangersCalls);
    EXPECT_EQ(takeReplies(replies, kept), kept);
    EXPECT_EQ(runs, kept);
}

TEST_F(KRDDSStrangers, ACallerThatReadsNoRepliesDoesNotKeepAModuleFromGoing) {
    stranger.announce(1, kNoModules);
    ASSERT_TRUE(eventually([&] { return broker->getDiagnostics().peers.size() == 1; }));
    stranger.request(id, 5, "Module", "run", kNoArguments);
    ASSERT_TRUE(awaitArrival(stranger, 6));
    auto going = std::async(std::launch::async, [this] {
        module.reset();
        return true;
    });
    EXPECT_TRUE(resultOf(going));
    EXPECT_EQ(runs, 0);
}

TEST_F(KRDDSStrangers, OneCallerHasABoundedNumberOfCallsRunningAndTheOthersRunLater) {
    Event released;
    const auto blocking = makeModule(
        broker, "Blocking", [&](TestModule& made) { made.add("block", [&] { return released.wait(); }); });
    const SetAtEnd end(released);
    const int calls = static_cast<int>(KRIncomingCalls::kMaxRunning) + 50;
    stranger.announce(1, kNoModules);
    const dds_entity_t replies = stranger.readReplies();
    for (int i = 0; i < calls; ++i) {
        stranger.request(id, 100 + static_cast<std::uint64_t>(i), "Blocking", "block", kNoArguments);
    }
    ASSERT_TRUE(awaitArrival(stranger, 1));
    EXPECT_TRUE(eventually([&] { return broker->getCallThreadCount() >= KRIncomingCalls::kMaxRunning; }));
    EXPECT_LT(broker->getCallThreadCount(), KRIncomingCalls::kMaxRunning + 20);
    released.set();
    EXPECT_EQ(takeReplies(replies, calls), calls);
}

TEST_F(KRDDSStrangers, ModulesGoOnAfterFloods) {
    const OtherProcess other(domain.getUrl(), {"module", "Other"});
    ASSERT_TRUE(broker->getSession().waitForService("Other", kPatience));
    ASSERT_TRUE(eventually([&] { return broker->getProxy("Other")->call<bool>("isReachable", "Module"); }));
    Stranger forger(domain.getNumber());
    forger.pretendToBe(id);
    const Bytes large(50000, 0xc1);
    const Bytes many = [] { // an array of 65535 nothings
        Bytes bytes{0x91, 0xdc, 0xff, 0xff};
        bytes.resize(4 + 65535, 0xc0);
        return bytes;
    }();
    for (std::uint64_t i = 0; i < 300; ++i) {
        forger.withdraw();
        forger.announce(1, i % 2 == 0 ? kGhost : large);
        stranger.announce(1, i % 2 == 0 ? kGhost : large);
        stranger.request(id, 10 + 4 * i, "Module", "run", large);
        if (i % 10 == 0) {
            stranger.request(id, 11 + 4 * i, "Module", "run", many);
        }
        stranger.request(id, 12 + 4 * i, "Nobody", "run", kNoArguments);
        stranger.request(id, 13 + 4 * i, "", "", large, 1);
    }
    ASSERT_TRUE(awaitArrival(stranger, 5));
    EXPECT_EQ(broker->getProxy("Other")->call<int>("getPid"), other.getPid());
    EXPECT_EQ(broker->getProxy("Other")->call<KRValue>("echo", "hello"), "hello");
    EXPECT_TRUE(broker->getProxy("Other")->call<bool>("isReachable", "Module"));
    EXPECT_LT(broker->getCallThreadCount(), 50U);
    EXPECT_EQ(runs, 0);
}

/// Sends so many datagrams to the ports of the first processes on the domain that look like the engine's and are not.
void sendMalformedDatagrams(int domainNumber, int count) {
    constexpr unsigned char kDatagram[] = {
        'R', 'T', 'P', 'S', 2,  1,  1,    16, 1, 2, 3, 4, 5, 6,
        7,   8,   9,   10,  11, 12, 0x15, 1,  4, 0, 1, 2, 3, 4}; // a DATA submessage that is too short
    const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(file, 0);
    for (int i = 0; i < count; ++i) {
        for (int process = 0; process < 3; ++process) {
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            to.sin_port = htons(getDDSPort(static_cast<std::uint32_t>(domainNumber), process));
            sendto(file, kDatagram, sizeof kDatagram, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        }
    }
    close(file);
}

TEST_F(KRDDSStrangers, WarningsOfTheEngineDoNotFloodTheLog) {
    const RecordedLog log;
    sendMalformedDatagrams(domain.getNumber(), 1000);
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "malformed packet"));
    ASSERT_TRUE(awaitArrival(stranger, 5)); // by way of the same sockets
    EXPECT_LE(log.find(KRLogLevel::Warning, "malformed packet").size(), 2 * KRLimitedLog::kLines);
}

// ---- the log

TEST_F(KRDDSStrangers, OnlyABrokerThatHostedModulesIsWorthALineAtInfoWhenItLeaves) {
    const RecordedLog log;
    auto guest = domain.createBroker();
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().peers.size() == 1; }));
    guest.reset();
    EXPECT_TRUE(log.waitFor(KRLogLevel::Verbose, "has left the domain"));
    EXPECT_THAT(log.find(KRLogLevel::Info, "has left the domain"), IsEmpty());
    guest = domain.createBroker();
    auto hosted = makeModule(guest, "Hosted");
    EXPECT_TRUE(broker->getSession().waitForService("Hosted", kPatience));
    hosted.reset();
    guest.reset();
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "has left the domain"));
}

TEST(KRDDSTwins, AModuleThatIsKilledAndStartedAgainIsNotTwoModulesOfOneName) {
    const TestDomain domain;
    const std::string options = "lease=3";
    OtherProcess first(domain.getUrl(options), {"module", "Server"});
    const auto broker = domain.createBroker(options);
    ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    const RecordedLog log;
    first.kill();
    const OtherProcess second(domain.getUrl(options), {"module", "Server"});
    ASSERT_EQ(second.getAnswer(), "ready");
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "is gone or cannot be reached"));
    EXPECT_TRUE(eventually([&] {
        try {
            return broker->getProxy("Server")->call<int>("getPid") == second.getPid();
        } catch (const KRError&) { // not yet
            return false;
        }
    }));
    EXPECT_THAT(log.find(KRLogLevel::Error, "two modules named"), IsEmpty());
}

} // namespace

} // namespace KR::test
