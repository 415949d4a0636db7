#include "krplatform/krvalue.hpp"

#include "krplatform/krsharedallocation.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ostream>

namespace KR {

namespace {

std::atomic<KRBinaryAllocator> binaryAllocator = nullptr;

} // namespace

void setBinaryAllocator(KRBinaryAllocator allocator) noexcept {
    binaryAllocator = allocator;
}

boost::shared_ptr<unsigned char[]> allocateShared(std::size_t size) noexcept {
    const KRBinaryAllocator allocator = binaryAllocator;
    return allocator == nullptr ? nullptr : allocator(size);
}

boost::shared_ptr<unsigned char[]> KRBinary::allocate(std::size_t size) {
    if (auto bytes = allocateShared(size)) {
        return bytes;
    }
    return boost::make_shared_noinit<unsigned char[]>(size);
}

KRBinary KRBinary::copyOf(const void* bytes, std::size_t size) {
    auto copy = boost::make_shared_noinit<unsigned char[]>(size);
    if (size > 0) {
        std::memcpy(copy.get(), bytes, size);
    }
    return {std::move(copy), size};
}

bool operator==(const KRBinary& a, const KRBinary& b) noexcept {
    return a.size() == b.size() &&
           (a.data() == b.data() || std::equal(a.data(), a.data() + a.size(), b.data()));
}

const char* getTypeName(KRValue::Type type) noexcept {
    switch (type) {
    case KRValue::Type::Invalid:
        return "invalid";
    case KRValue::Type::Int:
        return "int";
    case KRValue::Type::Float:
        return "float";
    case KRValue::Type::String:
        return "string";
    case KRValue::Type::Binary:
        return "binary";
    case KRValue::Type::Array:
        return "array";
    }
    return "unknown";
}

void KRValue::throwIsNot(const char* wanted) const {
    const std::string held = getTypeName(getType());
    throw KRError("KRValue", "convert",
                  "the value is " + (isValid() ? "of type " + held : held) + ", not of type " + wanted);
}

int KRValue::toInt() const {
    if (const auto* value = std::get_if<std::int32_t>(&value_)) {
        return *value;
    }
    throwIsNot("int");
}

float KRValue::toFloat() const {
    if (const auto* value = std::get_if<float>(&value_)) {
        return *value;
    }
    if (const auto* value = std::get_if<std::int32_t>(&value_)) {
        return static_cast<float>(*value);
    }
    throwIsNot("float");
}

const std::string& KRValue::toString() const {
    if (const auto* value = std::get_if<std::string>(&value_)) {
        return *value;
    }
    throwIsNot("string");
}

const KRBinary& KRValue::GetBinary() const {
    if (const auto* value = std::get_if<KRBinary>(&value_)) {
        return *value;
    }
    throwIsNot("binary");
}

const std::vector<KRValue>& KRValue::toElements() const {
    if (const auto* value = std::get_if<std::vector<KRValue>>(&value_)) {
        return *value;
    }
    throwIsNot("array");
}

void KRValue::SetBinary(const void* bytes, std::size_t size) {
    value_ = KRBinary::copyOf(bytes, size);
}

void KRValue::SetBinary(KRBinary binary) {
    value_ = std::move(binary);
}

std::size_t KRValue::countBytes() const noexcept {
    std::size_t bytes = sizeof(KRValue);
    if (const auto* text = std::get_if<std::string>(&value_)) {
        bytes += text->size();
    } else if (const auto* binary = std::get_if<KRBinary>(&value_)) {
        bytes += binary->size();
    } else if (const auto* elements = std::get_if<std::vector<KRValue>>(&value_)) {
        for (const KRValue& element : *elements) {
            bytes += element.countBytes();
        }
    }
    return bytes;
}

std::size_t KRValue::getSize() const {
    return toElements().size();
}

void KRValue::arraySetSize(std::size_t size) {
    if (!isArray()) {
        value_ = std::vector<KRValue>();
    }
    std::get<std::vector<KRValue>>(value_).resize(size);
}

const KRValue& KRValue::operator[](std::size_t index) const {
    const auto& elements = toElements();
    if (index >= elements.size()) {
        throw KRError("KRValue", "operator[]",
                      "an array of " + std::to_string(elements.size()) + " elements has no element " +
                          std::to_string(static_cast<std::ptrdiff_t>(index)));
    }
    return elements[index];
}

KRValue& KRValue::operator[](std::size_t index) {
    return const_cast<KRValue&>(std::as_const(*this)[index]); // *this is not const here
}

std::ostream& operator<<(std::ostream& out, const KRValue& value) {
    switch (value.getType()) {
    case KRValue::Type::Invalid:
        return out << "invalid";
    case KRValue::Type::Int:
        return out << value.to<int>();
    case KRValue::Type::Float:
        return out << value.to<float>();
    case KRValue::Type::String:
        return out << '"' << value.to<std::string>() << '"';
    case KRValue::Type::Binary:
        return out << '<' << value.GetBinary().size() << " bytes>";
    case KRValue::Type::Array:
        out << '[';
        for (std::size_t i = 0; i < value.getSize(); ++i) {
            out << (i > 0 ? ", " : "") << value[i];
        }
        return out << ']';
    }
    return out;
}

} // namespace KR
