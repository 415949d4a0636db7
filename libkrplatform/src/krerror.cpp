#include "krplatform/krerror.hpp"

#include "krplatform/krtext.hpp"

namespace KR {

namespace {

std::string composeWhat(const std::string& module, const std::string& method, const std::string& description,
                        const KRSourceLocation& where) {
    return escapeText(module + "." + method + ": " + description) + " (" + where.file + ":" +
           std::to_string(where.line) + ")";
}

} // namespace

KRError::KRError(std::string module, std::string method, std::string description, KRSourceLocation where)
    : std::runtime_error(composeWhat(module, method, description, where)), module_(std::move(module)),
      method_(std::move(method)), description_(std::move(description)), where_(where) {}

KRError::~KRError() = default;

} // namespace KR
