#pragma once

#include "krwebmessages.hpp"

#include <krplatform/krmodule.hpp>
#include <krplatform/krvalue.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace KR::web {

/// JSON schemas of a method's request, an object with the names of its arguments, and of its result. Overloads share
/// one. Reentrant.
Json makeRequestSchema(const std::vector<KRMethodDescription>& methods, const std::string& method);
Json makeResponseSchema(const std::vector<KRMethodDescription>& methods, const std::string& method);

/// The arguments of a call.
struct MethodCall {
    const KRMethodDescription* method = nullptr; ///< the overload
    std::vector<KRValue> arguments;
};
/// The overload that has the names of the request as arguments. \throws std::invalid_argument no JSON object; there is none,
/// the text lists those that there are; an argument has no value
MethodCall readRequest(const std::vector<KRMethodDescription>& methods, const std::string& method,
                       std::string_view request);

} // namespace KR::web
