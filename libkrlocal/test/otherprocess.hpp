#pragma once

#include "startedprocess.hpp"

#include <string>
#include <utility>
#include <vector>

namespace KR::test {

/// Another process of the tests (server.cpp).
class OtherProcess : public StartedProcess {
public:
    explicit OtherProcess(std::vector<std::string> arguments)
        : StartedProcess(addProgram(std::move(arguments))) {}

private:
    static std::vector<std::string> addProgram(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), KRLOCAL_SERVER);
        return arguments;
    }
};

} // namespace KR::test
