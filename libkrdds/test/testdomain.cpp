#include "testdomain.hpp"

#include <krdds/krdds.hpp>

#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace KR::test {

namespace {

// Their ports are below those that the kernel gives to anybody.
constexpr unsigned kFirst = 10;
constexpr unsigned kCount = 90;

// All tests take the domains in turn: what a killed process has left on one is forgotten when its turn comes again.
unsigned takeTurn() {
    const int file = open("/tmp/krdds-test-domain.turn", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    unsigned turn = 0;
    if (file < 0 || flock(file, LOCK_EX) != 0 || pread(file, &turn, sizeof turn, 0) < 0) {
        throw std::runtime_error("the turn of a test's DDS domain cannot be read");
    }
    const unsigned next = turn + 1;
    if (pwrite(file, &next, sizeof next, 0) != sizeof next) {
        throw std::runtime_error("the turn of a test's DDS domain cannot be written");
    }
    close(file);
    return turn;
}

} // namespace

TestDomain::TestDomain() {
    registerDDS();
    const unsigned turn = takeTurn();
    for (unsigned i = 0; i < kCount; ++i) {
        const int number = static_cast<int>(kFirst + (turn + i) % kCount);
        const std::string path = "/tmp/krdds-test-domain-" + std::to_string(number) + ".lock";
        lock_ = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (lock_ >= 0 && flock(lock_, LOCK_EX | LOCK_NB) == 0) {
            number_ = number;
            return;
        }
        close(lock_);
    }
    throw std::runtime_error("no DDS domain is free for a test");
}

TestDomain::~TestDomain() {
    close(lock_);
}

std::string TestDomain::getUrl(const std::string& options) const {
    std::string url = "dds:?domain=" + std::to_string(number_) + "&interfaces=lo";
    const char* const local = std::getenv("KR_TEST_LOCAL");
    if (local != nullptr && options.find("local=") == std::string::npos &&
        options.find("security=") == std::string::npos) {
        url += std::string("&local=") + local;
    }
    return url + (options.empty() ? "" : "&" + options);
}

} // namespace KR::test
