#include "krparameters.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include <algorithm>
#include <cctype>
#include <exception>
#include <optional>
#include <utility>

namespace KR {

namespace {

bool isName(const std::string& name) {
    return !name.empty() && std::ranges::all_of(name, [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_';
    });
}

// The problem with the declaration; "" if none.
std::string findMistake(const KRParameterInfo& info) {
    using Type = KRParameterInfo::Type;
    if (!isName(info.name)) {
        return "a name has letters, digits, \"-\" and \"_\" only";
    }
    if (info.type == Type::Int && info.minimum.to<int>() > info.maximum.to<int>()) {
        return "the minimum is above the maximum";
    }
    if (info.type == Type::Float && !(info.minimum.to<float>() <= info.maximum.to<float>())) {
        return "the minimum is not below the maximum";
    }
    if (info.type == Type::Choice && info.choices.empty()) {
        return "there is nothing to choose from";
    }
    std::string problem;
    return info.convert(info.defaultValue, problem) ? "" : "the default: " + problem;
}

// The setter's exception, for the caller whose value it refuses.
std::string describeRefusal() {
    try {
        throw;
    } catch (const KRError& error) {
        return error.getDescription();
    } catch (...) {
        return describeCurrentException();
    }
}

} // namespace

KRParameters::KRParameters(std::string module, OnChange onChange)
    : module_(std::move(module)), onChange_(std::move(onChange)) {}

void KRParameters::declare(KRParameterInfo info, Setter setter, Getter getter) {
    const auto refuse = [&](const std::string& why) {
        throw KRError(module_, "declareParameter", "parameter \"" + info.name + "\": " + why);
    };
    if (const std::string mistake = findMistake(info); !mistake.empty()) {
        refuse(mistake);
    }
    if (find(info.name) != nullptr) {
        refuse("is declared already");
    }
    if (!setter) {
        refuse("there is no setter");
    }
    auto parameter = std::make_unique<Parameter>();
    parameter->info = std::move(info);
    parameter->setter = std::move(setter);
    parameter->getter = std::move(getter);
    {
        const KRLock lock(parameter->mutex);
        parameter->told.emplace(0, parameter->info.defaultValue);
        parameter->reported = parameter->info.defaultValue;
    }
    parameters_.push_back(std::move(parameter));
}

KRParameters::Parameter* KRParameters::find(const std::string& name) const {
    const auto found =
        std::ranges::find_if(parameters_, [&](const auto& each) { return each->info.name == name; });
    return found == parameters_.end() ? nullptr : found->get();
}

std::string KRParameters::describeUnknown(const std::string& name) const {
    std::string known;
    for (const auto& each : parameters_) {
        known += (known.empty() ? "" : ", ") + each->info.name;
    }
    return "there is no parameter " + escapeText(name, 80) +
           (known.empty() ? "" : "; parameters are " + known);
}

KRParameters::Parameter& KRParameters::get(const std::string& name, const char* method) const {
    Parameter* const found = find(name);
    if (found == nullptr) {
        throw KRError(module_, method, describeUnknown(name));
    }
    return *found;
}

KRValue KRParameters::read(Parameter& parameter) {
    if (parameter.getter) {
        return parameter.getter();
    }
    const KRLock lock(parameter.mutex);
    return parameter.told.begin()->second;
}

KRValue KRParameters::getList() {
    std::vector<KRValue> list;
    list.reserve(parameters_.size());
    for (const auto& each : parameters_) {
        KRParameterInfo info = each->info;
        try {
            info.value = read(*each);
        } catch (const KRError& error) {
            logWarning("krplatform.module",
                       module_ + "." + info.name + " cannot be read: " + error.getDescription());
        }
        list.push_back(info.toKRValue());
    }
    return list;
}

KRValue KRParameters::getValue(const std::string& name) {
    return read(get(name, "getParameterValue"));
}

void KRParameters::setValue(const std::string& name, const KRValue& value) {
    constexpr const char* kMethod = "setParameterValue";
    Parameter& parameter = get(name, kMethod);
    std::string problem;
    const auto converted = parameter.info.convert(value, problem);
    if (!converted) {
        throw KRError(module_, kMethod, problem);
    }
    std::string refusal;
    try {
        set(parameter, *converted);
    } catch (...) {
        refusal = describeRefusal();
    }
    if (!refusal.empty()) {
        throw KRError(module_, kMethod,
                      name + " cannot be " + parameter.info.format(*converted) + " now: " + refusal);
    }
    noticeChange(name);
}

void KRParameters::setValues(const std::vector<KRValue>& pairs) {
    constexpr const char* kMethod = "setParameterValues";
    std::string problems;
    const auto addProblem = [&](const std::string& problem) {
        problems += (problems.empty() ? "" : "\n") + problem;
    };
    for (const KRValue& pair : pairs) {
        const auto name = pair[0].to<std::string>();
        const Parameter* const parameter = find(name);
        std::string problem;
        if (parameter == nullptr) {
            addProblem(describeUnknown(name));
        } else if (!parameter->info.convert(pair[1], problem)) {
            addProblem(problem);
        }
    }
    if (!problems.empty()) {
        throw KRError(module_, kMethod, problems);
    }
    for (const KRValue& pair : pairs) {
        try {
            setValue(pair[0].to<std::string>(), pair[1]);
        } catch (const KRError& error) {
            addProblem(error.getDescription());
        }
    }
    if (!problems.empty()) {
        throw KRError(module_, kMethod, problems);
    }
}

void KRParameters::set(Parameter& parameter, const KRValue& value) {
    Ticket own = 0;
    {
        const KRLock lock(parameter.mutex);
        own = ++parameter.lastTicket;
        parameter.told.emplace(own, value);
    }
    Ticket applied = 0; // the last one that the setter accepted on this thread, and its value
    KRValue appliedValue;
    Ticket next = own;
    KRValue nextValue = value;
    for (;;) {
        std::exception_ptr refusal;
        try {
            parameter.setter(nextValue);
        } catch (...) {
            refusal = std::current_exception();
        }
        const KRLock lock(parameter.mutex);
        auto& told = parameter.told;
        if (!refusal) {
            applied = next;
            appliedValue = nextValue;
            if (told.contains(applied)) {
                told.erase(told.begin(), told.find(applied));
            }
        } else if (told.begin()->first != next) {
            told.erase(next);
        } else if (next != own) { // it refuses the newer value: the last accepted one stays in force
            told.erase(next);
            told.emplace(applied, appliedValue);
        }
        if (refusal && next == own) {
            std::rethrow_exception(refusal);
        }
        if (told.rbegin()->first <= applied) {
            return;
        }
        next = told.rbegin()->first;
        nextValue = told.rbegin()->second;
    }
}

void KRParameters::noticeChange(const std::string& name) noexcept {
    try {
        if (Parameter* const parameter = find(name)) {
            reportChange(*parameter);
        }
    } catch (...) {
        logWarning("krplatform.module",
                   module_ + " has a parameter that cannot be read: " + describeCurrentException());
    }
}

// Calls overlap, so a report with an older value may come last: each reporter reads the value again afterwards.
void KRParameters::reportChange(Parameter& parameter) {
    KRValue value = read(parameter);
    {
        const KRLock lock(parameter.mutex);
        if (parameter.reported == value) {
            return;
        }
        parameter.reported = value;
    }
    for (;;) {
        onChange_(parameter.info.name, value);
        KRValue now = read(parameter);
        if (now == value) {
            return;
        }
        value = std::move(now);
        const KRLock lock(parameter.mutex);
        parameter.reported = value;
    }
}

} // namespace KR
