#pragma once

#include "interpreter.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <memory>
#include <set>
#include <string>

namespace KR::python {

/// An object that is released when its broker is closed.
class BrokerClient {
public:
    BrokerClient() = default;
    virtual ~BrokerClient() = default;
    BrokerClient(const BrokerClient&) = delete;
    BrokerClient& operator=(const BrokerClient&) = delete;
    /// Releases the reference to the broker. \return the reference, to be destroyed with the interpreter's lock released
    virtual std::shared_ptr<void> drop() noexcept = 0;
};

/// A broker for Python: closing it drops the references of its proxies, so that it is destroyed even if they remain. Used
/// with the interpreter's lock held.
class PythonBroker {
public:
    explicit PythonBroker(boost::shared_ptr<KRBroker> broker) : broker_(std::move(broker)) {}
    ~PythonBroker();
    PythonBroker(const PythonBroker&) = delete;
    PythonBroker& operator=(const PythonBroker&) = delete;

    /// \throws KRError the broker is closed
    boost::shared_ptr<KRBroker> get(const char* method) const;
    bool isClosed() const noexcept { return !broker_; }
    void close();

    void add(BrokerClient& client) { clients_.insert(&client); }
    void remove(BrokerClient& client) { clients_.erase(&client); }

private:
    boost::shared_ptr<KRBroker> broker_;
    std::set<BrokerClient*> clients_;
};

/// An object of the library that holds the broker. Used with the interpreter's lock held.
template <class Object>
class Attached : public BrokerClient {
public:
    Attached(std::shared_ptr<PythonBroker> broker, std::shared_ptr<Object> object)
        : broker_(std::move(broker)), object_(std::move(object)) {
        broker_->add(*this);
    }
    ~Attached() override {
        broker_->remove(*this);
        unlocked([object = std::move(object_)] {});
    }
    /// \throws KRError the broker is closed
    std::shared_ptr<Object> get(const char* method) const {
        if (!object_) {
            throw KRError("KRBroker", method, "the broker is closed");
        }
        return object_;
    }
    const std::shared_ptr<PythonBroker>& getBroker() const noexcept { return broker_; }

    /// Runs `function(object)` with the interpreter's lock released.
    template <class Function>
    auto use(const char* method, Function&& function) const {
        return unlocked([object = get(method), &function] { return function(*object); });
    }

    std::shared_ptr<void> drop() noexcept override { return std::move(object_); }

private:
    const std::shared_ptr<PythonBroker> broker_;
    std::shared_ptr<Object> object_;
};

void bindBroker(py::module_& m);
void bindMemory(py::module_& m);

} // namespace KR::python
