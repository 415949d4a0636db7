#include "broker.hpp"
#include "values.hpp"

#include <krplatform/krmemoryproxy.hpp>

#include <pybind11/stl.h>

#include <utility>
#include <vector>

namespace KR::python {

namespace {

using Memory = Attached<KRMemoryProxy>;

std::unique_ptr<Memory> makeMemory(std::shared_ptr<PythonBroker> broker) {
    auto proxy = unlocked([b = broker->get("Memory")] { return std::make_shared<KRMemoryProxy>(b); });
    return std::make_unique<Memory>(std::move(broker), std::move(proxy));
}

void insertAll(const Memory& self, const py::dict& data) {
    std::vector<std::pair<std::string, KRValue>> list;
    for (const auto& [key, value] : data) {
        list.emplace_back(toText(key), toValue(value));
    }
    self.use("update", [&](KRMemoryProxy& memory) { memory.insertListData(list); });
}

py::list listKeys(const Memory& self, const std::string& prefix) {
    py::list keys;
    for (const std::string& key :
         self.use("keys", [&](KRMemoryProxy& memory) { return memory.getDataList(prefix); })) {
        keys.append(toPythonText(key));
    }
    return keys;
}

py::list listItems(const Memory& self, const std::string& prefix) {
    py::list items;
    for (const auto& [key, value] :
         self.use("items", [&](KRMemoryProxy& memory) { return memory.getDataValues(prefix); })) {
        items.append(py::make_tuple(toPythonText(key), toPython(value)));
    }
    return items;
}

} // namespace

void bindMemory(py::module_& m) {
    py::class_<Memory>(m, "Memory", "The memory module.")
        .def(py::init(&makeMemory), py::arg("broker"))
        .def(
            "insert",
            [](const Memory& self, const std::string& key, py::handle object) {
                const KRValue value = toValue(object);
                self.use("insert", [&](KRMemoryProxy& memory) { memory.insertData(key, value); });
            },
            py::arg("key"), py::arg("value"))
        .def("insert_all", &insertAll, py::arg("data"))
        .def(
            "get",
            [](const Memory& self, const std::string& key) {
                return toPython(self.use("get", [&](KRMemoryProxy& memory) { return memory.getData(key); }));
            },
            py::arg("key"))
        .def(
            "remove",
            [](const Memory& self, const std::string& key) {
                self.use("remove", [&](KRMemoryProxy& memory) { memory.removeData(key); });
            },
            py::arg("key"))
        .def(
            "timestamp",
            [](const Memory& self, const std::string& key) {
                return self.use("timestamp", [&](KRMemoryProxy& memory) { return memory.getTimestamp(key); });
            },
            py::arg("key"))
        .def("keys", &listKeys, py::arg("prefix"))
        .def("items", &listItems, py::arg("prefix"))
        .def(
            "declare_event",
            [](const Memory& self, const std::string& event) {
                self.use("declare_event", [&](KRMemoryProxy& memory) { memory.declareEvent(event); });
            },
            py::arg("event"))
        .def(
            "raise_event",
            [](const Memory& self, const std::string& event, py::handle object) {
                const KRValue value = toValue(object);
                self.use("raise_event", [&](KRMemoryProxy& memory) { memory.raiseEvent(event, value); });
            },
            py::arg("event"), py::arg("value"))
        .def(
            "subscribe",
            [](const Memory& self, const std::string& event, const std::string& client,
               const std::string& callback) {
                self.use("on",
                         [&](KRMemoryProxy& memory) { memory.subscribeToEvent(event, client, callback); });
            },
            py::arg("event"), py::arg("client"), py::arg("callback"))
        .def(
            "unsubscribe",
            [](const Memory& self, const std::string& event, const std::string& client) {
                self.use("unsubscribe",
                         [&](KRMemoryProxy& memory) { memory.unsubscribeFromEvent(event, client); });
            },
            py::arg("event"), py::arg("client"))
        .def("events", [](const Memory& self) {
            py::list names;
            for (const std::string& name :
                 self.use("events", [](KRMemoryProxy& memory) { return memory.getEventList(); })) {
                names.append(toPythonText(name));
            }
            return names;
        });
}

} // namespace KR::python
