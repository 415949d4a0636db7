#pragma once

#include <startedprocess.hpp>

#include <string>
#include <utility>
#include <vector>

namespace KR::test {

/// Another process of the tests (server.cpp).
class OtherProcess : public StartedProcess {
public:
    /// Starts it with "KIND NAME" pairs. It answers "ready" when its modules are up, or why they are not.
    /// \param before  a program to run it with, and its arguments
    explicit OtherProcess(const std::string& url, const std::vector<std::string>& modules = {},
                          std::vector<std::string> before = {})
        : StartedProcess(compose(url, modules, std::move(before))) {}

private:
    static std::vector<std::string> compose(const std::string& url, const std::vector<std::string>& modules,
                                            std::vector<std::string> before) {
        before.insert(before.end(), {KRDDS_SERVER, url});
        before.insert(before.end(), modules.begin(), modules.end());
        return before;
    }
};

} // namespace KR::test
