// Peers that know the secret but break the protocol.

#include "krlocal/krlocalendpoint.hpp"

#include "krlocalframe.hpp"
#include "krlocalsocket.hpp"
#include "krsharedmemory.hpp"
#include "patience.hpp"
#include "recordedlog.hpp"
#include "testservice.hpp"

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

namespace KR {
namespace {

using test::kPatience;
using test::makeBinary;
using test::makeMessage;

/// A socket with which anything can be sent.
class Liar {
public:
    explicit Liar(KRDescriptor socket) : socket_(std::move(socket)) {}
    /// Connected and greeted as any other.
    explicit Liar(const KRLocalAddress& address)
        : socket_(connectTo(address.socket, std::chrono::steady_clock::now() + kPatience)) {
        greet(KRLocalFrame::Hello, address.secret + "liar");
        receiveBell();
    }

    /// \param ownBell  that goes with a Welcome
    void greet(KRLocalFrame::Kind kind, const std::string& body, int ownBell = -1) {
        KRLocalFrame frame;
        frame.kind = kind;
        frame.number = 2;
        frame.bodySize = body.size();
        frame.memories = {{1, KRReturns::kSize}};
        std::vector<int> descriptors{returns.getDescriptor()};
        if (ownBell >= 0) {
            descriptors.push_back(ownBell);
        }
        send(frame.compose() + body, descriptors);
    }
    void send(const std::string& packet, const std::vector<int>& descriptors = {}) const {
        iovec part{const_cast<char*>(packet.data()), packet.size()};
        alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(253 * sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (!descriptors.empty()) {
            message.msg_control = control.data();
            message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
            cmsghdr* const rights = CMSG_FIRSTHDR(&message);
            rights->cmsg_level = SOL_SOCKET;
            rights->cmsg_type = SCM_RIGHTS;
            rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
            std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
        }
        sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
    }
    /// The next packet; empty: the connection is closed.
    std::string receive() const {
        pollfd readable{socket_.get(), POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1) {
            throw std::runtime_error("nothing came");
        }
        std::string packet(KRLocalFrame::kPacket, '\0');
        const ssize_t count = recv(socket_.get(), packet.data(), packet.size(), 0);
        packet.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return packet;
    }
    void close() { socket_ = KRDescriptor(); }

    KRDescriptor bell; // of the server
    KRSharedMemory returns{KRReturns::kSize};
    KRSharedMemory memory{1 << 20};

private:
    /// From its welcome, where it is the second descriptor.
    void receiveBell() {
        std::array<char, 1024> packet{};
        iovec part{packet.data(), packet.size()};
        alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(2 * sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        std::array<int, 2> descriptors{-1, -1};
        if (recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC) > 0 && CMSG_FIRSTHDR(&message) != nullptr) {
            std::memcpy(descriptors.data(), CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptors);
        }
        const KRDescriptor page(descriptors[0]);
        bell = KRDescriptor(descriptors[1]);
    }

    KRDescriptor socket_;
};

KRLocalFrame makeRequest() {
    KRLocalFrame frame;
    frame.number = 1;
    return frame;
}

struct Lie {
    const char* name;
    const char* logged;
    std::function<void(Liar&)> tell;
};

void PrintTo(const Lie& lie, std::ostream* out) {
    *out << lie.name;
}

class KRLocalLie : public testing::TestWithParam<Lie> {};

const Lie kLies[] = {
    {"NoFrame", "without the mark", [](Liar& liar) { liar.send(std::string(100, 'x')); }},
    {"AnEmptyHead", "ends within its head", [](Liar& liar) { liar.send("x"); }},
    {"AnotherKind", "a message of kind 3 to a server",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.kind = KRLocalFrame::Reply;
         liar.send(frame.compose());
     }},
    {"ASecondGreeting", "a message of kind 0 to a server",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.kind = KRLocalFrame::Hello;
         liar.send(frame.compose());
     }},
    {"AnOffsetOutsideItsMemory", "a binary of 20000 bytes at 1048000",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}};
         frame.binaries = {{9, 0, 1, 1048000, 20000}};
         liar.send(frame.compose(), {liar.memory.getDescriptor()});
     }},
    {"ASizeBeyondItsMemory", "a binary of 2000000 bytes at 0",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}};
         frame.binaries = {{9, 0, 1, 0, 2000000}};
         liar.send(frame.compose(), {liar.memory.getDescriptor()});
     }},
    {"AnUnknownMemory", "which it has not announced",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.binaries = {{9, 0, 1, 0, 20000}};
         liar.send(frame.compose());
     }},
    {"AnUnknownTicket", "ticket 4000",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}};
         frame.binaries = {{9, 4000, 1, 0, 20000}};
         liar.send(frame.compose(), {liar.memory.getDescriptor()});
     }},
    {"TheSameMemoryTwice", "which is taken",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}, {9, liar.memory.size()}};
         liar.send(frame.compose(), {liar.memory.getDescriptor(), liar.memory.getDescriptor()});
     }},
    {"TheEndOfAMemoryItDoesNotHave", "the end of shared memory 5",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.forgotten = {5};
         liar.send(frame.compose());
     }},
    {"AMemoryOfAnotherSize", "not of the size announced",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size() * 2}};
         liar.send(frame.compose(), {liar.memory.getDescriptor()});
     }},
    {"AFileForAMemory", "not a memfd sealed",
     [](Liar& liar) {
         const KRDescriptor file(open("/dev/zero", O_RDWR | O_CLOEXEC));
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}};
         liar.send(frame.compose(), {file.get()});
     }},
    {"AMemoryThatCanShrink", "not a memfd sealed",
     [](Liar& liar) {
         const KRDescriptor unsealed(memfd_create("unsealed", MFD_CLOEXEC | MFD_ALLOW_SEALING));
         ASSERT_EQ(ftruncate(unsealed.get(), 1 << 20), 0);
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, 1 << 20}};
         liar.send(frame.compose(), {unsealed.get()});
     }},
    {"AMemoryWithoutADescriptor", "0 descriptors for 1 new memories",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.memories = {{9, liar.memory.size()}};
         liar.send(frame.compose());
     }},
    {"ADescriptorWithoutAMemory", "1 descriptors for 0 new memories",
     [](Liar& liar) { liar.send(makeRequest().compose(), {liar.memory.getDescriptor()}); }},
    {"AFloodOfDescriptors", "more descriptors than allowed",
     [](Liar& liar) {
         liar.send(makeRequest().compose(), std::vector<int>(253, liar.memory.getDescriptor()));
     }},
    {"DescriptorsWithinAMessage", "descriptors within a message",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.bodySize = 100;
         liar.send(frame.compose() + "abc");
         liar.send("def", {liar.memory.getDescriptor()});
     }},
    {"ARequestCutInHalf", "truncated message",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.bodySize = 100;
         liar.send(frame.compose() + "abc");
         liar.close();
     }},
    {"MoreThanItAnnounced", "longer than it says",
     [](Liar& liar) {
         KRLocalFrame frame = makeRequest();
         frame.bodySize = 100;
         liar.send(frame.compose() + "abc");
         liar.send(std::string(98, 'x'));
     }},
    {"APacketOfAnySize", "a packet of more than",
     [](Liar& liar) { liar.send(makeRequest().compose() + std::string(70000, 'x')); }},
};

std::size_t countDescriptors() {
    std::size_t count = 0;
    for (int i = 0; i < 1024; ++i) {
        count += fcntl(i, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

TEST_P(KRLocalLie, IsCutOffAndNobodyElseNotices) {
    test::RecordedLog log;
    test::TestService service([](KRLocalRequest& request) { request.reply(request.message); });
    KRLocalEndpoint server(KRLocalOptions{"server", ""}, service);
    const auto honest = server.connect(server.getAddress(), kPatience, {});
    Liar liar(server.getAddress());
    const std::size_t descriptors = countDescriptors();

    GetParam().tell(liar);
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, GetParam().logged)) << GetParam().logged;
    EXPECT_TRUE(test::eventually([&] { return server.getStatistics().connections == 1; }));
    EXPECT_EQ(server.getStatistics().disconnected, 1u);
    const auto warnings = log.find(KRLogLevel::Warning, "");
    EXPECT_EQ(warnings.size(), 1u);
    const std::string body(100000, 'b');
    EXPECT_EQ(honest->call(makeMessage(0, body, {makeBinary(100000, 1)})).body, body);
    liar.close();
    EXPECT_TRUE(test::eventually([&] { return countDescriptors() <= descriptors; }));
    server.stop();
}

INSTANTIATE_TEST_SUITE_P(KRLocal, KRLocalLie, testing::ValuesIn(kLies),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(KRLocalLiar, AClientThatReturnsASlotItDoesNotHoldIsCutOff) {
    test::RecordedLog log;
    test::TestService service([](KRLocalRequest& request) {
        request.reply(makeMessage(0, "", {makeBinary(614400, 1), makeBinary(614400, 2)}));
    });
    KRLocalEndpoint server(KRLocalOptions{"server", ""}, service);
    Liar liar(server.getAddress());
    liar.send(makeRequest().compose());
    const std::string reply = liar.receive();
    std::size_t size = 0;
    const KRLocalFrame frame =
        KRLocalFrame::parse({reinterpret_cast<const unsigned char*>(reply.data()), reply.size()}, size);
    ASSERT_EQ(frame.binaries.size(), 2u);
    for (const auto& binary : frame.binaries) {
        KRReturns::write(liar.returns.data(), binary.ticket, binary.generation);
    }
    EXPECT_EQ(server.getStatistics().lent, 0u);
    KRReturns::write(liar.returns.data(), frame.binaries[0].ticket, frame.binaries[0].generation + 1);
    liar.send(makeRequest().compose());
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "gave back a binary that it did not hold"));
    EXPECT_TRUE(test::eventually([&] { return server.getStatistics().connections == 0; }));
    EXPECT_EQ(server.getStatistics().lent, 0u);
    server.stop();
}

TEST(KRLocalLiar, AServerThatLiesFailsTheCallsToItAlone) {
    test::RecordedLog log;
    const std::string name = "krvision-test-" + drawSecret();
    const KRDescriptor listening = listenAt(name);
    test::TestService idle;
    KRLocalEndpoint endpoint(KRLocalOptions{"client", ""}, idle);
    std::thread lying([&] {
        Liar liar(KRDescriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)));
        liar.receive();
        const KRDescriptor bell(eventfd(0, EFD_CLOEXEC));
        liar.greet(KRLocalFrame::Welcome, "", bell.get());
        liar.receive();
        KRLocalFrame frame;
        frame.kind = KRLocalFrame::Reply;
        frame.number = 4711;
        liar.send(frame.compose());
        liar.receive();
    });
    test::Event gone;
    const auto connection = endpoint.connect({getMachineIdentity(), name, "?"}, kPatience,
                                             [&](const std::string&) { gone.set(); });
    EXPECT_THAT([&] { connection->call({}); },
                testing::ThrowsMessage<KRError>(testing::HasSubstr("a reply to no request")));
    EXPECT_TRUE(gone.wait());
    EXPECT_EQ(endpoint.getStatistics().disconnected, 1u);
    lying.join();
}

TEST(KRLocalLiar, AServerWithoutABellIsNotConnected) {
    const std::string name = "krvision-test-" + drawSecret();
    const KRDescriptor listening = listenAt(name);
    test::TestService idle;
    KRLocalEndpoint endpoint(KRLocalOptions{"client", ""}, idle);
    std::array<int, 2> pipe{};
    ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
    ::close(pipe[0]); // a write to the other end would raise a signal
    const KRDescriptor noBell(pipe[1]);
    for (const int bell : {noBell.get(), -1}) {
        std::thread lying([&] {
            Liar liar(KRDescriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)));
            liar.receive();
            liar.greet(KRLocalFrame::Welcome, "", bell);
            liar.receive();
        });
        EXPECT_THAT(
            [&] {
                endpoint.connect({getMachineIdentity(), name, "?"}, kPatience, {});
            },
            testing::ThrowsMessage<KRError>(
                testing::HasSubstr(bell < 0 ? "an invalid greeting" : "a bell that is not an eventfd")));
        lying.join();
    }
}

TEST(KRLocalLiar, AClientThatRingsForNothingOrNotAtAllHoldsUpNobodyElse) {
    test::TestService service([](KRLocalRequest& request) { request.reply(request.message); });
    KRLocalEndpoint server(KRLocalOptions{"server", ""}, service);
    const auto honest = server.connect(server.getAddress(), kPatience, {});
    Liar silent(server.getAddress());
    Liar ringing(server.getAddress());
    KRLocalFrame further = makeRequest();
    further.kind = KRLocalFrame::Further;
    for (int i = 0; i < 100; ++i) {
        silent.send(further.compose());
        eventfd_write(ringing.bell.get(), i % 2 == 0 ? 1 : 0xfffffffffffffffe);
        EXPECT_EQ(honest->call(makeMessage(0, "served")).body, "served");
    }
    ringing.send(makeRequest().compose());
    EXPECT_FALSE(ringing.receive().empty());
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(silent.receive().empty());
    }
    server.stop();
}

/// Number of unhandled signals of the bell.
std::string getRings(int bell) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(bell));
    for (std::string key, value; info >> key >> value;) {
        if (key == "eventfd-count:") {
            return value;
        }
    }
    return {};
}

TEST(KRLocalBell, IsRememberedUntilItsRequestComes) {
    test::Event release;
    test::TestService service([&](KRLocalRequest& request) {
        if (request.message.code == 1) {
            EXPECT_TRUE(release.wait());
        }
        request.reply(request.message);
    });
    KRLocalEndpoint server(KRLocalOptions{"server", ""}, service);
    Liar client(server.getAddress());
    eventfd_write(client.bell.get(), 1);
    EXPECT_TRUE(test::eventually([&] { return getRings(client.bell.get()) == "0"; }));
    KRLocalFrame blocking = makeRequest();
    blocking.code = 1;
    client.send(blocking.compose());
    KRLocalFrame further = makeRequest();
    further.kind = KRLocalFrame::Further;
    further.number = 2;
    client.send(further.compose());
    {
        const test::SetAtEnd atEnd(release);
        std::size_t headSize = 0;
        const std::string reply = client.receive();
        EXPECT_EQ(KRLocalFrame::parse({reinterpret_cast<const unsigned char*>(reply.data()), reply.size()},
                                      headSize)
                      .number,
                  2u);
    }
    server.stop();
}

TEST(KRLocalLiar, AClientThatNeverGreetsIsForgotten) {
    test::TestService service([](KRLocalRequest& request) { request.reply(request.message); });
    KRLocalEndpoint server(KRLocalOptions{"server", ""}, service);
    std::vector<KRDescriptor> silent;
    for (int i = 0; i < 70; ++i) { // more than may wait
        silent.push_back(connectTo(server.getAddress().socket, std::chrono::steady_clock::now() + kPatience));
    }
    EXPECT_TRUE(test::eventually([&] { return server.getStatistics().refused == 70; }));
    const auto honest = server.connect(server.getAddress(), kPatience, {});
    EXPECT_EQ(honest->call(makeMessage(0, "served")).body, "served");
    server.stop();
}

} // namespace
} // namespace KR
