#pragma once

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

namespace KR::test {

/// When a test kills and stops other processes, and how often. KR_TEST_KILLS is the number of rounds if it is set;
/// KR_TEST_SEED repeats what a failed run did.
class RandomKills {
public:
    explicit RandomKills(int rounds)
        : rounds_(static_cast<int>(readNumber("KR_TEST_KILLS", static_cast<unsigned>(rounds)))),
          seed_(readNumber("KR_TEST_SEED", std::random_device()())), random_(seed_) {}

    int getRounds() const noexcept { return rounds_; }
    unsigned getSeed() const noexcept { return seed_; }

    void waitForSomeMoment() { std::this_thread::sleep_for(std::chrono::microseconds(random_() % 20000)); }
    /// As likely as not.
    bool decide() { return random_() % 2 == 0; }

private:
    static unsigned readNumber(const char* variable, unsigned otherwise) {
        const char* const text = std::getenv(variable);
        return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
    }

    const int rounds_;
    const unsigned seed_;
    std::mt19937 random_;
};

} // namespace KR::test
