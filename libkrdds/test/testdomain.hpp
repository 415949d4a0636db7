#pragma once

#include <krplatform/krbroker.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <string>

namespace KR::test {

/// A DDS domain on the loopback interface that no other test uses at the same time.
class TestDomain {
public:
    TestDomain();
    ~TestDomain();
    TestDomain(const TestDomain&) = delete;
    TestDomain& operator=(const TestDomain&) = delete;

    int getNumber() const noexcept { return number_; }
    /// Address of a broker on it. The environment variable KR_TEST_LOCAL is its option `local`, unless `options` have that
    /// or security. The lease is long, so that a busy machine kills nobody, unless `options` say
    /// otherwise.
    std::string getUrl(const std::string& options = "lease=30") const;
    boost::shared_ptr<KRBroker> createBroker(const std::string& options = "lease=30") const {
        return KRBroker::create(getUrl(options));
    }

private:
    int lock_ = -1;
    int number_ = -1;
};

} // namespace KR::test
