// The wire protocol, seen by a participant that only knows idl/krvision.idl.

#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krplatform/krproxy.hpp>

#include "krvaluecode.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

namespace KR::test {

namespace {

using testing::HasSubstr;

class KRDDSWire : public testing::Test {
protected:
    TestDomain domain;
    boost::shared_ptr<KRBroker> broker = domain.createBroker();
    KRModuleHandle<TestModule> module = makeModule(broker, "Module", [](TestModule& made) {
        made.add("echo", [](const KRValue& value) { return value; });
    });
    Stranger stranger{domain.getNumber()};
};

TEST_F(KRDDSWire, IsAsTheDefinitionsSay) {
    const std::string id = stranger.findBroker();
    stranger.announce(1, {0x90});
    const dds_entity_t replies = stranger.readReplies();
    stranger.request(id, 5, "Module", "echo", {0x91, 0xa2, 'h', 'i'});
    void* sample = nullptr;
    dds_sample_info_t info;
    ASSERT_TRUE(eventually([&] { return dds_take(replies, &sample, &info, 1, 1) == 1; }));
    const auto& reply = *static_cast<KRVision_Reply*>(sample);
    EXPECT_EQ(reply.broker, id);
    EXPECT_EQ(reply.number, 5U);
    EXPECT_EQ(reply.status, 0U);
    EXPECT_EQ(std::vector<std::uint8_t>(reply.value._buffer, reply.value._buffer + reply.value._length),
              (std::vector<std::uint8_t>{0xa2, 'h', 'i'}));
    dds_return_loan(replies, &sample, 1);
}

TEST_F(KRDDSWire, WhatMakesNoSenseIsLoggedOnceAndDropped) {
    const RecordedLog log;
    const std::string id = stranger.findBroker();
    stranger.announce(1, {0x90});
    for (std::uint64_t i = 0; i < 5; ++i) {
        stranger.request(id, 100 + i, "Module", "echo", {0xc1, 0xff});
        stranger.request(id, 200 + i, "Module", "echo", {0x01}); // no array
    }
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "malformed"));
    const dds_entity_t replies = stranger.readReplies();
    stranger.request(id, 300, "Module", "echo", {0x91, 0x07});
    void* sample = nullptr;
    dds_sample_info_t info;
    ASSERT_TRUE(eventually([&] { return dds_take(replies, &sample, &info, 1, 1) == 1; }));
    EXPECT_EQ(static_cast<KRVision_Reply*>(sample)->number, 300U);
    dds_return_loan(replies, &sample, 1);
    EXPECT_EQ(log.find(KRLogLevel::Warning, "malformed").size(), 1U);
    EXPECT_EQ(broker->getDiagnostics().malformedMessages, 10U);
}

TEST_F(KRDDSWire, AnnouncementsThatMakeNoSenseAreDropped) {
    const RecordedLog log;
    stranger.announce(1, {0x91, 0x92, 0x01, 0x02});
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "dropped"));
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"Module"});
}

TEST_F(KRDDSWire, ABrokerOfAnotherVersionIsRefusedWithALineThatSaysSo) {
    const RecordedLog log;
    stranger.announce(2, {0xc1});
    const auto line = log.waitFor(KRLogLevel::Error, "speaks protocol 2");
    ASSERT_TRUE(line);
    EXPECT_THAT(line->message, HasSubstr("in process 4711 (stranger) on elsewhere"));
    const KRBrokerDiagnostics found = broker->getDiagnostics();
    ASSERT_EQ(found.peers.size(), 1U);
    EXPECT_EQ(found.peers[0].state, KRPeerDiagnostics::State::Refused);
    EXPECT_EQ(found.peers[0].protocol, 2U);
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"Module"});
}

// ---- calls that get lost, and two that have one name

using Bytes = std::vector<std::uint8_t>;

KRValue decode(const Bytes& bytes) {
    const KRReceivedBytes received = KRReceivedBytes::allocate(bytes.size());
    std::copy(bytes.begin(), bytes.end(), received.bytes.get());
    return decodeValue(received, 0, bytes.size());
}

Bytes encode(const KRValue& value) {
    Bytes bytes;
    const KRComposedBytes composed = encodeValue(value);
    for (const auto& piece : composed.getPieces()) {
        bytes.insert(bytes.end(), piece.data, piece.data + piece.size);
    }
    return bytes;
}

/// The list that announces one module, whose name was claimed so many seconds after the epoch.
Bytes makeModuleList(const std::string& name, int state, int claimed, int number = 1) {
    return encode(KRValue::array(KRValue::array(name, number, state, claimed, 0)));
}

struct Request {
    std::uint64_t number = 0;
    std::uint32_t kind = 0;
    std::string method;
    KRValue arguments;
};

struct Reply {
    std::uint64_t number = 0;
    std::uint32_t status = 0;
};

/// Waits for the next message of this type and hands it to the function.
template <class Message, class Function>
void takeNext(dds_entity_t reader, Function function) {
    void* sample = nullptr;
    dds_sample_info_t info;
    ASSERT_TRUE(eventually([&] { return dds_take(reader, &sample, &info, 1, 1) == 1 && info.valid_data; }));
    function(*static_cast<const Message*>(sample));
    dds_return_loan(reader, &sample, 1);
}

Request takeRequest(dds_entity_t reader) {
    Request request;
    takeNext<KRVision_Request>(reader, [&](const KRVision_Request& taken) {
        request = {taken.number, taken.kind, taken.method,
                   decode(Bytes(taken.arguments._buffer, taken.arguments._buffer + taken.arguments._length))};
    });
    return request;
}

Reply takeReply(dds_entity_t reader) {
    Reply reply;
    takeNext<KRVision_Reply>(reader, [&](const KRVision_Reply& taken) {
        reply = {taken.number, taken.status};
    });
    return reply;
}

/// Why a module of this name is refused.
std::string refusalOf(const boost::shared_ptr<KRBroker>& broker, const std::string& name) {
    try {
        makeModule(broker, name);
    } catch (const KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

/// Calls a module, on a separate thread. \return what it fails with
std::future<std::string> callLater(const boost::shared_ptr<KRBroker>& broker, const std::string& module) {
    return std::async(std::launch::async, [broker, module]() -> std::string {
        try {
            broker->getProxy(module)->call("go", 5);
        } catch (const KRError& error) {
            return error.getDescription();
        }
        return "no error";
    });
}

TEST_F(KRDDSWire, ACallThatTheOtherDoesNotKnowFails) {
    const std::string id = stranger.findBroker();
    const dds_entity_t requests = stranger.readRequests();
    stranger.announce(1, makeModuleList("Ghost", 1, 100));
    ASSERT_TRUE(broker->getSession().waitForService("Ghost", kPatience));
    auto call = callLater(broker, "Ghost");
    const Request request = takeRequest(requests);
    EXPECT_EQ(request.kind, 0U);
    EXPECT_EQ(request.method, "go");
    EXPECT_EQ(request.arguments, KRValue::array(5));
    const Request inquiry = takeRequest(requests);
    EXPECT_EQ(inquiry.kind, 1U);
    EXPECT_EQ(inquiry.arguments, KRValue::array(0, static_cast<int>(request.number)));
    stranger.reply(id, request.number, 2, {0xc0});
    EXPECT_THAT(resultOf(call), HasSubstr("the call or its answer was lost"));
}

TEST_F(KRDDSWire, AnAnswerThatMakesNoSenseFailsTheCall) {
    const std::string id = stranger.findBroker();
    const dds_entity_t requests = stranger.readRequests();
    stranger.announce(1, makeModuleList("Ghost", 1, 100));
    ASSERT_TRUE(broker->getSession().waitForService("Ghost", kPatience));
    auto call = callLater(broker, "Ghost");
    stranger.reply(id, takeRequest(requests).number, 0, {0xc1});
    EXPECT_THAT(resultOf(call), HasSubstr("the answer cannot be understood"));
}

TEST_F(KRDDSWire, AskedAboutCallsABrokerNamesThoseThatDoNotRun) {
    Event released;
    Event blocked;
    const auto blocking = makeModule(broker, "Blocking", [&](TestModule& made) {
        made.add("block", [&] {
            blocked.set();
            return released.wait();
        });
    });
    const SetAtEnd end(released);
    const std::string id = stranger.findBroker();
    stranger.announce(1, {0x90});
    const dds_entity_t replies = stranger.readReplies();
    stranger.request(id, 8, "Blocking", "block", {0x90});
    ASSERT_TRUE(blocked.wait());
    stranger.request(id, 9, "", "", encode(KRValue::array(0, 8, 0, 7)), 1);
    const Reply unknown = takeReply(replies);
    EXPECT_EQ(unknown.number, 7U);
    EXPECT_EQ(unknown.status, 2U);
    released.set();
    const Reply result = takeReply(replies);
    EXPECT_EQ(result.number, 8U);
    EXPECT_EQ(result.status, 0U);
    // A caller that inquires again has not received that answer.
    Reply lost;
    EXPECT_TRUE(eventually([&] { // the call ends a moment after its answer
        stranger.request(id, 10, "", "", encode(KRValue::array(0, 8, 0, 6)), 1);
        lost = takeReply(replies);
        return lost.number == 8;
    }));
    EXPECT_EQ(lost.status, 2U);
}

TEST_F(KRDDSWire, AModuleKeepsTheTimeAtWhichItCame) {
    const dds_entity_t announcements = stranger.readAnnouncements();
    // What is announced of the module, once the announcement is as long as that.
    const auto find = [&](std::size_t modules) {
        KRValue found;
        EXPECT_TRUE(eventually([&] {
            KRValue list;
            takeNext<KRVision_Announcement>(announcements, [&](const KRVision_Announcement& taken) {
                list = decode(Bytes(taken.modules._buffer, taken.modules._buffer + taken.modules._length));
            });
            for (std::size_t i = 0; i < list.getSize() && list.getSize() == modules; ++i) {
                if (list[i][0] == "Module" && list[i][2] == 1) {
                    found = list[i];
                }
            }
            return found.isValid();
        }));
        return found;
    };
    const KRValue before = find(1);
    const auto another = makeModule(broker, "Another");
    EXPECT_EQ(find(2), before);
}

TEST_F(KRDDSWire, AnAnnouncementOfAStateThatNoModuleHasIsDropped) {
    const RecordedLog log;
    stranger.readRequests();
    stranger.announce(1, makeModuleList("Odd", 4, 100));
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "module state 4; it is dropped"));
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"Module"});
}

TEST_F(KRDDSWire, ACallWaitsUntilTheBrokerReadsCalls) {
    stranger.announce(1, makeModuleList("Ghost", 1, 100));
    ASSERT_TRUE(broker->getSession().waitForService("Ghost", kPatience));
    EXPECT_EQ(broker->getDiagnostics().peers[0].state, KRPeerDiagnostics::State::Connected);
    auto call = std::async(std::launch::async, [&] { return broker->getProxy("Ghost")->call<int>("go"); });
    EXPECT_TRUE(eventually(
        [&] { return broker->getDiagnostics().peers[0].state == KRPeerDiagnostics::State::Connecting; }));
    const dds_entity_t requests = stranger.readRequests();
    std::uint64_t number = 0;
    takeNext<KRVision_Request>(requests, [&](const KRVision_Request& taken) { number = taken.number; });
    stranger.reply(stranger.findBroker(stranger.getId()), number, 0, {7});
    EXPECT_EQ(resultOf(call), 7);
}

TEST_F(KRDDSWire, AModuleThatCameBackIsAnotherOne) {
    stranger.readRequests();
    stranger.announce(1, makeModuleList("Ghost", 1, 100, 5));
    ASSERT_TRUE(broker->getSession().waitForService("Ghost", kPatience));
    const auto proxy = broker->getProxy("Ghost");
    const std::uint32_t before = proxy->getModuleNumber();
    EXPECT_NE(before, 0U);
    stranger.announce(1, makeModuleList("Ghost", 1, 100, 6));
    EXPECT_TRUE(eventually([&] {
        const std::uint32_t number = proxy->getModuleNumber();
        return number != 0 && number != before;
    }));
}

TEST_F(KRDDSWire, AnAnnouncementOfMoreModulesThanABrokerHasIsDropped) {
    const RecordedLog log;
    stranger.readRequests();
    std::vector<KRValue> modules;
    for (int i = 0; i <= 10000; ++i) {
        modules.push_back(KRValue::array("M" + std::to_string(i), i, 1, 100, 0));
    }
    stranger.announce(1, encode(modules));
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "too many modules"));
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"Module"});
}

TEST_F(KRDDSWire, AnAnswerWaitsForACallerThatDoesNotReadYet) {
    const std::string id = stranger.findBroker();
    stranger.announce(1, {0x90});
    stranger.request(id, 5, "Module", "echo", {0x91, 0x07});
    Stranger other(domain.getNumber(), "other"); // whose call comes later
    other.announce(1, {0x90});
    const dds_entity_t othersReplies = other.readReplies();
    other.request(id, 6, "Module", "echo", {0x91, 0x07});
    EXPECT_EQ(takeReply(othersReplies).number, 6U);
    EXPECT_EQ(takeReply(stranger.readReplies()).number, 5U);
}

TEST(KRDDSTwins, OfTwoModulesOfOneNameTheOneThatCameFirstIsCalled) {
    const TestDomain domain;
    const auto broker = domain.createBroker("lease=1");
    const RecordedLog log;
    Stranger later(domain.getNumber(), "later");
    Stranger earlier(domain.getNumber(), "earlier");
    const dds_entity_t requests = earlier.readRequests();
    later.readRequests();
    later.announce(1, makeModuleList("Twin", 1, 200));
    ASSERT_TRUE(broker->getSession().waitForService("Twin", kPatience));
    earlier.announce(1, makeModuleList("Twin", 1, 100));
    const auto line = log.waitFor(KRLogLevel::Error, "there are two modules named Twin");
    ASSERT_TRUE(line);
    EXPECT_THAT(line->message, testing::AllOf(HasSubstr("(earlier)"), HasSubstr("(later)")));
    EXPECT_TRUE(eventually([&] { return refusalOf(broker, "Twin").find("(earlier)") != std::string::npos; }));
    broker->getProxy("Twin")->post("go", 5);
    EXPECT_EQ(takeRequest(requests).method, "go");
    EXPECT_EQ(log.find(KRLogLevel::Error, "there are two modules named Twin").size(), 1U);
}

TEST(KRDDSTwins, TwoModulesOfOneNameThatMeetAgainAreReportedAgain) {
    const TestDomain domain;
    const auto broker = domain.createBroker("lease=0.2");
    const RecordedLog log;
    Stranger later(domain.getNumber(), "later");
    Stranger earlier(domain.getNumber(), "earlier");
    later.announce(1, makeModuleList("Twin", 1, 200));
    earlier.announce(1, makeModuleList("Twin", 1, 100));
    ASSERT_TRUE(log.waitFor(KRLogLevel::Error, "there are two modules named Twin"));
    earlier.announce(1, makeModuleList("Other", 1, 300)); // and no longer Twin
    EXPECT_TRUE(eventually([&] { return refusalOf(broker, "Twin").find("(later)") != std::string::npos; }));
    earlier.announce(1, makeModuleList("Twin", 1, 100));
    EXPECT_TRUE(eventually(
        [&] { return log.find(KRLogLevel::Error, "there are two modules named Twin").size() == 2; }));
}

} // namespace

} // namespace KR::test
