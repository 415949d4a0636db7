// The parameter functions of KRModule; the parameters themselves are in krparameters.cpp.

#include "krplatform/krlog.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"
#include "krmodule_p.hpp"

namespace KR {

void KRModule::xDeclareParameter(KRParameterInfo info, std::function<void(const KRValue&)> setter,
                                 std::function<KRValue()> getter) {
    constexpr const char* kClassName = "KRModule";
    KRParameters* const parameters = &p_->parameters;
    const bool first = parameters->isEmpty();
    if (p_->gate->wasOpened()) {
        throw KRError(p_->name, "declareParameter",
                      "parameter \"" + info.name + "\": the module is reachable already");
    }
    parameters->declare(std::move(info), std::move(setter), std::move(getter));
    if (!first) {
        return;
    }
    p_->firstParameterMethod = p_->methods.size();
    const KRMethodDescription open = p_->openDescription; // may be in use for another method

    functionName("getParameterList", kClassName, "Gets the parameters and their values.");
    setReturn("parameters",
              "Array of [name, type, description, unit, default, minimum, maximum, choices, saved, value].");
    publish(p_->openDescription, createFunctor(parameters, &KRParameters::getList));

    functionName("getParameterValue", kClassName, "Gets the value of a parameter.");
    addParam("name", "Name of the parameter.");
    setReturn("value", "The value in force.");
    publish(p_->openDescription, createFunctor(parameters, &KRParameters::getValue));

    functionName("setParameterValue", kClassName, "Sets a parameter.");
    addParam("name", "Name of the parameter.");
    addParam("value", "The value; one out of range is an error that names the range.");
    publish(p_->openDescription, createFunctor(parameters, &KRParameters::setValue));

    functionName("setParameterValues", kClassName,
                 "Sets several parameters, or none if one does not exist or cannot have its value.");
    addParam("values", "Array of [name, value].");
    publish(p_->openDescription, createFunctor(parameters, &KRParameters::setValues));

    p_->openDescription = open;
    for (std::size_t i = p_->firstParameterMethod; i < p_->methods.size(); ++i) {
        p_->methods[i].listed = false;
    }
}

void KRModule::declareParameter(KRParameterInfo info, std::function<void(const KRValue&)> setter,
                                std::function<KRValue()> getter) {
    xDeclareParameter(std::move(info), std::move(setter), std::move(getter));
    for (std::size_t i = 0; i < KRModule::Private::kParameterMethods; ++i) {
        p_->methods[p_->firstParameterMethod + i].listed = true;
    }
}

void KRModule::xNoticeParameterChange(const std::string& name) noexcept {
    p_->parameters.noticeChange(name);
}

void KRModule::Private::raiseParameterChanged(const std::string& parameter,
                                              const KRValue& value) const noexcept {
    try {
        KRBrokerPrivate::of(*broker).ledger->raiseEvent(name + "/ParameterChanged",
                                                        KRValue::array(parameter, value));
    } catch (...) { // probably no memory module, so no subscribers
        logVerbose("krplatform.module",
                   name + " cannot tell of a changed parameter: " + describeCurrentException());
    }
}

} // namespace KR
