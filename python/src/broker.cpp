#include "broker.hpp"

#include "values.hpp"

#include <krplatform/krclock.hpp>
#include <krplatform/krproxy.hpp>

#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace KR::python {

namespace {

using Proxy = Attached<KRProxy>;

constexpr const char* kBrokerCapsule = "krvision.KRBroker";

std::shared_ptr<PythonBroker> makeBroker(const std::string& url) {
    return std::make_shared<PythonBroker>(unlocked([&] { return KRBroker::create(url); }));
}

// Wraps a capsule with a boost::shared_ptr<KRBroker>* of a program that created the broker itself.
std::shared_ptr<PythonBroker> adoptBroker(const py::capsule& capsule) {
    return std::make_shared<PythonBroker>(
        *static_cast<boost::shared_ptr<KRBroker>*>(PyCapsule_GetPointer(capsule.ptr(), kBrokerCapsule)));
}

bool waitForModule(const PythonBroker& self, const std::string& name, double seconds) {
    constexpr double kLongest_s = 3600;
    const std::chrono::milliseconds timeout(
        static_cast<std::int64_t>(std::clamp(seconds, 0.0, kLongest_s) * 1000));
    return unlocked([broker = self.get("wait_for"), &name, timeout] {
        return broker->getSession().waitForService(name, timeout);
    });
}

py::list listMethods(const Proxy& self) {
    const auto methods = self.use("methods", [](const KRProxy& proxy) { return proxy.getMethodList(); });
    py::list list;
    for (const KRMethodDescription& method : methods) {
        py::list parameters;
        for (std::size_t i = 0; i < method.parameters.size(); ++i) {
            parameters.append(py::make_tuple(toPythonText(method.parameters[i].name),
                                             getTypeName(method.argumentTypes[i]),
                                             toPythonText(method.parameters[i].description)));
        }
        list.append(
            py::make_tuple(toPythonText(method.name), toPythonText(method.getSignature()),
                           toPythonText(method.description), parameters,
                           py::make_tuple(toPythonText(method.result.name), getTypeName(method.resultType),
                                          toPythonText(method.result.description))));
    }
    return list;
}

py::object call(const Proxy& self, const std::string& method, const py::args& arguments) {
    const std::vector<KRValue> values = toValues(arguments);
    return toPython(self.use("call", [&](const KRProxy& proxy) { return proxy.callValues(method, values); }));
}

void post(const Proxy& self, const std::string& method, const py::args& arguments) {
    self.use("post", [&, values = toValues(arguments)](const KRProxy& proxy) mutable {
        proxy.postValues(method, std::move(values));
    });
}

} // namespace

PythonBroker::~PythonBroker() {
    unlocked([broker = std::move(broker_)] {});
}

boost::shared_ptr<KRBroker> PythonBroker::get(const char* method) const {
    if (!broker_) {
        throw KRError("KRBroker", method, "the broker is closed");
    }
    return broker_;
}

void PythonBroker::close() {
    std::vector<std::shared_ptr<void>> dropped;
    dropped.reserve(clients_.size());
    for (BrokerClient* client : clients_) {
        dropped.push_back(client->drop());
    }
    unlocked([broker = std::move(broker_), gone = std::move(dropped)]() mutable { gone.clear(); });
}

void bindBroker(py::module_& m) {
    py::class_<PythonBroker, std::shared_ptr<PythonBroker>>(m, "Broker", "A broker of the library.")
        .def(py::init(&makeBroker), py::arg("url"))
        .def_static("adopt", &adoptBroker, py::arg("capsule"))
        .def("close", &PythonBroker::close)
        .def_property_readonly("closed", &PythonBroker::isClosed)
        .def("wait_for", &waitForModule, py::arg("module"), py::arg("seconds"))
        .def("modules",
             [](const PythonBroker& self) {
                 return unlocked([broker = self.get("modules")] { return broker->getModuleList(); });
             })
        .def("time_usec",
             [](const PythonBroker& self) { return self.get("time_usec")->getClock().getTime_usec(); })
        .def("sleep_ms", [](const PythonBroker& self, int milliseconds) {
            unlocked([broker = self.get("sleep"), milliseconds] {
                broker->getClock().sleepMilliseconds(milliseconds);
            });
        });
    py::class_<Proxy>(m, "Proxy", "Calls a module by its name.")
        .def(py::init([](std::shared_ptr<PythonBroker> broker, const std::string& module) {
                 auto proxy = std::make_shared<KRProxy>(broker->get("Proxy"), module);
                 return std::make_unique<Proxy>(std::move(broker), std::move(proxy));
             }),
             py::arg("broker"), py::arg("module"))
        .def("call", &call, py::arg("method"))
        .def("post", &post, py::arg("method"))
        .def("methods", &listMethods)
        .def(
            "method_help",
            [](const Proxy& self, const std::string& method) {
                return toPythonText(self.use(
                    "method_help", [&](const KRProxy& proxy) { return proxy.getMethodHelp(method); }));
            },
            py::arg("method"))
        .def("failure",
             [](const Proxy& self) {
                 return toPythonText(
                     self.use("failure", [](const KRProxy& proxy) { return proxy.getFailure(); }));
             })
        .def_property_readonly(
            "module", [](const Proxy& self) { return toPythonText(self.get("module")->getModuleName()); });
}

} // namespace KR::python
