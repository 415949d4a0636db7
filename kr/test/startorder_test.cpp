// Four processes that need each other start in any order, and continue after restarts in any order.

#include "servedprogram.hpp"
#include "testdomain.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krmemoryproxy.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace KR::test {
namespace {

constexpr int kServe = 0; // 1 to 3 are the modules Ring1 to Ring3, each subscribed to an event of the next

using Order = std::array<int, 4>;

// The modules are alike but for their number, so of the orders that differ by which of them is called Ring1, one will do: that
// in which it is the first of them.
std::vector<Order> listOrders() {
    std::vector<Order> orders;
    Order order;
    std::iota(order.begin(), order.end(), 0);
    do {
        if (*std::ranges::find_if(order, [](int process) { return process != kServe; }) == 1) {
            orders.push_back(order);
        }
    } while (std::next_permutation(order.begin(), order.end()));
    return orders;
}

std::string nameOrder(const testing::TestParamInfo<Order>& info) {
    std::string name;
    for (const int process : info.param) {
        name += process == kServe ? std::string("Serve") : "Ring" + std::to_string(process);
    }
    return name;
}

class StartOrder : public testing::TestWithParam<Order> {
protected:
    std::unique_ptr<RunningProgram> start(int process) const {
        const std::string url = domain_.getUrl();
        return process == kServe
                   ? std::make_unique<RunningProgram>(std::vector<std::string>{"serve", "--broker", url}, "")
                   : std::make_unique<RunningProgram>(
                         std::vector<std::string>{"run", KR_RING_MODULE, "--name",
                                                  "Ring" + std::to_string(process), "--broker", url},
                         "");
    }

    // Each module gets events of the next one's images, so its last number keeps changing.
    void expectAllHear(const std::array<std::unique_ptr<RunningProgram>, 4>& programs, const char* when) {
        for (int ring = 1; ring <= 3; ++ring) {
            const std::string key = "Ring" + std::to_string(ring) + "/Heard";
            const auto read = [&]() -> int {
                try {
                    const KRValue value = KRMemoryProxy(broker_).getData(key);
                    return value.isInt() ? value.to<int>() : -1;
                } catch (const KRError&) { // no memory yet, or a new one without the key
                    return -1;
                }
            };
            int first = -1;
            int changes = 0;
            EXPECT_TRUE(eventually([&] {
                const int now = read();
                changes += now >= 0 && now != first ? 1 : 0;
                first = now;
                return changes >= 3;
            })) << key
                << " does not change " << when << "; Ring" << ring << " wrote:\n"
                << programs[static_cast<std::size_t>(ring)]->readErr() << "the service wrote:\n"
                << programs[kServe]->readErr();
        }
    }

    const TestDomain domain_;
    const boost::shared_ptr<KRBroker> broker_ = domain_.createBroker();
};

TEST_P(StartOrder, AllRunAfterAStartAndAfterRestartsInThatOrder) {
    std::array<std::unique_ptr<RunningProgram>, 4> programs;
    for (const int process : GetParam()) {
        programs[static_cast<std::size_t>(process)] = start(process);
    }
    expectAllHear(programs, "after the start");
    for (const int process : GetParam()) {
        auto& program = programs[static_cast<std::size_t>(process)];
        const Outcome outcome = program->stop();
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        program = start(process);
    }
    expectAllHear(programs, "after the restarts");
}

INSTANTIATE_TEST_SUITE_P(Every, StartOrder, testing::ValuesIn(listOrders()), nameOrder);

} // namespace
} // namespace KR::test
