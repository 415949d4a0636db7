// Processes that are killed and stopped at random moments, again and again, while images flow between all.
//
// KR_TEST_KILLS is the number of rounds, 20 without it; KR_TEST_SEED repeats the random numbers of a failed run.

#include "exchange.hpp"
#include "mappedmemory.hpp"
#include "otherprocess.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>

namespace KR {
namespace {

using test::eventually;
using test::Exchange;
using test::ExchangeReport;
using test::kPatience;
using test::OtherProcess;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsHeapExact = false; // they keep freed memory
#else
constexpr bool kIsHeapExact = true;
#endif

unsigned readNumber(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

/// What a process takes of the machine.
struct Use {
    std::size_t descriptors = 0;
    std::size_t mappings = 0; // of shared memory
    std::size_t shared_kB = 0;
    std::size_t heap_kB = 0;

    std::string toText() const {
        return std::to_string(descriptors) + " descriptors, " + std::to_string(mappings) + " memories, " +
               std::to_string(shared_kB) + " kB shared, " + std::to_string(heap_kB) + " kB of its own";
    }
    static Use of(pid_t process) {
        const std::string folder = "/proc/" + std::to_string(process);
        const test::MappedMemory memory = test::readMappedMemory(folder);
        const std::filesystem::directory_iterator open(folder + "/fd");
        return {static_cast<std::size_t>(std::distance(begin(open), end(open))), memory.mappings,
                memory.resident_kB, test::readAnonymousMemory(folder)};
    }
};

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
    Use getUse() const { return Use::of(process_.getPid()); }
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
    std::vector<Use> getUse() const { return {Use::of(getpid()), first.getUse(), second.getUse()}; }

    Exchange here{"here"};
    Member first{here, "first", {}};
    Member second{here, "second", {first.getAddress()}};
    std::unique_ptr<Member> victim;
};

TEST_F(KRLocalKills, AndStopsAtRandomMomentsDisturbNobodyElseAndLoseNothing) {
    constexpr int kSettled = 8; // rounds until all have had as many images at once as ever
    const int rounds = static_cast<int>(readNumber("KR_TEST_KILLS", 20));
    const unsigned seed = readNumber("KR_TEST_SEED", std::random_device()());
    RecordProperty("seed", std::to_string(seed));
    std::mt19937 random(seed);
    const auto waitForSomeMoment = [&] {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    };
    std::vector<Use> before;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(seed));
        if (!victim) {
            startVictim();
        }
        waitForSomeMoment();
        const bool isStopped = random() % 2 == 0;
        if (isStopped) {
            victim->getProcess().freeze();
            checkThatItKeepsItsOwnSlots();
        }
        if (!isStopped || random() % 2 == 0 || round == kSettled || round == rounds - 1) {
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
    SCOPED_TRACE("seed " + std::to_string(seed));
    ASSERT_EQ(before.size(), 3U);
    EXPECT_TRUE(eventually([&] {
        const std::vector<Use> after = getUse();
        return std::equal(after.begin(), after.end(), before.begin(), [](const Use& now, const Use& then) {
            return now.descriptors <= then.descriptors && now.mappings <= then.mappings;
        });
    }));
    const std::vector<Use> after = getUse();
    for (std::size_t i = 0; i < after.size(); ++i) {
        const std::string process = "process" + std::to_string(i);
        SCOPED_TRACE(process);
        RecordProperty(process, before[i].toText() + " -> " + after[i].toText());
        EXPECT_LE(after[i].shared_kB,
                  before[i].shared_kB + 2 * test::kLargeImage / 1024); // slots not used until then
        if (kIsHeapExact) {
            EXPECT_LE(after[i].heap_kB, before[i].heap_kB + 2048); // far less than an image for each round
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
