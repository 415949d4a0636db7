#include "module.hpp"

#include "errors.hpp"
#include "values.hpp"

#include <krplatform/krlog.hpp>

#include <pybind11/stl.h>

#include <array>
#include <utility>

namespace KR::python {

namespace {

constexpr const char* kModuleCapsule = "krvision.KRModule";

KRArgumentType toArgumentType(const std::string& name) {
    constexpr std::array kTypes{KRArgumentType::Void,  KRArgumentType::Bool,   KRArgumentType::Int,
                                KRArgumentType::Float, KRArgumentType::String, KRArgumentType::Binary,
                                KRArgumentType::Array, KRArgumentType::Value};
    for (const KRArgumentType type : kTypes) {
        if (name == getTypeName(type)) {
            return type;
        }
    }
    throw py::value_error("there is no value type " + name);
}

KRArgumentType getTypeOf(const KRValue& value) {
    switch (value.getType()) {
    case KRValue::Type::Invalid:
        break;
    case KRValue::Type::Int:
        return KRArgumentType::Int;
    case KRValue::Type::Float:
        return KRArgumentType::Float;
    case KRValue::Type::String:
        return KRArgumentType::String;
    case KRValue::Type::Binary:
        return KRArgumentType::Binary;
    case KRValue::Type::Array:
        return KRArgumentType::Array;
    }
    return KRArgumentType::Void;
}

// The result of a method in the type that it was published with.
KRValue convertResult(py::handle result, const PublishedMethod& method, const std::string& module) {
    const KRArgumentType wanted = method.description.resultType;
    if (wanted == KRArgumentType::Void) {
        return {};
    }
    KRValue value = toValue(result);
    const KRArgumentType given = getTypeOf(value);
    if (wanted == given || wanted == KRArgumentType::Value ||
        (wanted == KRArgumentType::Bool && given == KRArgumentType::Int)) {
        return value;
    }
    if (wanted == KRArgumentType::Float && given == KRArgumentType::Int) {
        return value.to<float>();
    }
    throw KRError(module, method.description.name,
                  std::string("returned a ") + Py_TYPE(result.ptr())->tp_name +
                      ", but it is published with " + getTypeName(wanted));
}

thread_local const void* innermostHook = nullptr;

using Parameter = std::tuple<std::string, std::string, std::string>; // name, type, description

void publish(const ModuleBody& self, const std::string& name, const std::string& attribute,
             const std::string& className, const std::string& description,
             const std::vector<Parameter>& parameters, const Parameter& result) {
    PublishedMethod method;
    method.attribute = attribute;
    method.description.name = name;
    method.description.className = className;
    method.description.description = description;
    for (const auto& [parameter, type, text] : parameters) {
        method.description.parameters.push_back({parameter, text});
        method.description.argumentTypes.push_back(toArgumentType(type));
    }
    method.description.result = {std::get<0>(result), std::get<2>(result)};
    method.description.resultType = toArgumentType(std::get<1>(result));
    self.getHosted("publish").publish(method);
}

void declareParameter(const ModuleBody& self, const std::string& name, const std::string& type,
                      const std::string& description, py::handle defaultValue, py::handle minimum,
                      py::handle maximum, const std::string& unit, const std::vector<std::string>& choices) {
    using Type = KRParameterInfo::Type;
    KRParameterInfo info;
    info.name = name;
    info.type = type == "bool"    ? Type::Bool
                : type == "int"   ? Type::Int
                : type == "float" ? Type::Float
                : type == "text"  ? Type::Text
                                  : Type::Choice;
    info.description = description;
    info.unit = unit;
    info.defaultValue = toValue(defaultValue);
    info.minimum = toValue(minimum);
    info.maximum = toValue(maximum);
    info.choices = choices;
    self.getHosted("declare_parameter").declare(info);
}

std::unique_ptr<ModuleBody> makeModuleBody(py::handle self, const PythonBroker& broker,
                                           const std::string& name) {
    auto module = unlocked([&self, &name, b = broker.get("Module")] {
        return std::make_unique<HostedOn<KRModule>>(self.ptr(), b, name);
    });
    Hosted& hosted = *module;
    return std::make_unique<ModuleBody>(std::move(module), hosted);
}

} // namespace

Hosted::~Hosted() {
    if (kept_) {
        const LockTaken lock;
        if (lock.isHeld()) { // otherwise the interpreter is exiting, and the object with it
            Py_DECREF(self_);
        }
    }
}

void Hosted::keep() noexcept {
    if (!kept_) {
        Py_INCREF(self_);
        kept_ = true;
    }
}

void Hosted::forget() noexcept {
    if (!kept_) {
        self_ = nullptr;
    }
}

bool Hosted::isInsideHook() const noexcept {
    for (const auto* hook = static_cast<const Hook*>(innermostHook); hook != nullptr; hook = hook->around_) {
        if (&hook->hosted_ == this) {
            return true;
        }
    }
    return false;
}

void Hosted::detach() noexcept {
    if (body_ == nullptr) {
        return;
    }
    const LockTaken lock;
    if (!lock.isHeld()) {
        return;
    }
    std::exchange(body_, nullptr)->dropReleased();
    try { // closes what else the object created in the program's broker: it must not outlive main()
        py::handle(self_).attr("_broker").attr("close")();
    } catch (py::error_already_set& error) {
        logException(error, getModule().getName(), "close");
    }
}

Hosted::Hook::Hook(Hosted& hosted, const char* method)
    : hosted_(hosted), lock_(hosted.getModule().getName(), method),
      around_(static_cast<const Hook*>(innermostHook)) {
    // An object whose destruction has begun must not get another reference.
    if (hosted.self_ == nullptr || Py_REFCNT(hosted.self_) <= 0) {
        throw KRError(hosted.getModule().getName(), method, "the module is being destroyed");
    }
    innermostHook = this;
}

Hosted::Hook::~Hook() {
    innermostHook = around_;
}

void Hosted::throwTaken(py::error_already_set& error, const std::string& method) {
    throw takeError(error, getModule().getName(), method);
}

KRValue Hosted::callMethod(const PublishedMethod& method, std::span<const KRValue> values) {
    const std::string& name = method.description.name;
    const Hook running(*this, name.c_str());
    try {
        py::tuple arguments(values.size());
        for (std::size_t i = 0; i < values.size(); ++i) {
            PyTuple_SET_ITEM(arguments.ptr(), static_cast<Py_ssize_t>(i),
                             toPython(values[i], method.description.argumentTypes[i]).release().ptr());
        }
        const py::object result = running.getSelf().attr(method.attribute.c_str())(*arguments);
        return convertResult(result, method, getModule().getName());
    } catch (py::error_already_set& error) {
        throwTaken(error, name);
    }
}

void Hosted::setParameter(const std::string& name, const KRValue& value) {
    const Hook running(*this, "setParameterValue");
    try {
        running.getSelf().attr("_set_parameter")(name, toPython(value));
    } catch (py::error_already_set& error) {
        if (error.matches(PyExc_ValueError)) { // this is how a setter refuses a value
            throw KRError(getModule().getName(), "setParameterValue", toText(py::str(error.value())));
        }
        throwTaken(error, "setParameterValue");
    }
}

struct ModuleBody::End {
    KRMutex mutex;
    KRCondition changed;
    bool reached KR_GUARDED_BY(mutex) = false;

    void notice() {
        const KRLock lock(mutex);
        reached = true;
        changed.notifyAll();
    }
    void wait() {
        KRLock lock(mutex);
        changed.wait(lock, [this] {
            mutex.assertHeld();
            return reached;
        });
    }
};

std::shared_ptr<KRModule> ModuleBody::share(KRModule* module, const std::shared_ptr<End>& end, bool owned) {
    return {module, [end, owned](KRModule* last) {
                if (owned) {
                    shutDownAndDestroy(std::unique_ptr<KRModule>(last));
                }
                end->notice();
            }};
}

ModuleBody::ModuleBody(std::unique_ptr<KRModule> module, Hosted& hosted)
    : name_(module->getName()), hosted_(&hosted), end_(std::make_shared<End>()) {
    module_ = share(module.release(), end_, true);
}

ModuleBody::~ModuleBody() {
    if (module_) {
        hosted_->forget();
        unlocked([module = std::move(module_)] {});
    }
}

Hosted& ModuleBody::getHosted(const char* method) const {
    if (!module_) {
        throw KRError(name_, method, "the module is closed");
    }
    return *hosted_;
}

void ModuleBody::makeReachable() {
    getHosted("make_reachable").keep(); // before the first call, which may close it
    use<KRModule>("make_reachable", [](KRModule& module) { module.makeReachable(); });
}

void ModuleBody::close() {
    if (!module_) {
        return;
    }
    if (hosted_->isReleased()) {
        use<KRModule>("close", [](KRModule& module) { module.exit(); });
        return;
    }
    const bool inside = hosted_->isInsideHook();
    if (inside) {
        hosted_->keep(); // a call thread destroys the module once the hook has returned
    }
    unlocked([module = std::move(module_), end = end_, inside]() mutable {
        module.reset();
        if (!inside) {
            end->wait(); // for another thread that uses the module
        }
    });
}

std::unique_ptr<KRModule> ModuleBody::release() {
    Hosted& hosted = getHosted("release");
    hosted.setReleased(this); // before the first call, which may close it
    try {
        makeReachable();
    } catch (...) {
        hosted.setReleased(nullptr);
        throw;
    }
    KRModule* const module = module_.get();
    auto end = std::make_shared<End>();
    auto shared = share(module, end, false);
    // The shared pointer that owned the module is never destroyed: it must not destroy the module.
    new std::shared_ptr<KRModule>(std::exchange(module_, std::move(shared))); // NOLINT
    end_ = std::move(end);
    return std::unique_ptr<KRModule>(module);
}

void ModuleBody::dropReleased() {
    hosted_ = nullptr;
    unlocked([module = std::move(module_), end = end_]() mutable {
        module.reset();
        end->wait();
    });
}

void bindModule(py::module_& m) {
    py::class_<ModuleBody> body(m, "ModuleBody", "The C++ side of a module.");
    body.def("make_reachable", &ModuleBody::makeReachable)
        .def("close", &ModuleBody::close)
        .def_property_readonly("closed", &ModuleBody::isClosed)
        .def_property_readonly("name", [](const ModuleBody& self) { return toPythonText(self.getName()); })
        .def("release",
             [](ModuleBody& self) { return py::capsule(self.release().release(), kModuleCapsule); })
        .def("publish", &publish, py::arg("name"), py::arg("attribute"), py::arg("class_name"),
             py::arg("description"), py::arg("parameters"), py::arg("result"))
        .def("declare_parameter", &declareParameter, py::arg("name"), py::arg("type"), py::arg("description"),
             py::arg("default"), py::arg("minimum"), py::arg("maximum"), py::arg("unit"), py::arg("choices"))
        .def("exit",
             [](const ModuleBody& self) {
                 self.use<KRModule>("exit", [](KRModule& module) { module.exit(); });
             })
        .def_property_readonly("exiting",
                               [](const ModuleBody& self) {
                                   return self.use<KRModule>(
                                       "exiting", [](KRModule& module) { return module.isExiting(); });
                               })
        .def_property_readonly("failure",
                               [](const ModuleBody& self) {
                                   return toPythonText(self.use<KRModule>(
                                       "failure", [](KRModule& module) { return module.getFailure(); }));
                               })
        .def(
            "report_failure",
            [](const ModuleBody& self, const std::string& reason) {
                Hosted& hosted = self.getHosted("report_failure");
                self.use<KRModule>("report_failure", [&](KRModule&) { hosted.fail(reason); });
            },
            py::arg("reason"));
    bindExtractor(body);
    m.def("make_module", &makeModuleBody, py::arg("self"), py::arg("broker"), py::arg("name"));
    m.def("make_extractor", &makeExtractorBody, py::arg("self"), py::arg("broker"), py::arg("name"),
          py::arg("default_period"), py::arg("default_precision"), py::arg("minimum_period"),
          py::arg("maximum_period"));
    m.def("make_vision_extractor", &makeVisionExtractorBody, py::arg("self"), py::arg("broker"),
          py::arg("name"), py::arg("resolution"), py::arg("color_space"), py::arg("frame_rate"),
          py::arg("camera"));
}

} // namespace KR::python
