#pragma once

#include "broker.hpp"

#include <krextractor/krextractor.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krmutex.hpp>
#include <krvision/krvisionextractor.hpp>

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace KR::python {

/// A published method of a module in Python.
struct PublishedMethod {
    KRMethodDescription description; ///< with the types
    std::string attribute;           ///< name of the Python method
};

class ModuleBody;

/// A module of the library whose methods and hooks are those of a Python object.
///
/// The object is borrowed until keep(), and owned from then on until this is destroyed.
class Hosted {
public:
    explicit Hosted(PyObject* self) noexcept : self_(self) {}
    virtual ~Hosted();
    Hosted(const Hosted&) = delete;
    Hosted& operator=(const Hosted&) = delete;

    virtual KRModule& getModule() noexcept = 0;
    /// Publishes a method. \throws KRError as KRModule::bindMethodOverload()
    virtual void publish(const PublishedMethod& method) = 0;
    /// Declares a parameter whose setter is the Python method `_set_parameter(name, value)`.
    virtual void declare(const KRParameterInfo& parameter) = 0;
    virtual void fail(const std::string& reason) = 0;
    virtual void declareEvent(const std::string& event) = 0;
    virtual void declareKey(const std::string& key) = 0;

    /// Owns the Python object from now on. The interpreter's lock is held.
    void keep() noexcept;
    /// The object is being destroyed: hooks fail from now on. The interpreter's lock is held.
    void forget() noexcept;
    bool isKept() const noexcept { return kept_; }

    /// Whether the calling thread runs a hook or method of this module.
    bool isInsideHook() const noexcept;
    /// A program hosts the module: the body no longer destroys it. Null: no body. The interpreter's lock is
    /// held.
    void setReleased(ModuleBody* body) noexcept { body_ = body; }
    bool isReleased() const noexcept { return body_ != nullptr; }

protected:
    /// While this exists, a hook of the module runs on this thread with the interpreter's lock held.
    class Hook {
    public:
        /// \throws KRError the interpreter is exiting, or the object has been destroyed
        Hook(Hosted& hosted, const char* method);
        ~Hook();
        Hook(const Hook&) = delete;
        Hook& operator=(const Hook&) = delete;
        py::object getSelf() const { return py::reinterpret_borrow<py::object>(hosted_.self_); }

    private:
        friend Hosted;
        Hosted& hosted_;
        const LockTaken lock_;
        const Hook* const around_;
    };

    /// Calls a hook of the Python object. \throws KRError what it raises
    template <class... Arguments>
    void callHook(const char* hook, Arguments... arguments) {
        const Hook running(*this, hook);
        try {
            running.getSelf().attr(hook)(arguments...);
        } catch (py::error_already_set& error) {
            throwTaken(error, hook);
        }
    }
    [[noreturn]] void throwTaken(py::error_already_set& error, const std::string& method);
    KRValue callMethod(const PublishedMethod& method, std::span<const KRValue> values);
    void setParameter(const std::string& name, const KRValue& value);
    /// The module is about to be destroyed: takes it from the body that had released it.
    void detach() noexcept;

private:
    PyObject* self_;
    bool kept_ = false;
    ModuleBody* body_ = nullptr; // once released
};

/// A C++ module and its Python object.
template <class Base>
class HostedOn : public Base, public Hosted {
public:
    template <class... Arguments>
    HostedOn(PyObject* self, const boost::shared_ptr<KRBroker>& broker, const std::string& name,
             Arguments... arguments)
        : Base(broker, name, arguments...), Hosted(self) {}
    ~HostedOn() override { detach(); }
    HostedOn(const HostedOn&) = delete;
    HostedOn& operator=(const HostedOn&) = delete;

    KRModule& getModule() noexcept override { return *this; }
    void publish(const PublishedMethod& method) override {
        const KRMethodDescription& described = method.description;
        Base::functionName(described.name, described.className, described.description);
        for (const auto& parameter : described.parameters) {
            Base::addParam(parameter.name, parameter.description);
        }
        Base::setReturn(described.result.name, described.result.description);
        KRGenericFunction function;
        function.arguments = described.argumentTypes;
        function.result = described.resultType;
        function.invoke = [this, method](std::span<const KRValue> values) {
            return callMethod(method, values);
        };
        Base::bindMethodOverload(boost::make_shared<KRFunctorBase>(std::move(function)));
    }
    void declare(const KRParameterInfo& parameter) override {
        Base::declareParameter(
            parameter, [this, name = parameter.name](const KRValue& value) { setParameter(name, value); });
    }
    void fail(const std::string& reason) override { Base::reportFailure(reason); }
    void declareEvent(const std::string& event) override {
        if constexpr (std::derived_from<Base, KRExtractor>) {
            Base::declareEvent(event);
        }
    }
    void declareKey(const std::string& key) override {
        if constexpr (std::derived_from<Base, KRExtractor>) {
            Base::declareMemoryKey(key);
        }
    }
};

/// A Python module's handle on its C++ module. Used with the interpreter's lock held.
class ModuleBody {
public:
    ModuleBody(std::unique_ptr<KRModule> module, Hosted& hosted);
    ~ModuleBody();
    ModuleBody(const ModuleBody&) = delete;
    ModuleBody& operator=(const ModuleBody&) = delete;

    const std::string& getName() const noexcept { return name_; }
    bool isClosed() const noexcept { return !module_; }
    /// \throws KRError the module is closed
    Hosted& getHosted(const char* method) const;

    /// Runs `function(module)` with the interpreter's lock released; the module stays until it returns.
    template <class Module, class Function>
    auto use(const char* method, Function&& function) const {
        getHosted(method);
        return unlocked([module = module_, &function] { return function(static_cast<Module&>(*module)); });
    }

    /// Makes the module reachable: nothing more can be published. The Python object stays alive until closed.
    void makeReachable();
    /// Shuts the module down and destroys it, and waits for that unless it is called from one of its own calls. Asks a
    /// module that was released to exit.
    void close();
    /// Makes the module reachable and passes ownership to a host program: that destroys it, close() does not.
    std::unique_ptr<KRModule> release();
    /// The module that was released is about to be destroyed: waits until no thread uses it.
    void dropReleased();

private:
    /// Whether the last thread that used the module is done.
    struct End;
    static std::shared_ptr<KRModule> share(KRModule* module, const std::shared_ptr<End>& end, bool owned);

    const std::string name_;
    std::shared_ptr<KRModule> module_; // null once closed
    Hosted* hosted_;
    std::shared_ptr<End> end_;
};

void bindModule(py::module_& m);
void bindExtractor(py::class_<ModuleBody>& body);

/// The C++ sides of krvision.Extractor and krvision.VisionExtractor.
std::unique_ptr<ModuleBody> makeExtractorBody(py::handle self, const PythonBroker& broker,
                                              const std::string& name, int defaultPeriod,
                                              float defaultPrecision, int minimumPeriod, int maximumPeriod);
std::unique_ptr<ModuleBody> makeVisionExtractorBody(py::handle self, const PythonBroker& broker,
                                                    const std::string& name, int resolution, int colorSpace,
                                                    int frameRate, int camera);

} // namespace KR::python
