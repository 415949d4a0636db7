// What happens when no descriptor is free, or none can be handed over.

#include "krlocal/krlocalendpoint.hpp"

#include "descriptorlimits.hpp"
#include "images.hpp"
#include "krlocal/krprocess.hpp"
#include "krlocalsocket.hpp"
#include "otherprocess.hpp"
#include "patience.hpp"
#include "recordedlog.hpp"
#include "testservice.hpp"

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <sstream>

namespace KR {
namespace {

using test::AllDescriptorsTaken;
using test::fetchImage;
using test::isImage;
using test::kPatience;
using test::TooManyUnderWay;
using testing::HasSubstr;

constexpr std::size_t kPlainImage = 614400;

/// An endpoint that serves images, and a connection to it.
struct Local {
    ~Local() { endpoint.stop(); }
    std::shared_ptr<KRLocalConnection> connect(std::chrono::milliseconds patience = kPatience) {
        return endpoint.connect(endpoint.getAddress(), patience, {});
    }

    test::TestService service{test::serveImages};
    KRLocalEndpoint endpoint{KRLocalOptions{"this process", "", std::size_t{64} << 20}, service};
    std::shared_ptr<KRLocalConnection> connection = connect();
};

std::string failureOf(const std::function<void()>& function) {
    try {
        function();
    } catch (const KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

void streamWhatCannotBeHandedOver() {
    test::becomeOrdinaryUser();
    {
        Local local;
        {
            const TooManyUnderWay many;
            EXPECT_TRUE(isImage(fetchImage(*local.connection, kPlainImage)));
            EXPECT_EQ(local.endpoint.getStatistics().streamed, 1U);
            EXPECT_EQ(local.endpoint.getStatistics().shared, 0U);
            EXPECT_EQ(local.endpoint.getStatistics().lent, 0U);
        }
        EXPECT_TRUE(isImage(fetchImage(*local.connection, kPlainImage)));
        EXPECT_EQ(local.endpoint.getStatistics().streamed, 1U);
        EXPECT_EQ(local.endpoint.getStatistics().shared, 1U);
        // What the other has is used meanwhile.
        const TooManyUnderWay many;
        EXPECT_TRUE(isImage(fetchImage(*local.connection, kPlainImage)));
        EXPECT_EQ(local.endpoint.getStatistics().shared, 2U);
    }
    test::exitWithTestResult();
}

TEST(KRLocalLimits, AnImageWhoseMemoryCannotBeHandedOverGoesThroughTheSocket) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(streamWhatCannotBeHandedOver(), testing::ExitedWithCode(0), "");
}

void connectOnceDescriptorsCanBeHandedOver() {
    test::becomeOrdinaryUser();
    {
        Local local;
        auto many = std::make_unique<TooManyUnderWay>();
        EXPECT_THAT(failureOf([&] { local.connect(std::chrono::milliseconds(20)); }),
                    HasSubstr("too many descriptors of this user are under way"));
        auto connecting = test::startAndLetSleep([&] { return local.connect(); });
        many.reset();
        EXPECT_TRUE(isImage(fetchImage(*test::resultOf(connecting), kPlainImage)));
    }
    test::exitWithTestResult();
}

TEST(KRLocalLimits, AConnectionIsMadeOnceDescriptorsCanBeHandedOver) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(connectOnceDescriptorsCanBeHandedOver(), testing::ExitedWithCode(0), "");
}

TEST(KRLocalLimits, AReceiverWithoutADescriptorLosesOnlyTheConnectionThatNeedsOne) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    const test::OtherProcess server({"serve"});
    test::TestService idle;
    KRLocalEndpoint endpoint(KRLocalOptions{"this process", ""}, idle);
    KRLocalAddress address;
    std::istringstream(server.getAnswer()) >> address.machine >> address.socket >> address.secret;
    const auto connect = [&] { return endpoint.connect(address, kPatience, {}); };
    const auto undisturbed = connect();
    const auto other = connect();
    EXPECT_TRUE(isImage(fetchImage(*undisturbed, kPlainImage)));
    const test::RecordedLog log;
    {
        const AllDescriptorsTaken all;
        EXPECT_THAT(failureOf([&] { fetchImage(*other, kPlainImage); }), HasSubstr("Too many open files"));
        EXPECT_TRUE(log.waitFor(KRLogLevel::Warning,
                                "is closed: shared memory cannot be received: Too many open files"));
        EXPECT_TRUE(isImage(fetchImage(*undisturbed, kPlainImage)));
        EXPECT_THAT(failureOf([&] { connect(); }), HasSubstr("no socket: Too many open files"));
    }
    EXPECT_TRUE(undisturbed->isOpen());
    EXPECT_EQ(endpoint.getStatistics().disconnected, 0U); // the other process is not to blame
    EXPECT_TRUE(isImage(fetchImage(*connect(), kPlainImage)));
    endpoint.stop();
}

TEST(KRLocalLimits, ASenderWithoutADescriptorSendsThroughTheSocketUntilThereIsOne) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    constexpr std::size_t kNewSize = 5000000; // for which there is no memory yet
    Local local;
    const test::RecordedLog log;
    {
        const AllDescriptorsTaken all;
        EXPECT_TRUE(isImage(fetchImage(*local.connection, kNewSize)));
        EXPECT_TRUE(isImage(fetchImage(*local.connection, kNewSize)));
    }
    EXPECT_EQ(local.endpoint.getStatistics().streamed, 2U);
    EXPECT_EQ(
        log.find(KRLogLevel::Warning, "for want of shared memory: memfd_create: Too many open files").size(),
        1U);
    EXPECT_TRUE(isImage(fetchImage(*local.connection, kNewSize)));
    EXPECT_EQ(local.endpoint.getStatistics().streamed, 2U);
    EXPECT_EQ(local.endpoint.getStatistics().shared, 1U);
}

TEST(KRLocalLimits, ConnectionsWaitUntilThereIsADescriptorForThem) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    Local local;
    const test::RecordedLog log;
    const KRDescriptor client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    const socklen_t size = toAbstract(local.endpoint.getAddress().socket, address);
    {
        const AllDescriptorsTaken all;
        EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
        EXPECT_TRUE(
            log.waitFor(KRLogLevel::Warning, "connections have to wait to be accepted: Too many open files"));
        EXPECT_TRUE(local.connection->isOpen());
        EXPECT_EQ(local.connection->call(test::makeMessage(5, "")).code, 5U);
        EXPECT_TRUE(local.endpoint.getAddress().isOnThisMachine());
    }
    EXPECT_EQ(::send(client.get(), "x", 1, 0), 1);
    char byte = 0;
    EXPECT_LE(::recv(client.get(), &byte, 1, 0), 0); // it is accepted, and refused for what it says
    EXPECT_TRUE(test::eventually([&] { return local.endpoint.getStatistics().refused == 1; }));
}

TEST(KRLocalLimits, AProcessHasNotEndedBecauseNoDescriptorIsFree) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    const AllDescriptorsTaken all;
    EXPECT_FALSE(isOver(getpid()));
    EXPECT_FALSE(isStopped(getpid()));
}

} // namespace
} // namespace KR
