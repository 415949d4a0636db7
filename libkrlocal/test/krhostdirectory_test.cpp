// Brokers of several processes that meet in a host directory.

#include "krlocal/krhostdirectory.hpp"

#include "descriptorlimits.hpp"
#include "krhostentry.hpp"
#include "krhostmeeting.hpp"
#include "krlocalsocket.hpp"
#include "otherprocess.hpp"
#include "patience.hpp"
#include "recordedlog.hpp"

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KR {
namespace {

using test::eventually;
using test::OtherProcess;
using News = KRHostDirectory::News;

/// A directory in this process, and what has been read in it.
class Here {
public:
    explicit Here(const std::string& name, bool publishes = true, const std::string& broker = "here") {
        directory.join({name, broker, publishes});
    }

    /// Whether such news comes.
    bool gets(News::Kind kind, const std::string& broker, const std::string& text = {}) {
        return eventually([&] {
            look();
            return std::any_of(news.begin(), news.end(), [&](const News& each) {
                return each.kind == kind && each.broker == broker && each.text == text;
            });
        });
    }
    void look() {
        directory.wait(std::chrono::milliseconds(5));
        for (News& each : directory.takeNews()) {
            news.push_back(std::move(each));
        }
        directory.settle();
    }
    std::set<std::string> getBrokers() const {
        std::set<std::string> brokers;
        for (const News& each : news) {
            brokers.insert(each.broker);
        }
        return brokers;
    }
    /// Whether all who had news are forgotten.
    bool hasNoMoreNews() {
        news.clear();
        for (int i = 0; i < 10; ++i) {
            beat();
        }
        return news.empty();
    }
    void beat() {
        directory.beat(std::chrono::milliseconds(20));
        look();
    }

    KRHostDirectory directory;
    std::vector<News> news;
};

class KRHostDirectoryTest : public testing::Test {
protected:
    /// Another process whose broker publishes the text, and what it reads: "TEXT, here:..." for what this process publishes.
    std::unique_ptr<OtherProcess> start(const std::string& broker, const std::string& text) const {
        auto process = std::make_unique<OtherProcess>(std::vector<std::string>{"meet", name, broker, text});
        EXPECT_EQ(process->getAnswer(), "ready");
        return process;
    }
    /// The same, while the directory in this process meets it.
    std::unique_ptr<OtherProcess> startBeside(Here& here, const std::string& broker,
                                              const std::string& text) const {
        auto starting = std::async(std::launch::async, [&] { return start(broker, text); });
        while (starting.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            here.look();
        }
        return starting.get();
    }
    /// A connection to the broker that has come first.
    KRDescriptor connectToFirst() const {
        return connectTo("krvision-host-" + name + "-" + std::to_string(geteuid()) + "-0",
                         std::chrono::steady_clock::now() + test::kPatience);
    }

    const std::string name = "test" + std::to_string(getpid());
};

TEST_F(KRHostDirectoryTest, TwoProcessesReadWhatEachOtherPublishes) {
    const auto other = start("there", "hello");
    Here here(name);
    here.directory.publish("good day");
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, here:good day"));
    EXPECT_EQ(here.news.front().process, other->getPid());
    EXPECT_TRUE(eventually([&] {
        here.look();
        return here.directory.hasMetAll() && !here.directory.isMeeting();
    }));
    here.directory.publish("bye");
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, here:bye"));
}

TEST_F(KRHostDirectoryTest, AnInterruptedDirectoryIsLookedAtThoughNobodyWaits) {
    const auto other = start("there", "hello");
    Here here(name);
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    here.directory.publish("again"); // which the other repeats
    EXPECT_TRUE(eventually([&] {
        here.directory.interrupt();
        const std::vector<News> news = here.directory.takeNews();
        return std::any_of(news.begin(), news.end(),
                           [](const News& each) { return each.text == "hello, here:again"; });
    }));
}

TEST_F(KRHostDirectoryTest, ATextMayTakeAMegabyte) {
    Here here(name);
    const std::string text(KRHostDirectory::kMaxText - 100, 'x');
    here.directory.publish(text);
    const auto other = startBeside(here, "there", "hello");
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, here:" + text));
    EXPECT_THROW(here.directory.publish(std::string(KRHostDirectory::kMaxText + 1, 'x')), KRError);
}

TEST_F(KRHostDirectoryTest, ManyProcessesMeetInAnyOrder) {
    std::vector<std::unique_ptr<OtherProcess>> others;
    for (int i = 0; i < 4; ++i) {
        others.push_back(start(std::to_string(i), "first"));
    }
    others[1]->stop(); // its slot is free
    others[2]->stop();
    Here here(name);
    EXPECT_TRUE(here.gets(News::Kind::Published, "3", "first")); // beyond a free slot
    others.push_back(startBeside(here, "4", "second"));
    for (const int i : {0, 3, 4}) {
        EXPECT_TRUE(here.gets(News::Kind::Published, std::to_string(i), i < 4 ? "first" : "second"));
    }
    EXPECT_EQ(here.getBrokers(), (std::set<std::string>{"0", "3", "4"}));
}

TEST_F(KRHostDirectoryTest, AProcessThatIsKilledHasEnded) {
    const auto other = start("there", "hello");
    Here here(name);
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    other->kill();
    EXPECT_TRUE(eventually([&] {
        here.beat();
        return here.news.back().kind == News::Kind::Ended;
    }));
    EXPECT_TRUE(here.hasNoMoreNews());
}

TEST_F(KRHostDirectoryTest, ABrokerThatLeavesHasLeft) {
    const auto other = start("there", "hello");
    Here here(name);
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    other->stop();
    EXPECT_TRUE(here.gets(News::Kind::Left, "there"));
    EXPECT_TRUE(here.hasNoMoreNews());
}

TEST_F(KRHostDirectoryTest, AFrozenProcessIsReportedUntilItIsThawed) {
    const auto other = start("there", "hello");
    Here here(name);
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    other->freeze();
    EXPECT_TRUE(eventually([&] {
        here.beat();
        return here.news.back().kind == News::Kind::Frozen;
    }));
    here.news.clear();
    here.beat();
    ASSERT_EQ(here.news.size(), 1U);
    EXPECT_EQ(here.news.back().kind, News::Kind::Frozen);
    other->thaw();
    EXPECT_TRUE(eventually([&] {
        here.beat();
        return here.news.back().kind == News::Kind::Published;
    }));
}

TEST_F(KRHostDirectoryTest, AProcessFrozenBeforeIsNotWaitedForAndMetLater) {
    const auto other = start("there", "hello");
    other->freeze();
    Here here(name);
    EXPECT_TRUE(eventually([&] {
        here.look();
        return here.directory.hasMetAll() && !here.directory.isMeeting();
    }));
    EXPECT_TRUE(here.news.empty());
    other->thaw();
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
}

TEST_F(KRHostDirectoryTest, WhoeverPublishesNothingIsWatchedAsWell) {
    Here here(name);
    const auto silent = startBeside(here, "silent", "");
    EXPECT_TRUE(here.news.empty());
    silent->kill();
    ASSERT_TRUE(eventually([&] {
        here.beat();
        return !here.news.empty();
    }));
    EXPECT_EQ(here.news.front().kind, News::Kind::Ended);
    EXPECT_EQ(here.news.front().broker, "silent");
}

TEST_F(KRHostDirectoryTest, WhoeverPublishesNothingReadsWhatOthersPublish) {
    const auto other = start("there", "hello");
    Here here(name, false);
    here.directory.publish("unread");
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    const auto third = startBeside(here, "third", "hi");
    ASSERT_TRUE(here.gets(News::Kind::Published, "third", "hi"));
    here.directory.publish("unread as well");
    third->kill();
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, third ended"));
    for (const News& each : here.news) { // they would add what they read
        EXPECT_THAT(each.text, testing::Not(testing::HasSubstr("unread")));
    }
}

TEST_F(KRHostDirectoryTest, DirectoriesOfOtherNamesOrUsersDoNotMeet) {
    const auto other = start("there", "hello");
    std::unique_ptr<OtherProcess> stranger;
    if (geteuid() == 0) {
        stranger = std::make_unique<OtherProcess>(
            std::vector<std::string>{"as", "65534", "65534", "meet", name, "stranger", "hi"});
        ASSERT_EQ(stranger->getAnswer(), "ready");
    }
    Here elsewhere(name + "b");
    Here here(name);
    ASSERT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    elsewhere.look();
    EXPECT_EQ(here.getBrokers(), std::set<std::string>{"there"});
    EXPECT_TRUE(elsewhere.news.empty());
}

/// Sends a packet, with a descriptor if it is not negative.
void send(const KRDescriptor& socket, const std::string& packet, int descriptor) {
    iovec part{const_cast<char*>(packet.data()), packet.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    }
    sendmsg(socket.get(), &message, MSG_NOSIGNAL);
}

std::string toPacket(const KRHostGreeting& greeting) {
    return {reinterpret_cast<const char*>(&greeting), sizeof greeting};
}

TEST_F(KRHostDirectoryTest, WhoeverBreaksTheProtocolIsDisconnected) {
    const auto other = start("there", "hello");
    const KRHostEntryWriter entry("liar");
    // What they contain would be seen in the text of the other.
    KRHostEntry forged{};
    forged.version = 2;
    forged.state = KRHostEntry::Published;
    forged.size = 1;
    forged.text[0] = 'x';
    const KRDescriptor unsealed(memfd_create("test", MFD_CLOEXEC));
    ASSERT_EQ(::write(unsealed.get(), &forged, sizeof forged), static_cast<ssize_t>(sizeof forged));
    const KRSharedMemory small(4096);
    std::memcpy(small.data(), &forged, small.size());
    const std::string good = toPacket({"liar", true});
    KRHostGreeting unmarked("liar", true);
    unmarked.mark = {};
    KRHostGreeting endless("liar", true);
    endless.broker.fill('x');
    KRHostGreeting nameless("liar", true);
    nameless.broker.fill(0);
    KRHostGreeting beyond("liar", true);
    beyond.slot = 100000;
    const std::vector<std::pair<std::string, int>> lies{
        {"", -1},
        {"x", -1},
        {good, -1},
        {good.substr(0, good.size() - 1), entry.getDescriptor()},
        {good + "x", entry.getDescriptor()},
        {std::string(100000, 'x'), entry.getDescriptor()},
        {toPacket(unmarked), entry.getDescriptor()},
        {toPacket(endless), entry.getDescriptor()},
        {toPacket(nameless), entry.getDescriptor()},
        {toPacket(beyond), entry.getDescriptor()}};
    for (const auto& [packet, descriptor] : lies) {
        const KRDescriptor liar = connectToFirst();
        send(liar, packet, descriptor);
        char byte = 0;
        EXPECT_LE(recv(liar.get(), &byte, 1, 0), 0) << packet.size();
    }
    // These are found out when the entry is used.
    for (const int descriptor : {unsealed.get(), small.getDescriptor(), 0}) {
        const KRDescriptor liar = connectToFirst();
        send(liar, toPacket({"here", true}), descriptor);
        std::array<char, 200> answer{};
        EXPECT_EQ(recv(liar.get(), answer.data(), answer.size(), 0), static_cast<ssize_t>(good.size()));
        send(liar, "x", -1);
        EXPECT_EQ(recv(liar.get(), answer.data(), answer.size(), 0), 0);
    }
    Here here(name);
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
}

TEST_F(KRHostDirectoryTest, ANewcomerHasMetOnlyWhoConfirmsIt) {
    KRHostEntryWriter entry("here");
    entry.write(KRHostEntry::Published, "old");
    for (const bool confirms : {false, true}) {
        const KRDescriptor listening =
            listenAt("krvision-host-" + name + "-" + std::to_string(geteuid()) + "-0");
        auto starting = std::async(std::launch::async, [&] { return start("there", "hello"); });
        const KRDescriptor newcomer(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::array<char, 200> received{};
        recv(newcomer.get(), received.data(), received.size(), 0);
        send(newcomer, toPacket({"here", true}), entry.getDescriptor());
        EXPECT_EQ(recv(newcomer.get(), received.data(), received.size(), 0), 1);
        if (confirms) {
            send(newcomer, "x", -1);
        }
        shutdown(newcomer.get(), SHUT_RDWR);
        const auto other = starting.get();
        Here third(name, false, "third");
        EXPECT_TRUE(third.gets(News::Kind::Published, "there", confirms ? "hello, here:old" : "hello"));
    }
}

TEST_F(KRHostDirectoryTest, AnEntryThatIsNotValidCountsAsEnded) {
    const auto other = start("there", "hello");
    KRSharedMemory memory(sizeof(KRHostEntry));
    auto& entry = *reinterpret_cast<KRHostEntry*>(memory.data());
    entry.version = 2;
    entry.state = KRHostEntry::Published;
    entry.size = ~std::uint64_t{0};
    const KRDescriptor liar = connectToFirst();
    send(liar, toPacket({"liar", true}), memory.getDescriptor());
    char byte = 0;
    ASSERT_EQ(recv(liar.get(), &byte, 1, 0), 1);
    send(liar, "x", -1);
    EXPECT_EQ(recv(liar.get(), &byte, 1, 0), 0);
    Here here(name);
    here.directory.publish("good day");
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, liar ended, here:good day"));
}

TEST_F(KRHostDirectoryTest, AnEntryThatIsAlwaysBeingChangedDelaysNobody) {
    const auto other = start("there", "hello");
    KRSharedMemory memory(sizeof(KRHostEntry));
    reinterpret_cast<KRHostEntry*>(memory.data())->version = 3;
    const KRDescriptor liar = connectToFirst();
    send(liar, toPacket({"liar", true}), memory.getDescriptor());
    char byte = 0;
    ASSERT_EQ(recv(liar.get(), &byte, 1, 0), 1);
    send(liar, "x", -1);
    Here here(name);
    here.directory.publish("good day");
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello, here:good day"));
}

TEST_F(KRHostDirectoryTest, ConnectionsThatSayNothingHoldUpNobody) {
    const auto other = start("there", "hello");
    std::vector<KRDescriptor> silent;
    for (int i = 0; i < 60; ++i) {
        silent.push_back(connectToFirst());
    }
    Here here(name);
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
}

TEST_F(KRHostDirectoryTest, ANewcomerWithoutADescriptorMeetsTheOthersLater) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    const auto other = start("there", "hello");
    Here here(name);
    {
        const test::AllDescriptorsTaken all;
        here.look();
        EXPECT_TRUE(here.directory.isMeeting());
    }
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
}

TEST_F(KRHostDirectoryTest, ABrokerWithoutADescriptorMeetsNewcomersLater) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    Here here(name);
    here.look();                                // nobody is there yet
    const auto other = start("there", "hello"); // waits in vain
    const test::RecordedLog log;
    {
        test::AllDescriptorsTaken all;
        here.look();
        EXPECT_EQ(log.find(KRLogLevel::Warning, "have to wait to be met: Too many open files").size(), 1U);
        all.freeOne(); // for its connection, not for its entry
        for (int i = 0; i < 30; ++i) {
            here.look();
        }
        EXPECT_TRUE(here.news.empty());
    }
    EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
}

/// In another process of an ordinary user.
void meetOnceDescriptorsCanBeHandedOver(const std::string& name) {
    {
        const OtherProcess other(test::asOrdinaryUser({"meet", name, "there", "hello"}));
        test::becomeOrdinaryUser();
        Here here(name);
        {
            const test::TooManyUnderWay many;
            for (int i = 0; i < 30; ++i) {
                here.look();
            }
            EXPECT_TRUE(here.news.empty());
            EXPECT_TRUE(here.directory.isMeeting());
        }
        EXPECT_TRUE(here.gets(News::Kind::Published, "there", "hello"));
    }
    test::exitWithTestResult();
}

TEST_F(KRHostDirectoryTest, BrokersMeetOnceTheirDescriptorsCanBeHandedOver) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(meetOnceDescriptorsCanBeHandedOver(name), testing::ExitedWithCode(0), "");
}

TEST_F(KRHostDirectoryTest, AnIdentityThatIsEmptyOrTooLongIsRefused) {
    EXPECT_THROW(KRHostDirectory().join({name, "", true}), KRError);
    EXPECT_THROW(KRHostDirectory().join({name, std::string(64, 'x'), true}), KRError);
}

} // namespace
} // namespace KR
