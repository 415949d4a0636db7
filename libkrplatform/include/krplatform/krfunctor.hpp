#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <functional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace KR {

/// Type of an argument or result of a remote method. Bool travels as an int; Value is any type.
enum class KRArgumentType { Void, Bool, Int, Float, String, Binary, Array, Value };

/// "void", "bool", "int", "float", "string", "binary", "array" or "value".
KR_EXPORT const char* getTypeName(KRArgumentType type) noexcept;

/// The argument type that a C++ type has on the wire.
template <class T>
constexpr KRArgumentType argumentTypeOf() {
    if constexpr (std::is_void_v<T>) {
        return KRArgumentType::Void;
    } else if constexpr (std::is_same_v<T, bool>) {
        return KRArgumentType::Bool;
    } else if constexpr (std::is_same_v<T, int>) {
        return KRArgumentType::Int;
    } else if constexpr (std::is_same_v<T, float>) {
        return KRArgumentType::Float;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return KRArgumentType::String;
    } else if constexpr (std::is_same_v<T, KRBinary>) {
        return KRArgumentType::Binary;
    } else if constexpr (std::is_same_v<T, KRValue>) {
        return KRArgumentType::Value;
    } else {
        static_assert(detail::IsVector<T>::value, "a remote method cannot take or return this type");
        return KRArgumentType::Array;
    }
}

/// A callable whose C++ types have been erased: values in, a value out, and the types that it requires.
struct KRGenericFunction {
    std::vector<KRArgumentType> arguments;        ///< types of the arguments
    KRArgumentType result = KRArgumentType::Void; ///< type of the result
    /// Expects as many values as `arguments` and of those types. Returns an invalid value for Void.
    std::function<KRValue(std::span<const KRValue>)> invoke;
};

/// Holds one callable method of a module; several of them may be bound under one name.
///
/// The platform calls the function held. `call` is there for holders that override it.
class KR_EXPORT KRFunctorBase {
public:
    /// Takes over a function with its types.
    explicit KRFunctorBase(KRGenericFunction function);
    KRFunctorBase(const KRFunctorBase&) = delete;
    KRFunctorBase& operator=(const KRFunctorBase&) = delete;

    /// Deliberately without effect here: logs "KRFunctor::call not implemented" and leaves `result` alone.
    virtual void call(const KRValue& params, KRValue& result);
    virtual ~KRFunctorBase();

    const KRGenericFunction& getFunction() const noexcept { return function_; } ///< with its types

private:
    KRGenericFunction function_;
};

namespace detail {

template <class Object, class Member, class R, class... A>
KRGenericFunction bindMember(Object* object, Member member) {
    KRGenericFunction function;
    function.arguments = {argumentTypeOf<std::remove_cvref_t<A>>()...};
    function.result = argumentTypeOf<std::remove_cvref_t<R>>();
    function.invoke = [object, member](std::span<const KRValue> values) -> KRValue {
        return [&]<std::size_t... I>(std::index_sequence<I...>)->KRValue {
            if constexpr (std::is_void_v<R>) {
                (object->*member)(values[I].template to<std::remove_cvref_t<A>>()...);
                return {};
            } else {
                return KRValue((object->*member)(values[I].template to<std::remove_cvref_t<A>>()...));
            }
        }
        (std::index_sequence_for<A...>());
    };
    return function;
}

template <class Object, class Base, class R, class... A>
KRGenericFunction makeGenericFunction(Object* object, R (Base::*member)(A...)) {
    return bindMember<Object, decltype(member), R, A...>(object, member);
}

template <class Object, class Base, class R, class... A>
KRGenericFunction makeGenericFunction(Object* object, R (Base::*member)(A...) const) {
    return bindMember<Object, decltype(member), R, A...>(object, member);
}

} // namespace detail

/// Makes a functor for a member function of a module; the object is bound. A virtual member is called virtually.
/// The functor does not own the object. Choose an overload with a cast: createFunctor(this, static_cast<void (M::*)(int)>(&M::set)).
template <class Object, class Member>
boost::shared_ptr<KRFunctorBase> createFunctor(Object* object, Member member) {
    return boost::make_shared<KRFunctorBase>(detail::makeGenericFunction(object, member));
}

} // namespace KR
