#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krmodulehandle.hpp"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR::test {

/// A module whose methods are functions of the test.
class TestModule : public KRModule {
public:
    /// Runs at the end of the constructor, to add() methods and do what a derived constructor does.
    using Setup = std::function<void(TestModule&)>;

    TestModule(boost::shared_ptr<KRBroker> broker, const std::string& name, const Setup& setup = {})
        : KRModule(std::move(broker), name) {
        if (setup) {
            setup(*this);
        }
    }
    ~TestModule() override {
        if (onDestroyed) {
            onDestroyed();
        }
    }

    /// Publishes a lambda whose arguments and result have types that a remote method may have.
    template <class Function>
    void add(const std::string& method, Function function) {
        auto kept = std::make_shared<Function>(std::move(function));
        const auto functor = createFunctor(kept.get(), &Function::operator());
        kept_.push_back(std::move(kept));
        functionName(method, "TestModule", "");
        for (std::size_t i = 0; i < functor->getFunction().arguments.size(); ++i) {
            addParam("", "");
        }
        bindMethodOverload(functor);
    }

    using KRModule::addParam;
    using KRModule::advertiseMethod;
    using KRModule::bindMethodOverload;
    using KRModule::functionName;
    using KRModule::getCurrentMethodDescription;
    using KRModule::reportFailure;
    using KRModule::setReturn;
    using KRModule::xPost;

    std::function<void()> onShutDown;
    std::function<void()> onDestroyed; ///< the derived class is about to be destroyed

protected:
    void xShutDown() override {
        if (onShutDown) {
            onShutDown();
        }
    }

private:
    std::vector<std::shared_ptr<void>> kept_;
};

inline KRModuleHandle<TestModule> makeModule(const boost::shared_ptr<KRBroker>& broker,
                                             const std::string& name, const TestModule::Setup& setup = {}) {
    return createModule<TestModule>(broker, name, setup);
}

} // namespace KR::test
