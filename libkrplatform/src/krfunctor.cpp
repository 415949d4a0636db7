#include "krplatform/krfunctor.hpp"

#include "krplatform/krlog.hpp"

namespace KR {

const char* getTypeName(KRArgumentType type) noexcept {
    switch (type) {
    case KRArgumentType::Void:
        return "void";
    case KRArgumentType::Bool:
        return "bool";
    case KRArgumentType::Int:
        return "int";
    case KRArgumentType::Float:
        return "float";
    case KRArgumentType::String:
        return "string";
    case KRArgumentType::Binary:
        return "binary";
    case KRArgumentType::Array:
        return "array";
    case KRArgumentType::Value:
        return "value";
    }
    return "unknown";
}

KRFunctorBase::KRFunctorBase(KRGenericFunction function) : function_(std::move(function)) {}

KRFunctorBase::~KRFunctorBase() = default;

void KRFunctorBase::call(const KRValue& /*params*/, KRValue& /*result*/) {
    logError("krcommon.KRFunctor", "KRFunctor::call not implemented");
}

} // namespace KR
