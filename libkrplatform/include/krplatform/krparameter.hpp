#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <optional>
#include <string>
#include <vector>

namespace KR {

class KRProxy;

/// A parameter of a module, declared with KRModule::declareParameter().
///
/// Travels as an array of the fields, in their order, the type by its name.
struct KR_EXPORT KRParameterInfo {
    /// A bool travels as an int (1 or 0). A choice is one of several texts.
    enum class Type { Bool, Int, Float, Text, Choice };
    /// Longest text, in bytes.
    static constexpr int kMaxTextBytes = 4096;

    std::string name = {};                 ///< letters, digits, "-" and "_"
    Type type = Type::Int;                 ///< of its values
    std::string description = {};          ///< human-readable
    std::string unit = {};                 ///< "" without one
    KRValue defaultValue = {};             ///< initial value
    KRValue minimum = {};                  ///< of an int or a float; invalid otherwise
    KRValue maximum = {};                  ///< the same
    std::vector<std::string> choices = {}; ///< possible texts; empty: any
    bool saved = true;  ///< saved in parameter files; false for temporary states such as a pause
    KRValue value = {}; ///< current value at the time of the query

    /// "bool", "int", "float", "text" or "choice".
    const char* getTypeName() const noexcept;
    /// The possible values as text: "0 to 1 of the pixels", "luma, YUV422 or BGR", "true or false".
    std::string describeRange() const;
    /// The value converted to the parameter's type: an int becomes a float if needed, any int but 0 is true.
    /// \param problem  set if the value is wrong: a message with the parameter, the value and the range
    std::optional<KRValue> convert(const KRValue& given, std::string& problem) const;
    /// Human-readable: true and false for a bool, the bare text of a choice.
    std::string format(const KRValue& given) const;

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// \throws KRError the value is not what toKRValue() makes
    static KRParameterInfo fromKRValue(const KRValue& value);
};

/// The parameters of the module, with their values, in the order of declaration; empty if it has none.
/// \throws KRError no such module; a value of it cannot be read
KR_EXPORT std::vector<KRParameterInfo> getParameterList(const KRProxy& module);

} // namespace KR
