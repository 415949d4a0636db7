// Processes that are killed and stopped at random moments, again and again, while images flow between all.

#include "exchange.hpp"
#include "otherprocess.hpp"
#include "processuse.hpp"
#include "randomkills.hpp"

#include <gtest/gtest.h>

#include <memory>

namespace KR {
namespace {

using test::eventually;
using test::Exchange;
using test::ExchangeReport;
using test::kPatience;
using test::OtherProcess;
using test::ProcessUse;

/// A process that exchanges images with others, and a connection for controlling it.
class Member {
public:
    Member(Exchange& here, const std::string& id, const std::vector<KRLocalAddress>& sources)
        : process_(compose(id, sources)), address_(KRLocalAddress::parse(process_.getAnswer()).value()),
          connection_(here.getEndpoint().connect(address_, kPatience, {})) {}

    OtherProcess& getProcess() noexcept { return process_; }
    const KRLocalAddress& getAddress() const noexcept { return address_; }
    ExchangeReport report() const { return ExchangeReport::parse(call("report")); }
    void fetchFrom(const Member& other) const { call("from " + other.address_.toText()); }
    void rest() const { call("rest"); }
    ProcessUse getUse() const { return ProcessUse::of(process_.getPid()); }
    /// Whether it continues to get images.
    bool goesOn() const {
        constexpr std::uint64_t kSome = 10;
        const std::uint64_t before = report().images;
        return eventually([&] { return report().images >= before + kSome; });
    }

private:
    static std::vector<std::string> compose(const std::string& id,
                                            const std::vector<KRLocalAddress>& sources) {
        std::vector<std::string> words{"exchange", id};
        for (const KRLocalAddress& source : sources) {
            words.push_back(source.toText());
        }
        return words;
    }
    std::string call(const std::string& command) const {
        return connection_->call(test::makeMessage(0, command)).body;
    }

    OtherProcess process_;
    const KRLocalAddress address_;
    const std::shared_ptr<KRLocalConnection> connection_;
};

/// Two processes that exchange images with each other throughout, and one after the other that exchanges images with this
/// process and with the first until it is killed.
class KRLocalKills : public testing::Test {
protected:
    KRLocalKills() { first.fetchFrom(second); }

    void startVictim() {
        victim = std::make_unique<Member>(here, "victim",
                                          std::vector{here.getEndpoint().getAddress(), first.getAddress()});
        here.fetchFrom(victim->getAddress());
        first.fetchFrom(*victim);
    }
    void killVictim() {
        victim->getProcess().kill();
        victim.reset();
        EXPECT_TRUE(eventually([&] { return here.report().sources == 0; }));
        EXPECT_TRUE(eventually([&] { return first.report().sources == 1; }));
        EXPECT_TRUE(eventually([&] { return here.report().statistics.lent == 0; }));
        EXPECT_TRUE(eventually([&] { return here.report().statistics.connections == 0; }));
    }
    /// While it is frozen. What it receives or has received is one more than it keeps.
    void checkThatItKeepsItsOwnSlots() {
        EXPECT_LE(here.report().statistics.lent, Exchange::kKept + 2);
        EXPECT_LE(first.report().statistics.lent, 2 * (Exchange::kKept + 2));
        EXPECT_TRUE(first.goesOn());
        EXPECT_TRUE(second.goesOn());
    }
    std::vector<ProcessUse> getUse() const {
        return {ProcessUse::of(getpid()), first.getUse(), second.getUse()};
    }

    Exchange here{"here"};
    Member first{here, "first", {}};
    Member second{here, "second", {first.getAddress()}};
    std::unique_ptr<Member> victim;
};

TEST_F(KRLocalKills, AndStopsAtRandomMomentsDisturbNobodyElseAndLoseNothing) {
    constexpr int kSettled = 8; // rounds until all have had as many images at once as ever
    test::RandomKills kills(20);
    const std::string seed = "seed " + std::to_string(kills.getSeed());
    RecordProperty("seed", seed);
    std::vector<ProcessUse> before;
    for (int round = 0; round < kills.getRounds() && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of " + seed);
        if (!victim) {
            startVictim();
        }
        kills.waitForSomeMoment();
        const bool isStopped = kills.decide();
        if (isStopped) {
            victim->getProcess().freeze();
            checkThatItKeepsItsOwnSlots();
        }
        if (!isStopped || kills.decide() || round == kSettled || round == kills.getRounds() - 1) {
            killVictim();
        } else {
            victim->getProcess().thaw();
            const std::uint64_t images = here.report().images;
            EXPECT_TRUE(eventually([&] { return here.report().images > images; }));
            EXPECT_TRUE(victim->goesOn());
        }
        if (round == kSettled) {
            before = getUse();
        }
    }
    EXPECT_TRUE(first.goesOn());
    EXPECT_TRUE(second.goesOn());
    SCOPED_TRACE(seed);
    ASSERT_EQ(before.size(), 3U);
    EXPECT_TRUE(eventually([&] {
        const std::vector<ProcessUse> after = getUse();
        return std::equal(after.begin(), after.end(), before.begin(),
                          [](const ProcessUse& now, const ProcessUse& then) {
                              return now.descriptors <= then.descriptors && now.mappings <= then.mappings;
                          });
    }));
    const std::vector<ProcessUse> after = getUse();
    for (std::size_t i = 0; i < after.size(); ++i) {
        const std::string process = "process" + std::to_string(i);
        SCOPED_TRACE(process);
        RecordProperty(process, before[i].toText() + " -> " + after[i].toText());
        EXPECT_LE(after[i].shared_kB,
                  before[i].shared_kB + 2 * test::kLargeImage / 1024); // slots not used until then
        if (test::kIsHeapExact) {
            EXPECT_LE(after[i].own_kB, before[i].own_kB + 2048); // far less than an image for each round
        }
    }
    first.rest();
    second.rest();
    for (const Member* member : {&first, &second}) {
        EXPECT_TRUE(eventually([&] { return member->report().statistics.lent == 0; }));
    }
    EXPECT_EQ(second.report().ended, 0U); // it never had to do with those that were killed
    for (const ExchangeReport& report : {here.report(), first.report(), second.report()}) {
        EXPECT_EQ(report.overwritten, 0U);
        EXPECT_EQ(report.statistics.streamed, 0U);
        EXPECT_EQ(report.statistics.disconnected, 0U);
        EXPECT_EQ(report.statistics.refused, 0U);
        EXPECT_GT(report.statistics.shared, 0U);
    }
}

} // namespace
} // namespace KR
