#pragma once

#include "krplatform/krerror.hpp"
#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace KR {

/// A run of bytes that never changes once made and is shared by all its copies.
///
/// Copying one copies no bytes. Thread-safe: the bytes are only ever read, the count is atomic.
class KR_EXPORT KRBinary {
public:
    /// No bytes.
    KRBinary() = default;
    /// Shares `size` bytes with the caller, who must not change them any more. The handle may own something other
    /// than an array (a mapped camera buffer): whatever it owns lives until the last copy is gone.
    KRBinary(boost::shared_ptr<const unsigned char[]> bytes, std::size_t size) noexcept
        : bytes_(std::move(bytes)), size_(size) {}
    /// A copy of `size` bytes from `bytes` on.
    static KRBinary copyOf(const void* bytes, std::size_t size);
    /// Memory to fill and then share as KRBinary(bytes, size). If available (see setBinaryAllocator), it is memory that
    /// other processes of this machine can map without a copy. Uninitialised; owned by the handle and its copies.
    static boost::shared_ptr<unsigned char[]> allocate(std::size_t size);

    const unsigned char* data() const noexcept { return bytes_.get(); } ///< size() bytes
    std::size_t size() const noexcept { return size_; }                 ///< bytes

private:
    boost::shared_ptr<const unsigned char[]> bytes_;
    std::size_t size_ = 0;
};

/// Returns uninitialised memory owned by its handle; null if none of that size is available. Thread-safe.
using KRBinaryAllocator = boost::shared_ptr<unsigned char[]> (*)(std::size_t size) noexcept;

/// Sets the allocator that KRBinary::allocate() tries first; null, the default: only the heap. For transports.
/// Thread-safe.
KR_EXPORT void setBinaryAllocator(KRBinaryAllocator allocator) noexcept;

/// Equal bytes; shared bytes are equal without being compared.
KR_EXPORT bool operator==(const KRBinary& a, const KRBinary& b) noexcept;

class KRValue;

namespace detail {
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

/// Integers that a 32-bit int holds whatever their value, bool among them.
template <class T>
concept FitsInt = std::integral<T> &&(sizeof(T) < 4 || (sizeof(T) == 4 && std::is_signed_v<T>));

/// What a vector may hold that becomes an array, besides values themselves.
template <class T>
concept OtherElement = !std::same_as<T, KRValue> && std::constructible_from<KRValue, const T&>;
} // namespace detail

/// The value that travels between modules: invalid, 32-bit int, 32-bit float, string, binary, or an array of
/// values.
///
/// Arguments and results of remote methods, images and data in shared memory are values. A bool travels as an
/// int (1 or 0). Copying a value copies an array's elements but never the bytes of a binary.
/// Reading a value as a type that it is not, or past its end, throws a KRError that names both.
/// Reentrant: distinct values may be used by distinct threads.
class KR_EXPORT KRValue {
public:
    /// What a value is; int and float have 32 bits.
    enum class Type { Invalid, Int, Float, String, Binary, Array };

    KRValue() = default;
    /// An int; of a bool 0 or 1.
    template <detail::FitsInt T>
    KRValue(T value) : value_(static_cast<std::int32_t>(value)) {} // NOLINT: values convert on purpose
    /// A float.
    template <std::floating_point T>
    KRValue(T value) : value_(static_cast<float>(value)) {} // NOLINT
    /// A string.
    KRValue(std::string value) : value_(std::move(value)) {} // NOLINT
    /// A string.
    KRValue(std::string_view value) : value_(std::string(value)) {} // NOLINT
    /// A string.
    KRValue(const char* value) : value_(std::string(value)) {} // NOLINT
    /// A binary.
    KRValue(KRBinary value) : value_(std::move(value)) {} // NOLINT
    /// An array.
    KRValue(std::vector<KRValue> elements) : value_(std::move(elements)) {} // NOLINT
    /// An array with one element per element of the vector.
    template <detail::OtherElement T>
    KRValue(const std::vector<T>& elements) // NOLINT
        : value_(std::vector<KRValue>(elements.begin(), elements.end())) {}

    /// Shares the bytes of binaries.
    KRValue(const KRValue&) = default;
    /// Leaves the other value in a state that can only be assigned to.
    KRValue(KRValue&&) noexcept = default;
    /// By value, so that `value = value[0]` does not read what it has just released.
    KRValue& operator=(KRValue other) noexcept {
        value_ = std::move(other.value_);
        return *this;
    }
    ~KRValue() = default;

    /// An array of the values given.
    template <class... T>
    static KRValue array(T&&... elements) {
        std::vector<KRValue> values;
        values.reserve(sizeof...(elements));
        (values.emplace_back(std::forward<T>(elements)), ...);
        return KRValue(std::move(values));
    }

    Type getType() const noexcept { return static_cast<Type>(value_.index()); } ///< what it is
    bool isValid() const noexcept { return getType() != Type::Invalid; }        ///< whether it is anything
    bool isInt() const noexcept { return getType() == Type::Int; }              ///< whether it is an int
    bool isFloat() const noexcept { return getType() == Type::Float; }          ///< whether it is a float
    bool isString() const noexcept { return getType() == Type::String; }        ///< whether it is a string
    bool isBinary() const noexcept { return getType() == Type::Binary; }        ///< whether it is a binary
    bool isArray() const noexcept { return getType() == Type::Array; }          ///< whether it is an array

    /// Number of elements of an array. \throws KRError not an array
    std::size_t getSize() const;
    /// Makes this an array of `size` elements: elements that were there stay, new ones are invalid values.
    /// A value that was not an array loses what it held.
    void arraySetSize(std::size_t size);
    /// \throws KRError not an array; no such element
    KRValue& operator[](std::size_t index);
    /// An element of an array. \throws KRError  no array; no such element
    const KRValue& operator[](std::size_t index) const;

    /// Makes this a binary that holds a copy of `size` bytes.
    void SetBinary(const void* bytes, std::size_t size);
    /// Makes this a binary that shares the bytes given; nothing is copied.
    void SetBinary(KRBinary binary);
    /// The bytes, shared. \throws KRError not a binary
    const KRBinary& GetBinary() const;

    /// Bytes of memory that this takes: the value itself, and the text, bytes and elements that it holds.
    std::size_t countBytes() const noexcept;

    /// The value as a T: bool, int, float, std::string, KRBinary, KRValue or a vector of these.
    /// An int is also read as a float, and as a bool (true unless it is 0); nothing else converts.
    /// \throws KRError this holds something else
    template <class T>
    T to() const {
        if constexpr (std::same_as<T, KRValue>) {
            return *this;
        } else if constexpr (std::same_as<T, bool>) {
            return toInt() != 0;
        } else if constexpr (std::same_as<T, int>) {
            return toInt();
        } else if constexpr (std::same_as<T, float>) {
            return toFloat();
        } else if constexpr (std::same_as<T, std::string>) {
            return toString();
        } else if constexpr (std::same_as<T, KRBinary>) {
            return GetBinary();
        } else {
            static_assert(detail::IsVector<T>::value, "a KRValue does not hold this type");
            T elements;
            elements.reserve(getSize());
            for (const KRValue& element : toElements()) {
                elements.push_back(element.to<typename T::value_type>());
            }
            return elements;
        }
    }
    explicit operator int() const { return toInt(); }            ///< as toInt()
    explicit operator float() const { return toFloat(); }        ///< as toFloat()
    explicit operator std::string() const { return toString(); } ///< as toString()

    friend bool operator==(const KRValue&, const KRValue&) = default;

private:
    int toInt() const;
    float toFloat() const;
    const std::string& toString() const;
    const std::vector<KRValue>& toElements() const;
    [[noreturn]] void throwIsNot(const char* wanted) const;

    // In the order of Type.
    std::variant<std::monostate, std::int32_t, float, std::string, KRBinary, std::vector<KRValue>> value_;
};

/// "invalid", "int", "float", "string", "binary" or "array".
KR_EXPORT const char* getTypeName(KRValue::Type type) noexcept;

/// Human-readable form: 3, 0.5, "text", <614400 bytes>, [1, "a"], or invalid.
KR_EXPORT std::ostream& operator<<(std::ostream& out, const KRValue& value);

} // namespace KR
