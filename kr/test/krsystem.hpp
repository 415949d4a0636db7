#pragma once

#include "servedprogram.hpp"
#include "testdomain.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace KR::test {

/// kr on its own domain, with kr serve in one process and other verbs in others.
class KrSystem : public testing::Test {
protected:
    std::vector<std::string> onDomain(std::vector<std::string> arguments) const {
        arguments.push_back("--broker");
        arguments.push_back(domain_.getUrl());
        return arguments;
    }
    Outcome krOnDomain(std::vector<std::string> arguments) const {
        return kr(onDomain(std::move(arguments)));
    }
    RunningProgram serve(std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(), "serve");
        return RunningProgram(onDomain(std::move(arguments)), "serving on");
    }

    const TestDomain domain_;
};

} // namespace KR::test
