#include "testdomain.hpp"

#include <krdds/krdds.hpp>

#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace KR::test {

TestDomain::TestDomain() {
    registerDDS();
    // Their ports are below those that the kernel gives to anybody.
    constexpr int kFirst = 10;
    constexpr int kLast = 99;
    for (int i = 0; i <= kLast - kFirst; ++i) {
        const int number = kFirst + (getpid() + i) % (kLast - kFirst + 1);
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
    return "dds:?domain=" + std::to_string(number_) + "&interfaces=lo" +
           (options.empty() ? "" : "&" + options);
}

} // namespace KR::test
