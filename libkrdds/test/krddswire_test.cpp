// What goes over the wire, seen and spoken by a participant that knows nothing but idl/krvision.idl.

#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"Module"});
}

} // namespace

} // namespace KR::test
