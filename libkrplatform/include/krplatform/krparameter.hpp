#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <optional>
#include <string>
#include <vector>

namespace KR {

class KRProxy;

/// Something about a module that can be set while it runs, as KRModule::declareParameter() declares it.
///
/// Travels as an array of the fields, in their order, the type by its name.
struct KR_EXPORT KRParameterInfo {
    /// A bool travels as an int (1 or 0). A choice is one of several texts.
    enum class Type { Bool, Int, Float, Text, Choice };
    /// Longest text, in bytes.
    static constexpr int kMaxTextBytes = 4096;

    std::string name = {};                 ///< letters, digits, "-" and "_"
    Type type = Type::Int;                 ///< of its values
    std::string description = {};          ///< for people
    std::string unit = {};                 ///< "" without one
    KRValue defaultValue = {};             ///< what it begins with
    KRValue minimum = {};                  ///< of an int or a float; invalid otherwise
    KRValue maximum = {};                  ///< the same
    std::vector<std::string> choices = {}; ///< texts that it takes; any if there are none
    bool saved =
        true; ///< belongs into a file of settings; false for what is only true of a moment, such as a pause
    KRValue value = {}; ///< in force when this was asked for

    /// "bool", "int", "float", "text" or "choice".
    const char* getTypeName() const noexcept;
    /// What the parameter takes, for people: "0 to 1 of the pixels", "luma, YUV422 or BGR", "true or false".
    std::string describeRange() const;
    /// The value in the type of the parameter: an int becomes a float where one is needed, any int but 0 is a true.
    /// \param problem  set to what is wrong with the value, for people, if something is; it names the parameter, the value
    ///                 and the range
    std::optional<KRValue> convert(const KRValue& given, std::string& problem) const;
    /// For people: true and false for a bool, the bare text of a choice.
    std::string format(const KRValue& given) const;

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// \throws KRError the value is not what toKRValue() makes
    static KRParameterInfo fromKRValue(const KRValue& value);
};

/// The parameters that the module has, with their values, in the order of declaration; none for a module without any.
/// \throws KRError no such module; a value of it cannot be read
KR_EXPORT std::vector<KRParameterInfo> getParameterList(const KRProxy& module);

} // namespace KR
