#pragma once

#include "krplatform/krmutex.hpp"
#include "krplatform/krparameter.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// The parameters of one module. Declared by its constructor; thread-safe once declared.
///
/// A setter runs on the thread that sets, without a lock. Setters of overlapping calls overlap, too: a call that finds a
/// newer value when its setter returns passes that on, so the last value wins.
class KRParameters {
public:
    using Setter = std::function<void(const KRValue&)>;
    using Getter = std::function<KRValue()>;
    /// Reports a new value. Runs without a lock; must not throw.
    using OnChange = std::function<void(const std::string& name, const KRValue& value)>;

    KRParameters(std::string module, OnChange onChange);

    /// \param getter  returns the value; empty: it is stored here
    /// \throws KRError a malformed or taken name; an empty or too large range; a default out of it; no setter
    void declare(KRParameterInfo info, Setter setter, Getter getter = {});
    bool isEmpty() const noexcept { return parameters_.empty(); }

    /// KRParameterInfo::toKRValue() of each, in the order of declaration; without the value of one that cannot be read.
    KRValue getList();
    /// \throws KRError no such parameter; what the getter throws
    KRValue getValue(const std::string& name);
    /// \throws KRError no such parameter; a value out of range; the setter's reason to refuse it
    void setValue(const std::string& name, const KRValue& value);
    /// Sets [name, value] pairs, or none if any is invalid.
    /// \throws KRError lists all invalid ones; or the reasons of setters that refused, after setting all others
    void setValues(const std::vector<KRValue>& pairs);
    /// The parameter may have changed by other means. Does not throw.
    void noticeChange(const std::string& name) noexcept;

private:
    using Ticket = std::uint64_t;
    struct Parameter {
        // Constant after declaration.
        KRParameterInfo info;
        Setter setter;
        Getter getter;

        KRMutex mutex;
        Ticket lastTicket KR_GUARDED_BY(mutex) = 0;
        // In order: the value in force, then those whose setters are running. Never empty.
        std::map<Ticket, KRValue> told KR_GUARDED_BY(mutex);
        KRValue reported KR_GUARDED_BY(mutex); // to onChange_, last
    };

    /// nullptr: there is none
    Parameter* find(const std::string& name) const;
    std::string describeUnknown(const std::string& name) const;
    /// \throws KRError named after the method
    Parameter& get(const std::string& name, const char* method) const;
    static KRValue read(Parameter& parameter);
    /// Runs the setter until the last value is in force. Passes on exceptions of the setter for this value
    void set(Parameter& parameter, const KRValue& value);
    void reportChange(Parameter& parameter);

    const std::string module_;
    const OnChange onChange_;
    std::vector<std::unique_ptr<Parameter>> parameters_; // constant after declaration
};

} // namespace KR
